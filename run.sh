#!/bin/bash
# Shows the daemon at work: builds it, sets a small plant up around it and lets alarms happen.
set -u
cd "$(dirname "$(readlink -f "$0")")" || exit 1

usage() {
    cat <<'TEXT'
Usage: ./run.sh [--keep]

Builds the daemon and runs it in a private world with a simulated Korvato server, a simulated GSM modem and its GPS, the
real mail client, a real mail server and a real web server. Alarms happen after examples/scenario.json; the terminal
shows the road of each into the mailbox and onto the phones, and of the answer from a phone that acknowledges an alarm
at the server. Then the daemon is asked through the web server for modem status, last SMS and position, and notifications
are switched off and on. Missing packages are installed first. Takes about a minute and a half once it is built.

  --keep    after the scenario go on until Ctrl-C; alarms can then be typed in
  --help    this text

Status 0 when every mail and SMS has arrived that should and every request has got its right answer. Mails and logs are
left in out/.
TEXT
}

keep=""
for argument; do
    case $argument in
        --keep) keep=--keep ;;
        --help | -h) usage; exit 0 ;;
        *) echo "run.sh: unknown option $argument" >&2; usage >&2; exit 2 ;;
    esac
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
# shellcheck source=scripts/build.sh
. scripts/build.sh

writable build out || exit 1
# shellcheck disable=SC2086
install_packages out/install.log $run_packages || exit 1
if [[ $(scripts/world.sh --probe) == none ]]; then
    scripts/world.sh true
    exit 1
fi
build demo out/build.log alarmd korvato-server-sim gsm-modem-sim gps-sim || exit 1
rm -rf out/plant out/mailbox out/mails out/alarmd.log out/server.log out/modem.log out/gps.log out/nginx.log out/smtp.log
exec scripts/world.sh /usr/bin/python3 -B scripts/demo.py --bin build/demo/bin $keep
