#!/bin/bash
# Runs a command in a private world: own mount, network and process namespaces, loopback up, and in them an empty
# writable /etc/korvato and a /dev where modem links can be made. Everything the command starts ends with it, and the
# machine never sees any of it. A plain user can do this where the kernel allows user namespaces.
#
# Where the machine allows no namespaces, root gets the machine itself instead: /etc/korvato and the modem links are
# put aside for the length of the command and put back afterwards (or by the next run, when this one was killed), one
# run at a time.
#
#   scripts/world.sh [--quiet] COMMAND [ARGUMENT...]   status: the command's, 125 when there can be no world
#   scripts/world.sh --probe                           prints private, fixed or none
#
# The command finds KORVATO_WORLD=private or KORVATO_WORLD=fixed in its environment.
set -u

self=$(readlink -f "$0")
modem_links="ttyModem2 ttyModem3"

# ---- private world ---------------------------------------------------------------------------------------------

# Covers directory $1 with a writable one whose entries lead to those of the real directory, kept in .real. It is
# put together on /mnt, which is then as it was. --rbind, since containers mount single files below /etc and /dev.
cover() {
    mount -n -t tmpfs -o mode=755 world /mnt && mkdir /mnt/.real && mount -n --rbind "$1" /mnt/.real || return
    (cd /mnt && ln -s .real/* .) || return
    mount -n --move /mnt "$1"
}

# Pseudo terminals of the world's own: a number that a modem had is never given to another world's modem, whose bytes
# would then go astray. Where they cannot be had, the machine's.
own_terminals() {
    rm -f /dev/pts /dev/ptmx && mkdir /dev/pts || return
    if mount -n -t devpts -o newinstance,ptmxmode=0666,mode=0600 devpts /dev/pts 2>/dev/null; then
        ln -s pts/ptmx /dev/ptmx
    else
        mount -n --rbind /dev/.real/pts /dev/pts && ln -s .real/ptmx /dev/ptmx
    fi
}

enter() {
    local start=$PWD
    export PATH="$PATH:/usr/sbin:/sbin"
    ip link set lo up || exit 125
    cover /etc && rm -f /etc/korvato && mkdir /etc/korvato || exit 125
    cover /dev && own_terminals || exit 125
    local link
    for link in $modem_links; do rm -f "/dev/$link"; done
    mount -n -t proc proc /proc 2>/dev/null  # some containers forbid this; the outer /proc does as well
    cd "$start" || exit 125
    export KORVATO_WORLD=private
    # This shell is the first process of the namespace: it collects orphans, and all the rest ends with it.
    "$@"
    exit $?
}

unshare_options() {
    local common="--mount --net --pid --fork --kill-child"
    local options
    for options in "$common" "$common --user --map-root-user"; do
        [[ $options == *--user* || $EUID -eq 0 ]] || continue
        # shellcheck disable=SC2086
        if unshare $options -- "$self" --enter true </dev/null >/dev/null 2>&1; then
            echo "$options"
            return
        fi
    done
    return 1
}

run_private() {
    local options=$1 child status
    shift
    # unshare ignores SIGTERM, so this shell stays and ends it with SIGKILL, which takes the whole world along. A
    # command in the background has SIGINT ignored and no input unless told otherwise; it is to have both as they are.
    # shellcheck disable=SC2086
    { env --default-signal=INT,QUIT setpriv --pdeathsig KILL \
        unshare $options -- "$self" --enter "$@" <&3 3<&- & } 3<&0
    child=$!
    trap 'kill -KILL $child 2>/dev/null' TERM HUP
    trap : INT
    while :; do
        wait "$child"
        status=$?
        kill -0 "$child" 2>/dev/null || exit $status
    done
}

# ---- the machine itself ----------------------------------------------------------------------------------------

# What stands in the way moves into DIRECTORY/.korvato-world. While that directory exists, the names outside are ours;
# it is filled under another name first, so that a run killed at any point can be undone.
put_aside() {
    local directory=$1 name
    shift
    mkdir -p "$directory/.korvato-world.new" || return
    for name; do
        if [[ -e $directory/$name || -L $directory/$name ]]; then
            mv -T "$directory/$name" "$directory/.korvato-world.new/$name" || return
        fi
    done
    mv -T "$directory/.korvato-world.new" "$directory/.korvato-world"
}

put_back() {
    local directory=$1 name kept
    shift
    for kept in "$directory/.korvato-world.new" "$directory/.korvato-world"; do
        [[ -d $kept ]] || continue
        for name; do
            if [[ $kept == *.korvato-world ]]; then rm -rf "${directory:?}/$name"; fi
            if [[ -e $kept/$name || -L $kept/$name ]]; then mv -T "$kept/$name" "$directory/$name"; fi
        done
        rmdir "$kept"
    done
}

put_back_all() {
    put_back /etc korvato
    # shellcheck disable=SC2086
    put_back /dev $modem_links
}

run_fixed() {
    local child status stop=""
    exec 9>/run/korvato-world.lock
    flock 9 || exit 125
    put_back_all
    trap put_back_all EXIT
    trap 'stop=TERM' TERM HUP
    trap : INT
    # shellcheck disable=SC2086
    put_aside /etc korvato && mkdir /etc/korvato && put_aside /dev $modem_links || exit 125
    export KORVATO_WORLD=fixed
    { env --default-signal=INT,QUIT setpriv --pdeathsig KILL "$@" <&3 3<&- 9>&- & } 3<&0
    child=$!
    while :; do
        wait "$child"
        status=$?
        if [[ -n $stop ]]; then
            kill -"$stop" "$child" 2>/dev/null
            stop=""
            continue
        fi
        kill -0 "$child" 2>/dev/null || exit $status
    done
}

# ---- choice ----------------------------------------------------------------------------------------------------

quiet=""
case ${1-} in
    --enter)
        shift
        enter "$@"
        ;;
    --probe)
        if unshare_options >/dev/null; then echo private
        elif [[ $EUID -eq 0 ]]; then echo fixed
        else echo none
        fi
        exit 0
        ;;
    --quiet)
        quiet=yes
        shift
        ;;
esac
if [[ $# -eq 0 ]]; then
    sed -n '2,/^set/s/^# \{0,1\}//p' "$self"
    exit 125
fi

if options=$(unshare_options); then
    run_private "$options" "$@"
elif [[ $EUID -eq 0 ]]; then
    [[ -n $quiet ]] || echo "No namespaces on this machine: using /etc/korvato and the ports 11010 and 11032" \
        "themselves, one run at a time; what was there is put back." >&2
    run_fixed "$@"
else
    echo "This machine lets a plain user make no namespaces (unshare failed), so the private world that the daemon's" \
        "fixed ports and /etc/korvato need cannot be made. Run it as root, or allow user namespaces" \
        "(sysctl kernel.unprivileged_userns_clone=1 on Debian)." >&2
    exit 125
fi
