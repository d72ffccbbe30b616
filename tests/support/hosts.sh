# shellcheck shell=bash
# Hosts joined by a bridge, each a network namespace. Sourced by tests, never run.

work=
hosts=()     # process that keeps the namespace of host N
children=()
failures=0

# skip REASON: the runner shows it.
skip() {
    echo "$*"
    exit 77
}

# enter_own_network [ARGUMENT...]: runs the calling script again with these, in a namespace that joins the
# hosts. Ends with 77 if namespaces are not permitted.
enter_own_network() {
    if [ -z "${IN_OWN_NETWORK:-}" ]; then
        unshare -n true 2>/dev/null || skip "network namespaces are not permitted here"
        exec env IN_OWN_NETWORK=1 unshare -n "$0" "$@"
    fi
    work=$(mktemp -d)
    trap finish EXIT
}

finish() {
    local pid
    for pid in ${children[@]+"${children[@]}"} ${hosts[@]+"${hosts[@]}"}; do
        kill -9 "$pid"
        wait "$pid"
    done 2>/dev/null
    rm -rf "$work"
}

check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        echo "FAILED  $1: expected $3, got $2"
        failures=$((failures + 1))
    fi
}

# At most so many milliseconds, and what LINK_TEST_SLACK grants a busy machine.
check_time() {
    if [ "$2" -le $(($3 + ${LINK_TEST_SLACK:-0})) ]; then
        echo "ok      $1: $2 ms"
    else
        echo "FAILED  $1: $2 ms, more than $3"
        failures=$((failures + 1))
    fi
}

now() { echo $(($(date +%s%N) / 1000000)); }

make_bridge() {
    ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up
    ip link set lo up
}

# Without an interface yet.
make_bare_host() {
    unshare -n sleep infinity &
    hosts[$1]=$!
    while [ "$(readlink /proc/self/ns/net)" = "$(readlink "/proc/${hosts[$1]}/ns/net")" ]; do
        sleep 0.01
    done
    on "$1" ip link set lo up
}

# join_host N ADDRESS: to the bridge, by its port hN.
join_host() {
    ip link add "h$1" type veth peer name eth0 netns "${hosts[$1]}"
    ip link set "h$1" master br0 up
    on "$1" ip address add "$2" dev eth0
    on "$1" ip link set eth0 up
}

# Host N has the address 10.77.0.N.
make_host() {
    make_bare_host "$1"
    join_host "$1" "10.77.0.$1/24"
}

on() {
    local host=$1
    shift
    nsenter --net="/proc/${hosts[$host]}/ns/net" "$@"
}
