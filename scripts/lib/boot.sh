# shellcheck shell=bash
# Boots the small Debian of debian.sh with its own systemd, in namespaces of its own. Sourced behind that, never run.
# debian.sh sets some of its variables.
# shellcheck disable=SC2154

booted=   # the process outside of the namespaces
manager=  # its systemd
group=

# The kernel's hierarchy of control groups that systemd uses alone, with or without older ones beside it.
hierarchy() {
    local folder
    for folder in /sys/fs/cgroup /sys/fs/cgroup/unified; do
        [ "$(stat -f -c %T "$folder" 2>/dev/null)" != cgroup2fs ] || { echo "$folder" && return; }
    done
    return 1
}

# reason_against_booting: why this machine cannot do it; nothing if it can.
reason_against_booting() {
    local folder
    folder=$(hierarchy) || { echo "no cgroup2 is mounted" && return; }
    mkdir "$folder/lumora-trial.$$" 2>/dev/null || { echo "no control group can be made in $folder" && return; }
    rmdir "$folder/lumora-trial.$$"
    unshare --pid --mount --net --uts --ipc --cgroup --user --map-root-user --fork true 2>/dev/null ||
        echo "namespaces are not permitted"
}

# What systemd expects to find: a new /dev, /proc, /sys and /run. The network is the loopback interface alone.
# shellcheck disable=SC2016 # the inner shell expands it
boot() {
    group=$(hierarchy)/lumora-boot.$$
    mkdir "$group"
    # The journal of an earlier boot, which has the same id: that of the machine.
    rm -rf "$debian/var/log/journal"
    (
        echo "$BASHPID" >"$group/cgroup.procs"
        exec unshare --pid --mount --net --uts --ipc --cgroup --fork --kill-child bash -euc '
            hostname hub-host
            mount --make-rprivate /
            ip link set lo up
            mount --bind "$1" "$1"
            cd "$1"
            mount -t proc proc proc
            mount -t sysfs sysfs sys
            mount -t cgroup2 cgroup2 sys/fs/cgroup
            mount -t tmpfs -o mode=755 tmpfs run
            mount -t tmpfs tmpfs tmp
            mount -t tmpfs -o mode=755 tmpfs dev
            for name in null zero full random urandom tty; do
                touch "dev/$name"
                mount --bind "/dev/$name" "dev/$name"
            done
            mkdir -p dev/pts dev/shm mnt/outside
            mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
            mount -t tmpfs tmpfs dev/shm
            ln -s pts/ptmx dev/ptmx
            ln -s /proc/self/fd dev/fd
            pivot_root . mnt/outside
            umount -l /mnt/outside
            # systemd hands credentials to services by mounts that propagate.
            mount --make-rshared /
            exec env -i container=lumora PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --show-status=false \
                --log-target=journal --unit=multi-user.target' _ "$debian" </dev/null 2>"$debian-boot.log"
    ) &
    booted=$!
    wait_for_boot || die "systemd does not start in $debian, see $debian-boot.log"
}

wait_for_boot() {
    local end=$((SECONDS + 120))
    until manager=$(tr -d ' ' <"/proc/$booted/task/$booted/children") && [ -n "$manager" ] &&
        [[ $(in_boot systemctl is-system-running 2>/dev/null) =~ ^(running|degraded)$ ]]; do
        [ $SECONDS -lt $end ] && kill -0 "$booted" 2>/dev/null || return 1
        sleep 0.2
    done
}

# in_boot COMMAND...: as a process of the booted Debian.
in_boot() {
    nsenter --target "$manager" --all /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"
}

# The end of its first process ends all others.
end_boot() {
    [ -n "$booted" ] || return 0
    kill -KILL "$manager" 2>/dev/null || true
    wait "$booted" 2>/dev/null || true
    while [ -d "$group" ] && ! find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; do sleep 0.1; done
}
