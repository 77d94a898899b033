#!/bin/bash
# The Debian package in the hands of an administrator: built, installed in a clean Debian 12 that has booted with systemd,
# started, used, upgraded, removed and purged without a trace.
#
#   package_test.sh FOLDER BIN     FOLDER: the base system is kept there; BIN: the folder of the simulated plant's programs.
#                                  Root only. Status 0, 1 when something is not as it should be, 125 when it cannot be tried.
set -u
cd "$(dirname "$(readlink -f "$0")")/../.." || exit 1

# ---- when the system is up ------------------------------------------------------------------------------------------

# In the system; the host's environment stays outside.
inside() { nsenter -t "$INIT" -m -p -n -u -i -C -r -w env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb LC_ALL=C.UTF-8 "$@"; }

failures=0
check() {
    local what=$1
    shift
    if "$@"; then
        echo "ok      $what"
    else
        echo "FAILED  $what"
        failures=$((failures + 1))
    fi
}
waits_for() {
    local _
    for _ in $(seq 300); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.2
    done
    echo "in vain: $*" >&2
    return 1
}
not() { ! "$@"; }

# All that lies in the system, but what any package leaves behind: the package manager's own records, the journal and
# caches. Modes, owners and, of what lies below /etc, sums.
snapshot() {
    inside sh -c 'cd / && find . -xdev \( -path ./proc -o -path ./sys -o -path ./dev -o -path ./run -o -path ./tmp \
        -o -path ./korvato-test -o -path ./var/cache -o -path ./var/log/journal -o -path ./var/lib/apt \
        -o -path ./var/lib/dpkg -o -path ./var/log/apt -o -path ./var/log/dpkg.log -o -path ./var/backups \
        -o -path ./var/lib/systemd -o -path "./etc/*-" \) -prune -o -printf "%y %m %u:%g %p %l\n" | sort
        find etc -xdev -type f ! -name "*-" ! -path etc/ld.so.cache -exec sha256sum {} + | sort -k 2'
}
journal() { inside journalctl -u alarmd --no-pager -o cat; }
said() { journal | grep -qF -- "$1"; }
active() { inside systemctl is-active --quiet alarmd; }
# The member of the daemon's /proc/PID/status.
status_of() { inside sh -c "sed -n 's/^$1:[[:space:]]*//p' /proc/\$(systemctl show -P MainPID alarmd)/status"; }
daemon_user() { inside sh -c 'id -nu $(stat -c %u /proc/$(systemctl show -P MainPID alarmd))'; }

owner_of() { inside stat -c %U:%G:%a "$1"; }
alarmctl_check() {
    inside alarmctl check -c /etc/korvato/korvato.conf -m /etc/korvato/msmtp.conf -s /etc/korvato/sms.conf >"$folder/check.log" 2>&1
}
# As the package manager does it, with what systemd would be told left out. The version that was configured before, if any.
configure_again() {
    inside unshare --mount sh -c 'mount -t tmpfs none /run/systemd &&
        exec /var/lib/dpkg/info/korvato-alarmd.postinst configure "$1"' sh "$1"
}

use_it() {
    local plant="env LD_LIBRARY_PATH=/korvato-test/lib" main
    check "it runs after the installation" waits_for active
    check "it is enabled at boot" inside systemctl is-enabled --quiet alarmd
    check "it polls, as its log in the journal shows" waits_for said "curl_easy_perform() failed: Couldn't connect to server"
    check "it runs as its own user" [ "$(daemon_user)" = korvato ]
    check "it is in the group dialout" grep -qw "$(inside getent group dialout | cut -d: -f3)" <(status_of Groups)
    check "it cannot gain rights" [ "$(status_of NoNewPrivs)" = 1 ]
    check "it has no capability" [ "$(status_of CapBnd)" = 0000000000000000 ]
    check "its system calls are filtered" [ "$(status_of Seccomp)" = 2 ]
    check "the file with the mail password is its own, and nobody else reads it" [ "$(owner_of /etc/korvato/msmtp.conf)" = korvato:korvato:600 ]
    check "it may read the project and not write it" [ "$(owner_of /var/lib/korvato/project)" = root:korvato:750 ]
    check "its folder is its own" [ "$(owner_of /var/lib/korvato)" = korvato:korvato:750 ]
    main=$(inside systemctl show -P MainPID alarmd)
    inside systemctl kill -s USR1 alarmd
    restarted() { active && [ "$(inside systemctl show -P MainPID alarmd)" != "$main" ]; }
    check "SIGUSR1 makes the supervisor start it anew" waits_for restarted

    # A plant around it: the example project, the simulated server and modem, a real SMTP server that asks for a password.
    inside sh -c 'cp /usr/share/doc/korvato-alarmd/examples/*.json /var/lib/korvato/project/
        sed "s/\"gps_enable\": true/\"gps_enable\": false/" /usr/share/doc/korvato-alarmd/examples/settings.json \
            >/etc/korvato/settings.json
        sed -i "s/^https_port .*/https_port 8443/" /etc/korvato/korvato.conf
        sed -i "s/^port .*/port 2525/; s/^host .*/host 127.0.0.1/; s/^auth .*/auth plain\nuser plant\npassword of-the-plant/" \
            /etc/korvato/msmtp.conf'
    rm -rf "$folder/mailbox"
    nsenter -t "$INIT" -n /usr/bin/python3 -B tests/package/smtp_server.py "$folder/mailbox" 2525 plant of-the-plant \
        >"$folder/smtp.log" 2>&1 &
    waits_for grep -qsx ready "$folder/smtp.log"
    # The step of the README, to the letter.
    inside sh -c "$(sed -n "s/^ *\(cd .* -t you@example.com\)$/\1/p" README.md)" >"$folder/test_mail.log" 2>&1
    check "the README's test mail goes out with the password" waits_for grep -rqs "^To: you@example.com" "$folder/mailbox/new"
    inside $plant /korvato-test/bin/gsm-modem-sim --events --link /dev/ttyModem2 >"$folder/modem.log" 2>&1 &
    waits_for inside test -e /dev/ttyModem2
    inside sh -c 'chgrp dialout $(readlink -f /dev/ttyModem2) && chmod 660 $(readlink -f /dev/ttyModem2)'
    alarmctl_check
    check "alarmctl finds no error in the example plant" [ $? -lt 2 ]
    inside systemctl restart alarmd
    check "it opens the modem under the unit's rules" waits_for said "MODEM INITIALIZATION SUCCESSFULL"
    inside sh -c "cd /var/lib/korvato/project && exec $plant /korvato-test/bin/korvato-server-sim --events --port 8443 \
        --scenario /usr/share/doc/korvato-alarmd/examples/scenario.json" >"$folder/server.log" 2>&1 &
    check "a mail goes through msmtp, with the password, under the unit's rules" waits_for grep -rqs "Výpadek plamene" "$folder/mailbox/new"
    check "an SMS goes out" waits_for grep -qs "sms to +420601000001: (ACT)" "$folder/modem.log"
    check "alarmctl reaches it" inside alarmctl status
    check "manual pages are there" inside test -e /usr/share/man/man8/alarmd.8.gz -a -e /usr/share/man/man1/alarmctl.1.gz \
        -a -e /usr/share/man/man5/korvato.conf.5.gz
}

# Who the mail client's file belongs to after upgrades.
upgrade_it() {
    inside sh -c 'chown root:korvato /etc/korvato/msmtp.conf && chmod 640 /etc/korvato/msmtp.conf'
    alarmctl_check
    check "alarmctl tells that the password cannot be used, and what mends it" grep -q \
        'msmtp.conf: error: .* belongs to root, not to korvato: .*"); chown korvato /etc/korvato/msmtp.conf && chmod 600 ' "$folder/check.log"
    check "it can be installed over itself" inside dpkg -i --force-confdef "/korvato-test/$package"
    check "the owner that an earlier package gave is mended" [ "$(owner_of /etc/korvato/msmtp.conf)" = korvato:korvato:600 ]
    check "what was configured stays" inside grep -q '^https_port 8443' /etc/korvato/korvato.conf
    check "it runs after that" waits_for active
    inside sh -c 'chown root:dialout /etc/korvato/msmtp.conf && chmod 644 /etc/korvato/msmtp.conf'
    check "it can be configured anew" configure_again 1.0.0
    check "the owner that an administrator has chosen stays" [ "$(owner_of /etc/korvato/msmtp.conf)" = root:dialout:644 ]
}

# A process of the user korvato puts a link to a file of root's into the place of the project all the time, while the
# package is configured: over an installation, over what was there before one, and for the first time.
attack_it() {
    local attacker round configured=0
    inside sh -c 'echo secret >/korvato-test/victim && chmod 600 /korvato-test/victim'
    cp tests/package/swap_project.pl "$folder/root/korvato-test/"
    inside setpriv --reuid=korvato --regid=korvato --clear-groups --no-new-privs \
        perl /korvato-test/swap_project.pl /korvato-test/victim /korvato-test/end >"$folder/attack.log" 2>&1 &
    attacker=$!
    for round in $(seq 20); do
        configure_again 1.0.0 && configure_again "" && inside mv /var/lib/korvato "/korvato-test/state.$round" &&
            configure_again "" && configured=$((configured + 1))
    done
    inside touch /korvato-test/end
    wait $attacker
    check "the package is configured although korvato interferes" [ "$configured" = 20 ]
    check "korvato has interfered" grep -q "^[1-9][0-9]* folders were taken" "$folder/attack.log"
    check "korvato was not given what is root's" [ "$(owner_of /korvato-test/victim)" = root:root:600 ]
    inside rm -rf /var/lib/korvato/project
    check "it can be configured without a project" configure_again 1.0.0
    check "a project that was removed is not made again" not inside test -e /var/lib/korvato/project
}

part_inside() {
    local before after
    before=$(snapshot)
    check "it can be installed" inside env DEBIAN_FRONTEND=noninteractive dpkg -i "/korvato-test/$package"
    use_it
    upgrade_it
    attack_it
    check "it can be removed" inside dpkg -r korvato-alarmd
    check "it has stopped" not inside pgrep -x alarmd
    check "its configuration is kept" inside test -e /etc/korvato/korvato.conf
    inside rm -f /etc/korvato/settings.json
    check "it can be purged" inside dpkg -P korvato-alarmd
    after=$(snapshot)
    check "nothing is left of it" diff <(echo "$before") <(echo "$after")
    if [[ $failures -gt 0 ]]; then
        echo "The end of the journal:"
        journal | tail -n 30
    fi
    return $((failures > 0))
}

# ---- outside --------------------------------------------------------------------------------------------------------

folder=$(mkdir -p "$1" && readlink -f "$1") || exit 1
bin=$(readlink -f "$2")
package=$(basename "$(ls "$PWD"/build/release/korvato-alarmd_*.deb 2>/dev/null | tail -n 1)")
if [[ -n ${INIT-} ]]; then
    # A session of its own, so that what it has started in the background ends with it.
    trap 'kill $(jobs -p) 2>/dev/null' EXIT
    part_inside
    exit
fi

if [[ $EUID -ne 0 ]]; then
    echo "Only root can boot a system." >&2
    exit 125
fi
echo "Building the package"
cmake --preset release >"$folder/build.log" 2>&1 && cmake --build --preset release >>"$folder/build.log" 2>&1 &&
    cpack --preset deb >>"$folder/build.log" 2>&1 || { tail -n 30 "$folder/build.log"; exit 1; }
package=$(basename "$(ls build/release/korvato-alarmd_*.deb | tail -n 1)")
dpkg-deb --info "build/release/$package" | sed 's/^/  /'

# The base system is made once; each run works on a copy of it.
if [[ ! -d $folder/base ]]; then
    echo "Making a clean Debian 12"
    rm -rf "$folder/base.new"
    debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,adduser,procps,man-db bookworm "$folder/base.new" \
        >"$folder/debootstrap.log" 2>&1 || { tail -n 20 "$folder/debootstrap.log"; exit 125; }
    mv "$folder/base.new" "$folder/base"
fi
rm -rf "$folder/root"
cp -a "$folder/base" "$folder/root" || exit 1
mkdir -p "$folder/root/korvato-test/bin" "$folder/root/korvato-test/lib"
cp "build/release/$package" "$folder/root/korvato-test/"
cp "$bin/korvato-server-sim" "$bin/gsm-modem-sim" "$folder/root/korvato-test/bin/"
ldd "$bin/korvato-server-sim" "$bin/gsm-modem-sim" | sed -n 's/.*=> \(\/[^ ]*\).*/\1/p' | sort -u |
    grep -vE '/(libc|libm|ld-linux[^/]*)\.so' | xargs cp -t "$folder/root/korvato-test/lib"

# What it depends on is installed here, where there is a network, and belongs to the clean system: what is looked at
# inside is this package alone.
echo "Installing what it depends on"
cp /etc/resolv.conf "$folder/root/etc/" 2>/dev/null
chroot "$folder/root" sh -c "apt-get -qq update && apt-get -qq -y --no-install-recommends install \
    \$(dpkg-deb -f /korvato-test/$package Depends | sed 's/([^)]*)//g; s/|[^,]*//g; s/,/ /g')" >"$folder/install.log" 2>&1 \
    </dev/null || { tail -n 20 "$folder/install.log"; exit 1; }
echo "Installing, using and removing it"
tests/package/boot.sh "$folder/root" "$(readlink -f tests/package/package_test.sh)" "$folder" "$bin"
status=$?
rm -rf "$folder/root"
exit $status
