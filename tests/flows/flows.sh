#!/bin/bash
# Streams of blocks between a client and a device on hosts of their own, under combinations of everything else that
# the library does meanwhile. Each combination has processes of its own.
#
# usage: flows.sh FOLDER-OF-PROGRAMS SECONDS COMBINATION...
#        flows.sh FOLDER-OF-PROGRAMS SECONDS all
#
# A combination is a list of options of tests/flows/flow_client.h, joined by commas: size=1000000,search,command=400.
# With "silent" another device of the network is halted most of the time, and a bystander on a host of its own keeps
# trying to connect to it. "all" is every combination. Options in LUMORA_FLOW_OPTIONS, joined by commas, too, hold
# if a combination does not name them; with LUMORA_FLOW_FIGURES the figures of good flows are written as well, with
# LUMORA_FLOW_PRIVATE the data channels are private.
# Ends with 77 if namespaces are not permitted. Nothing leaves the namespaces it makes.
set -u
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/../support/hosts.sh"

bin=$(realpath "$1")
shift
enter_own_network "$bin" "$@"
seconds=$1
shift

every_combination() {
    local size search command second version silent
    for size in size=100000 size=1000000 size=5242880; do
        for search in "" ,search; do
            for command in "" ,command=100 ,command=400 ,command=700 ,command=1500 ,command=2000; do
                for second in "" ,second; do
                    for version in "" ,version; do
                        for silent in "" ,silent; do
                            echo "$size$search$command$second$version$silent"
                        done
                    done
                done
                echo "$size,echo,pace=0$search$command"
            done
        done
    done
}

# start HOST ROLE...: its input is held open as descriptor 3.
start() {
    local host=$1 log
    shift
    log=$work/$1-$host
    (exec nsenter --net="/proc/${hosts[$host]}/ns/net" "$bin/flow_peer" "$@" <"$work/input" >"$log" 2>"$log.log" 3>&-) &
    children+=("$!")
    started=$!
}

# wait_for FILE LINE: of the process that was started last.
wait_for() {
    local begin
    begin=$(now)
    until grep -q "$2" "$work/$1" || ! kill -0 "$started" || [ $(($(now) - begin)) -gt 60000 ]; do
        sleep 0.02
    done
}

# Halts the device for longer than its peers wait for a sign of life, and for shorter.
halt_again_and_again() {
    while kill -STOP "$1" 2>/dev/null; do
        sleep 1.2
        kill -CONT "$1" 2>/dev/null
        sleep 0.5
        kill -STOP "$1" 2>/dev/null
        sleep 4
        kill -CONT "$1" 2>/dev/null
        sleep 0.8
    done
}

# How many segments the kernel has sent again on the hosts of the stream. Each may have cost its shortest time-out,
# 200 ms, in which nothing of the stream arrives: a receive buffer that overflows on a busy machine is enough for one.
segments_sent_again() {
    local host
    for host in 1 2; do
        nsenter --net="/proc/${hosts[$host]}/ns/net" nstat -asz TcpRetransSegs
    done | awk '/^TcpRetransSegs/ { sum += $2 } END { print sum + 0 }'
}

# A flow that fails is run once more if the kernel has sent segments again meanwhile.
run_combination() {
    local sent_again
    sent_again=$(segments_sent_again)
    flow "$1" && return
    if [ "$(segments_sent_again)" -gt "$sent_again" ]; then
        echo "        $(($(segments_sent_again) - sent_again)) segments were sent again by the kernel; once more"
        failures=$((failures - 1))
        flow "$1"
    fi
}

flow() {
    local combination=$1 options option device silent=() halting='' status=0
    IFS=, read -ra options <<<"$combination"
    for option in ${LUMORA_FLOW_OPTIONS//,/ }; do
        [[ ,$combination == *",${option%%=*}"* ]] || options+=("$option")
    done
    rm -f "$work/input"
    mkfifo "$work/input"
    exec 3<>"$work/input"
    start 2 device stream
    device=$started
    wait_for device-2 ready
    if [[ $combination == *silent* ]]; then
        start 3 device silent
        silent+=("$started")
        wait_for device-3 ready
        start 4 bystander
        silent+=("$started")
    fi
    start 1 client "$seconds" "${options[@]}"
    if [ ${#silent[@]} -gt 0 ]; then
        wait_for client-1 begun
        halt_again_and_again "${silent[0]}" 3>&- &
        halting=$!
        children+=("$halting")
    fi
    wait "$started" || status=$?
    if [ -n "$halting" ]; then
        kill "$halting"
        wait "$halting"
        kill -CONT "${silent[0]}"
    fi 2>/dev/null
    end_devices "$device" ${silent[@]+"${silent[@]}"}
    check "$combination" "$status" 0
    if [ "$status" -ne 0 ]; then
        cat "$work/client-1"
        sed 's/^/  device: /' "$work/device-2"
        tail -n 15 "$work/client-1.log" "$work/device-2.log"
    elif [ -n "${LUMORA_FLOW_FIGURES:-}" ]; then
        cat "$work/client-1"
    fi
    children=()
    return "$status"
}

# They end with their input: all ends of it have to be closed.
end_devices() {
    local process
    exec 3>&-
    for process in "$@"; do
        timeout 30 tail --pid="$process" -s 0.05 -f /dev/null || kill -KILL "$process"
        wait "$process"
        check_quietly "a process beside the flow ends cleanly" $? 0
    done
}

check_quietly() { [ "$2" = "$3" ] || check "$@"; }

make_bridge || skip "bridges are not permitted here"
for host in 1 2 3 4; do
    make_host "$host"
done
export LUMORA_LINK_INTERFACE=eth0
: "${LUMORA_FLOW_OPTIONS:=}"
unset LUMORA_LINK_PEERS LUMORA_LINK_PORT LUMORA_LINK_PSK_FILE LUMORA_LINK_CHANNEL LUMORA_LOG_FILE
if [ -n "${LUMORA_FLOW_PRIVATE:-}" ]; then
    (umask 077 && echo "flow:5f0c3e5f0c3e5f0c3e5f0c3e5f0c3e5f" >"$work/key")
    export LUMORA_LINK_PSK_FILE=$work/key LUMORA_LINK_CHANNEL=require
fi
[ "$*" != all ] || mapfile -t combinations < <(every_combination)
for combination in "${combinations[@]-$@}"; do
    run_combination "$combination"
done
[ "$failures" -eq 0 ]
