#!/bin/bash
# Boots the Debian system in the folder ROOT in namespaces of its own (no network but loopback, own processes, own
# devices) with systemd as its first process, and runs COMMAND when it is up: outside, with the process number of that
# systemd in INIT, for nsenter. The system ends with the command.
#
#   boot.sh ROOT COMMAND...     status: the command's, 125 when it cannot be booted on this machine. Root only.
set -u

# ---- first process of the namespaces: put the system's mounts together and become systemd --------------------------

if [[ ${1-} == --enter ]]; then
    root=$2
    mount --make-rprivate / && mount --bind "$root" "$root" && cd "$root" || exit 1
    mount -t proc proc proc && mount -t sysfs sysfs sys || exit 1
    if [[ $(stat -f -c %T /sys/fs/cgroup) == cgroup2fs ]]; then
        mount -t cgroup2 cgroup2 sys/fs/cgroup || exit 1
    else
        mount -t tmpfs -o mode=755 tmpfs sys/fs/cgroup && mkdir sys/fs/cgroup/{unified,systemd} || exit 1
        mount -t cgroup2 cgroup2 sys/fs/cgroup/unified || exit 1
        mount -t cgroup -o name=systemd,none cgroup sys/fs/cgroup/systemd || exit 1
    fi
    mount -t tmpfs -o mode=755 tmpfs dev && mkdir dev/pts dev/shm || exit 1
    for device in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
        IFS=: read -r name major minor <<<"$device"
        mknod -m 666 "dev/$name" c "$major" "$minor" || exit 1
    done
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts dev/pts || exit 1
    ln -s pts/ptmx dev/ptmx
    ln -s /proc/self/fd dev/fd
    mount -t tmpfs -o mode=755 tmpfs run && mount -t tmpfs tmpfs tmp || exit 1
    ip link set lo up || exit 1
    # Not chroot: in a changed root the kernel allows no user namespaces, which the unit's rules use.
    pivot_root . mnt && umount -l /mnt || exit 1
    exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb \
        /lib/systemd/systemd --log-target=console --show-status=0 systemd.unit=multi-user.target
fi

# ---- outside -------------------------------------------------------------------------------------------------------

root=$(readlink -f "$1")
shift
if [[ -d /sys/fs/cgroup/unified ]]; then groups="/sys/fs/cgroup/unified /sys/fs/cgroup/systemd"; else groups=/sys/fs/cgroup; fi
group=korvato-package-$$
console=$(mktemp)

# A control group of its own, which the namespace takes for the root of all.
for folder in $groups; do mkdir "$folder/$group" || exit 125; done
(
    for folder in $groups; do echo "$BASHPID" >"$folder/$group/cgroup.procs" || exit 125; done
    exec unshare --mount --pid --net --uts --ipc --cgroup --fork --kill-child "$(readlink -f "$0")" --enter "$root"
) >"$console" 2>&1 </dev/null &
outer=$!

clean_up() {
    kill -KILL $outer 2>/dev/null
    wait $outer 2>/dev/null
    rm -f "$console"
    local folder
    for folder in $groups; do
        # Deepest first; the kernel needs a moment to let go of the last process.
        for _ in 1 2 3 4 5 6 7 8 9 10; do
            find "$folder/$group" -depth -type d -exec rmdir {} + 2>/dev/null
            [[ -d $folder/$group ]] || break
            sleep 0.2
        done
    done
}
trap clean_up EXIT
trap 'exit 143' TERM HUP
trap 'exit 130' INT

for _ in $(seq 150); do
    INIT=$(pgrep -P $outer 2>/dev/null)
    if [[ -n $INIT && $(nsenter -t "$INIT" -m -p -n -u -i -C -r -w systemctl is-system-running 2>/dev/null) =~ ^(running|degraded)$ ]]; then
        export INIT
        "$@"
        exit $?
    fi
    kill -0 $outer 2>/dev/null || break
    sleep 0.2
done
echo "The system does not come up:" >&2
tail -n 20 "$console" >&2
exit 125
