#!/bin/bash
# A client and a device on two hosts that a bridge joins, and a cable that is pulled: during a search, a command
# and a stream. Both notice, and the client finds and connects the device again, twice in the same processes.
#
# usage: link_cuts_test.sh FOLDER-OF-PROGRAMS [SECONDS...]
#
# The cuts last so many seconds, 1 by default. Ends with 77 if namespaces are not permitted. Nothing
# leaves the namespaces it makes.
set -u
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/../support/hosts.sh"

bin=$(realpath "$1")
shift
[ $# -gt 0 ] || set -- 1
enter_own_network "$bin" "$@"

# wait_for FILE PATTERN COUNT: until so many lines match, at most 40 s.
wait_for() {
    local begin
    begin=$(now)
    while [ "$(grep -c -- "$2" "$1")" -lt "$3" ] && [ $(($(now) - begin)) -lt 40000 ]; do
        sleep 0.02
    done
    [ "$(grep -c -- "$2" "$1")" -ge "$3" ]
}

# run HOST NAME PROGRAM: its input is held open as descriptor 3.
run() {
    : >"$work/$2"
    (exec nsenter --net="/proc/${hosts[$1]}/ns/net" "$bin/$3" <"$work/$2.in" >"$work/$2" 2>"$work/$2.log" 3>&-) &
    children+=("$!")
}

# tell LINE: to the client; says in result what came of it.
tell() {
    local answers
    answers=$(grep -cE "^$1 (done|failed)" "$work/client")
    echo "$1" >&3
    wait_for "$work/client" "^$1 \(done\|failed\)" $((answers + 1))
    result=$(grep -E "^$1 (done|failed)" "$work/client" | tail -n 1)
}

# Until the device is there again and an answer has come back.
connect() {
    for _ in $(seq 40); do
        tell connect
        if [ "$result" = "connect done" ]; then
            echo "hello $1" >&3
            wait_for "$work/client" "echo: hello $1\$" 1 && break
        fi
        sleep 0.1
    done
    check "$1: connected, and the text comes back" "$(grep -c "echo: hello $1\$" "$work/client")" 1
}

unplug() { ip link set h2 down; }
plug() { ip link set h2 up; }

cut_during_search() {
    unplug
    tell find
    check "a search without the device fails" "$result" "find failed"
    sleep "$1"
    plug
    connect "after a search that was cut for $1 s, $2"
}

cut_during_command() {
    echo version >&3
    unplug
    sleep "$1"
    plug
    wait_for "$work/client" "^version \(done\|failed\)" "$commands"
    check "a command that was cut comes to an end" "$(grep -cE '^version (done|failed)' "$work/client")" "$commands"
    connect "after a command that was cut for $1 s, $2"
}

# Texts go on all the time; after the cut the lost connection has to be given up on both sides.
cut_during_stream() {
    for text in $(seq 20); do
        echo "text-$1-$2-$text" >&3
        sleep 0.02
        [ "$text" -ne 10 ] || unplug
    done
    sleep "$1"
    plug
    wait_for "$work/client" "^text-$1-$2-20 " 1
    check "each send comes to an end" "$(grep -c "^text-$1-$2-[0-9]* \(done\|failed\)" "$work/client")" 20
    check "nothing comes back twice" "$(grep "^echo: text-$1-$2-" "$work/client" | sort | uniq -d | wc -l)" 0
    connect "after a stream that was cut for $1 s, $2"
}

# Only the data channel is cut: nothing but TCP itself can tell that the peer is gone.
dead_idle_channel() {
    on 2 nft -f - <<END
table ip faults {
    chain input {
        type filter hook input priority 0;
        tcp dport { 6666, 6667 } drop
        tcp sport { 6666, 6667 } drop
    }
    chain output {
        type filter hook output priority 0;
        tcp dport { 6666, 6667 } drop
        tcp sport { 6666, 6667 } drop
    }
}
END
    local client device
    client=$(grep -c "client reveived thread exit" "$work/client.log")
    device=$(grep -c "server reveived thread exit" "$work/device.log")
    local begin
    begin=$(now)
    wait_for "$work/client.log" "client reveived thread exit" $((client + 1))
    check_time "the client notices a dead idle channel" $(($(now) - begin)) 15000
    wait_for "$work/device.log" "server reveived thread exit" $((device + 1))
    check_time "and so does the device" $(($(now) - begin)) 15000
    on 2 nft flush ruleset
    connect "after a dead idle channel, $1"
}

make_bridge || skip "bridges are not permitted here"
make_host 1
make_host 2
export LUMORA_LINK_INTERFACE=eth0
unset LUMORA_LINK_PEERS LUMORA_LINK_PORT LUMORA_LINK_PSK_FILE
mkfifo "$work/client.in"
ln -s /dev/null "$work/device.in"
run 2 device device
run 1 client lasting_client
exec 3>"$work/client.in"
wait_for "$work/device" ready 1
connect "at first"
commands=0
for seconds in "$@"; do
    for round in first second; do
        cut_during_search "$seconds" "$round"
        commands=$((commands + 1))
        cut_during_command "$seconds" "$round"
        cut_during_stream "$seconds" "$round"
    done
done
dead_idle_channel first
dead_idle_channel second
kill -TERM "${children[0]}"
wait "${children[0]}"
check "the device ends cleanly" $? 0
exec 3>&-
wait "${children[1]}"
check "and the client, too" $? 0
[ "$failures" -eq 0 ] || { tail -n 60 "$work"/*.log "$work/client" && false; }
