#!/usr/bin/env bash
# lumora-hub between a device on one host, a broker on another and consumers on a third. The arguments are the
# programs lumora-hub and hub_device.

set -uo pipefail
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/../../support/hosts.sh"

hub_program=$1 device_program=$2
for program in /usr/sbin/mosquitto mosquitto_sub mosquitto_pub; do
    command -v $program >/dev/null || skip "$program is not installed"
done
enter_own_network "$@"

DEVICE=numbers@10.77.0.1
started=
hub=

# start HOST LOG COMMAND...: in the background. Sets started to its process, not to that of a shell around it.
start() {
    (LUMORA_LINK_INTERFACE=eth0 exec nsenter --net="/proc/${hosts[$1]}/ns/net" "${@:3}") >"$work/$2" 2>&1 &
    started=$!
    children+=("$started")
}

start_hub() {
    start 2 hub.log "$hub_program" --mqtt 10.77.0.3 --mqtt-name test
    hub=$started
}

# await TEXT TOPIC: says whether what is retained there has this text within 30 s.
await() {
    local end=$(($(now) + 30000))
    while [ "$(now)" -lt $end ]; do
        on 4 mosquitto_sub -V 5 -h 10.77.0.3 -t "$2" -C 1 -W 1 2>/dev/null | grep -q -- "$1" && echo there && return
        sleep 0.1
    done
    echo missing
}

make_bridge
for host in 1 2 3 4; do
    make_host $host
done
printf 'listener 1883\nallow_anonymous true\nuser root\nlog_type error\n' >"$work/broker.conf"
start 3 broker.log /usr/sbin/mosquitto -c "$work/broker.conf"
start 1 device.log "$device_program" numbers line 1000 50
start_hub

check "the hub is online" "$(await true lumora/hub/test/online)" there
check "the device is online" "$(await true "lumora/$DEVICE/online")" there
check "its description stays at the broker" "$(await '"type":"numbers"' "lumora/$DEVICE")" there
blocks=$(on 4 timeout 30 mosquitto_sub -V 5 -h 10.77.0.3 -t "lumora/$DEVICE/line" -F %l -C 30 | grep -c '^1000$')
check "blocks reach another host whole" "$blocks" 30

on 4 mosquitto_sub -V 5 -h 10.77.0.3 -t lumora/reply/test -C 1 -W 30 >"$work/reply" &
reply=$!
sleep 0.5
on 4 mosquitto_pub -V 5 -h 10.77.0.3 -t "lumora/$DEVICE/command/hello" -m world -D publish response-topic lumora/reply/test
wait $reply
check "a command is answered" "$(cat "$work/reply")" "done"
check "the device got it" "$(grep -c '^command hello world$' "$work/device.log")" 1

kill -9 $hub
check "the last will is published" "$(await false lumora/hub/test/online)" there
start_hub
check "a hub that is started again is online" "$(await true lumora/hub/test/online)" there

[ "$failures" -eq 0 ] || cat "$work"/*.log
exit $((failures > 0))
