#!/bin/bash
# Hosts joined by a bridge, each a network namespace: searches, cuts, loss, and a foreign client.
#
# usage: system_test.sh PATH-OF-LINK_TEST_TOOL [CHECK...|long]
#
# Without the name of a check, those that end soon; "long" stands for the others, about six minutes.
# Ends with 77 if namespaces are not permitted. Nothing leaves the namespaces it makes.
set -u
# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/../../support/hosts.sh"

tool=$(realpath "$1")
shift
enter_own_network "$tool" "$@"

# Starts the tool on a host with its input held open; its output goes to $work/NAME.
start() {
    local host=$1 name=$2
    shift 2
    mkfifo "$work/$name.in"
    : >"$work/$name"
    # exec: the process id must be the tool's own.
    (exec nsenter --net="/proc/${hosts[$host]}/ns/net" env LUMORA_LINK_INTERFACE="${interface:-eth0}" \
        "$tool" "$@" <"$work/$name.in" >"$work/$name" 2>&1) &
    started=$!
    children+=("$started")
    # Held open, or the tool would see the end of its input.
    exec {input}>"$work/$name.in"
    until grep -q ready "$work/$name"; do
        kill -0 "$started" || { cat "$work/$name"; exit 1; }
        sleep 0.01
    done
}

find_on() {
    on "$1" env LUMORA_LINK_INTERFACE="${interface:-eth0}" "$tool" find "$2" >"$work/found"
    found=$(grep -c : "$work/found")
    duration=$(sed -n 's/found in \(.*\) ms/\1/p' "$work/found")
}

# The time until the file has so many lines with the word, or 20 s.
wait_for() {
    local begin
    begin=$(now)
    while [ "$(grep -c "$2" "$1")" -lt "$3" ] && [ $(($(now) - begin)) -lt 20000 ]; do
        sleep 0.01
    done
    waited=$(($(now) - begin))
}

stop_all() {
    for pid in ${children[@]+"${children[@]}"}; do
        kill -9 "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    children=()
    rm -f "$work"/*.in
}

lose() {
    nft -f - <<END
table bridge faults {
    chain forward {
        type filter hook forward priority 0;
        ether type ip numgen random mod 100 < $1 drop
    }
}
table netdev faults {
    chain ingress {
        type filter hook ingress device "h1" priority 0;
        ip protocol udp numgen random mod 100 < $2 dup to "h2"
    }
}
END
}

be_sound() { nft flush ruleset; }

# tell INPUT LINE: to a tool that was started.
tell() { echo "$2" >&"$1"; }

five_hosts() {
    for host in 1 2 3 4 5; do
        start $host "serve$host" serve camera 4
    done
    find_on 1 camera
    check "20 nodes of five hosts are found" "$found" 20
    check "in the order of their addresses" "$(sort -c -V <(grep : "$work/found") && echo yes)" yes
    for _ in 1 2 3 4 5; do
        find_on 1 camera
        [ "$duration" -le 300 ] && break
    done
    check_time "a search, when all answer at once" "$duration" 300
    stop_all
}

killed_and_cut() {
    start 1 watch watch
    start 2 killed serve camera 3
    killed=$started
    start 3 cut serve printer 1
    wait_for "$work/watch" added 4
    check "devices of two hosts are announced" "$(grep -c added "$work/watch")" 4
    kill -9 "$killed"
    wait_for "$work/watch" removed 3
    check_time "three nodes of a killed process are removed" "$waited" 3100
    for round in 1 2; do
        ip link set h3 down
        wait_for "$work/watch" "removed.*printer" $round
        check_time "cut number $round is noticed" "$waited" 3100
        ip link set h3 up
        wait_for "$work/watch" "added.*printer" $((round + 1))
        check_time "link number $round is back" "$waited" 3100
    done
    check "every event came once" "$(grep -c -E 'added|removed' "$work/watch")" 11
    stop_all
}

lossy() {
    start 2 serve serve camera 1
    start 3 watch watch
    lose 20 10
    on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 300 >"$work/post"
    cat "$work/post"
    read -r _ answered _ counted <"$work/post"
    check "every POST was answered in spite of loss" "$answered" 300
    check "and every one was counted once" "$counted" "$answered"
    check "no node was removed wrongly" "$(grep -c 'removed.*camera' "$work/watch")" 0
    be_sound
    stop_all
}

# With a key: through one session, and with a handshake for every request.
secured_lossy() {
    echo "lumora:for tests only" >"$work/key"
    chmod 600 "$work/key"
    export LUMORA_LINK_PSK_FILE=$work/key
    if ! on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" find camera >/dev/null 2>&1; then
        echo "skip    built without DTLS"
        unset LUMORA_LINK_PSK_FILE
        return
    fi
    lossy
    local begin answered counted=0 sum=0
    start 2 serve_secured serve camera 1
    lose 20 10
    begin=$(now)
    for _ in $(seq 40); do
        on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 1 >"$work/post"
        read -r _ answered _ counted <"$work/post"
        sum=$((sum + answered))
    done
    check "each of 40 requests with a handshake of its own was answered" "$sum" 40
    check "and counted once" "$counted" "$sum"
    echo "        in $((($(now) - begin) / 40)) ms each, with a search before and another request behind"
    be_sound
    stop_all
    unset LUMORA_LINK_PSK_FILE
}

two_hundred() {
    interface=lo
    for process in 1 2 3 4 5 6 7 8 9 10; do
        start 1 "serve$process" serve camera 20
    done
    sleep 2
    find_on 1 camera
    check "200 nodes of one host are found" "$found" 200
    echo "        in $duration ms"
    on 1 nft -f - <<END
table ip faults {
    chain input {
        type filter hook input priority 0;
        ip protocol udp numgen random mod 100 < 20 drop
    }
}
END
    for _ in 1 2 3; do
        find_on 1 camera
        check "200 nodes of one host are found through 20 % loss" "$found" 200
    done
    on 1 nft flush ruleset
    interface=
    stop_all
}

late_and_moved() {
    start 1 watch watch
    make_bare_host 6
    start 6 late serve camera 1
    join_host 6 10.77.0.6/24
    wait_for "$work/watch" "added 10.77.0.6.*camera" 1
    check_time "a node is there when its interface appears" "$waited" 3000
    on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 3 >"$work/post"
    check "and can be asked" "$(cat "$work/post")" "answered 3 counted 3"
    on 6 ip address del 10.77.0.6/24 dev eth0
    on 6 ip address add 10.77.0.66/24 dev eth0
    wait_for "$work/watch" "added 10.77.0.66.*camera" 1
    check_time "it is another device under another address" "$waited" 6000
    check "the former one is gone" "$(grep -c "removed 10.77.0.6:" "$work/watch")" 1
    on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 3 >"$work/post"
    check "and it has only moved" "$(cat "$work/post")" "answered 3 counted 6"
    check "every event came once" "$(grep -c 'camera' "$work/watch")" 3
    stop_all
}

# Four processes that offer and ask, two on each of two hosts.
both_sides() {
    local names="left1 left2 right1 right2" inputs=() name
    for name in $names; do
        start "$([[ $name == left* ]] && echo 1 || echo 2)" "$name" both camera 25
        inputs+=("$input")
    done
    for input in "${inputs[@]}"; do
        tell "$input" go
    done
    for name in $names; do
        wait_for "$work/$name" others 1
        check "$name is answered by all others" "$(grep others "$work/$name")" "others 3 answered 75"
    done
    for input in "${inputs[@]}"; do
        tell "$input" count
    done
    for name in $names; do
        wait_for "$work/$name" counted 1
        check "$name has served each of their requests once" "$(grep counted "$work/$name")" "counted 75"
    done
    stop_all
}

# put_time NAME INPUT COUNT KEY VALUE: the result and the time of a request that is the COUNT-th of NAME.
put_time() {
    tell "$2" "$4 $5"
    local begin
    begin=$(now)
    while [ "$(grep -c ' in ' "$work/$1")" -lt "$3" ] && [ $(($(now) - begin)) -lt 70000 ]; do
        sleep 0.05
    done
    read -r result _ duration _ < <(grep ' in ' "$work/$1" | sed -n "$3p")
}

time_limits() {
    local asking serving
    start 2 serve serve camera 1
    serving=$started
    start 1 asker put camera
    asking=$input
    put_time asker "$asking" 1 sleep 5000
    check "a handler of five seconds is answered" "$result" accepted
    check_time "when it is done" "$duration" 5300
    ip link set h2 down
    put_time asker "$asking" 2 key value
    check "an absent peer is a failure" "$result" failed
    check_time "in at most seven seconds" "$duration" 7000
    ip link set h2 up
    kill -9 "$serving"
    put_time asker "$asking" 3 key value
    check "a refused port is a failure" "$result" failed
    check_time "at once" "$duration" 100
    stop_all
}

# The pings of one that never answers are answered all the same.
never_answered() {
    start 2 serve serve camera 1
    start 1 asker put camera
    put_time asker "$input" 1 sleep 90000
    check "a request that is never answered ends" "$result" failed
    check_time "within a minute" "$duration" 60100
    stop_all
}

hour_in_short() {
    start 2 serve serve camera 3
    start 1 watch watch
    wait_for "$work/watch" added 3
    lose 20 10
    sleep 120
    be_sound
    check "20 % loss removes no node in two minutes" "$(grep -c removed "$work/watch")" 0
    stop_all
}

blocked_multicast() {
    nft add table bridge blocked
    nft 'add chain bridge blocked forward { type filter hook forward priority 0; }'
    nft add rule bridge blocked forward ip daddr 224.0.0.0/4 drop
    LUMORA_LINK_PORT=7000 start 2 serve serve camera 1
    local serving=$started
    find_on 1 camera
    check "without multicast no node is found" "$found" 0
    export LUMORA_LINK_PEERS=10.77.0.2:7000
    find_on 1 camera
    check "but a static peer is" "$found" 1
    on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 5 >"$work/post"
    check "and answers" "$(cat "$work/post")" "answered 5 counted 5"
    start 1 watch watch
    wait_for "$work/watch" added 1
    kill -9 "$serving"
    wait_for "$work/watch" removed 1
    check_time "its end is noticed" "$waited" 3100
    unset LUMORA_LINK_PEERS
    be_sound
    stop_all
}

foreign_client() {
    local client
    client=$(command -v coap-client || command -v coap-client-notls)
    if [ -z "$client" ]; then
        echo "skip    no coap-client"
        return
    fi
    start 2 serve serve camera 1
    on 1 ip route add 224.0.0.0/4 dev eth0
    link=$(on 1 timeout 10 "$client" -N -B 2 -m get 'coap://224.0.1.187/.well-known/core?rt=camera' 2>/dev/null)
    uri=$(sed -n 's/.*<\(coap:[^>]*\)>.*/\1/p' <<<"$link" | head -1)
    check "a foreign client finds the node by multicast" "$(cut -d: -f1-2 <<<"$uri")" "coap://10.77.0.2"
    reply=$(on 1 timeout 10 "$client" -B 5 -m get "$uri?count" 2>/dev/null | tr -d '\n')
    check "and reads from it" "$reply" 0
    on 1 timeout 10 "$client" -B 5 -m post -e 1 "$uri?add" >/dev/null 2>&1
    reply=$(on 1 timeout 10 "$client" -B 5 -m get "$uri?count" 2>/dev/null | tr -d '\n')
    check "and writes to it" "$reply" 1
    stop_all
}

decoded() {
    if ! command -v tshark >/dev/null; then
        echo "skip    no tshark"
        return
    fi
    # Started through a bridge port, tshark sees what both hosts send.
    tshark -i h1 -w "$work/traffic" -q 2>"$work/capture" &
    local capture=$!
    children+=("$capture")
    until grep -q "Capturing on" "$work/capture"; do
        kill -0 "$capture" || { cat "$work/capture"; break; }
        sleep 0.01
    done
    sleep 1
    start 2 serve serve camera 1
    on 1 env LUMORA_LINK_INTERFACE=eth0 "$tool" post camera 20 >/dev/null
    sleep 1
    # It still holds what it has not written; killed, it would lose it.
    kill -INT "$capture"
    wait "$capture"
    stop_all
    tshark -r "$work/traffic" -d udp.port==1-65535,coap -Y coap >"$work/decoded" 2>/dev/null
    check "tshark knows hellos, probes, answers and requests" \
        "$(for word in POST GET 2.05 2.04 lumora/hello lumora/goodbye .well-known/core; do
            grep -q -F "$word" "$work/decoded" || echo "not $word"
        done)" ""
    check "and finds nothing malformed" \
        "$(tshark -r "$work/traffic" -d udp.port==1-65535,coap -Y '_ws.malformed || _ws.expert.severity==8388608' 2>/dev/null | wc -l)" 0
}

make_bridge || skip "bridges are not permitted here"
for host in 1 2 3 4 5; do
    make_host $host
done
nft list ruleset >/dev/null 2>&1 || skip "nft is missing, or not permitted here"
[ $# -gt 0 ] ||
    set -- five_hosts killed_and_cut blocked_multicast foreign_client late_and_moved both_sides time_limits
[ "$1" != long ] || set -- lossy two_hundred decoded never_answered hour_in_short secured_lossy
for name in "$@"; do
    echo "== $name"
    $name
done
[ "$failures" -eq 0 ]
