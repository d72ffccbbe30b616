#!/bin/bash
# The examples of both sides on two hosts that a bridge joins: nothing of a device is on its client's host.
#
# usage: two_hosts_test.sh FOLDER-OF-PROGRAMS
# Ends with 77 if namespaces are not permitted. Nothing leaves the namespaces it makes.
set -u
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/../support/hosts.sh"

bin=$(realpath "$1")
enter_own_network "$bin"

# start_device PROGRAM [OPTION...]: on host 2; returns when it is ready.
start_device() {
    local name=$1 begin
    begin=$(now)
    shift
    # exec: the process id must be the device's own.
    (exec nsenter --net="/proc/${hosts[2]}/ns/net" "$bin/$name" "$@" >"$work/$name" 2>&1) &
    device=$!
    children+=("$device")
    until grep -q ready "$work/$name"; do
        if ! kill -0 "$device" || [ $(($(now) - begin)) -gt 60000 ]; then
            cat "$work/$name"
            exit 1
        fi
        sleep 0.05
    done
}

end_device() {
    kill -TERM "$device"
    wait "$device"
    check "the device ends cleanly" $? 0
}

echo_in_c() {
    start_device device
    check "the client in C has its text back" "$(on 1 "$bin/client" "over the bridge" 2>"$work/log")" \
        "echo: over the bridge"
    check "which the device has seen" "$(grep -c "sent 15 bytes, 15 went back" "$work/device")" 1
    end_device
}

text_in_a_picture() {
    if [ ! -x "$bin/text_reader" ]; then
        echo "skip    built without Tesseract"
        return
    fi
    "$bin/render_page" "$work/page.png" <<<"A line that is read on another host"
    start_device text_reader --type two-hosts
    check "the text is that of the picture" \
        "$(on 1 "$bin/read_text" --type two-hosts "$work/page.png" 2>"$work/log" | sed '1,/^text:$/d' | xargs)" \
        "A line that is read on another host"
    end_device
}

make_bridge || skip "bridges are not permitted here"
make_host 1
make_host 2
export LUMORA_LINK_INTERFACE=eth0
unset LUMORA_LINK_PEERS LUMORA_LINK_PORT LUMORA_LINK_PSK_FILE
echo_in_c
text_in_a_picture
[ "$failures" -eq 0 ] || { cat "$work"/*log && false; }
