#!/bin/bash
# Runs the daemon for long, or under much load, and checks that all comes out of it that should.
set -u
cd "$(dirname "$(readlink -f "$0")")" || exit 1

usage() {
    cat <<'TEXT'
Usage: ./soak.sh MINUTES [--seed N] [--bin DIRECTORY]
       ./soak.sh --load [--bin DIRECTORY]

Builds the daemon and runs it in a private world with the simulated server, modem and GPS, a mail client that counts, a
web server, and clients of its own. Missing packages are installed first.

  MINUTES   for so long everything that can happen to the daemon happens in a random mixture: alarms of all kinds, bad
            answers, a server that goes away, phones, a modem and a mail client that fail, requests good and bad, GPS
            noise, notifications off and on. A line a minute tells how it goes. At the end each mail, SMS, acknowledge
            and answer must have come out exactly as often as it should. Ctrl-C ends it early.
  --load    the full load instead: 10,000 alarms in one answer to 20 users by mail and by SMS, and 1,000 answers of 100
            alarms, with the figures. Takes about twenty minutes.
  --seed N  another mixture (default 1)
  --bin DIRECTORY
            takes the programs from there and builds nothing, for those of a sanitizer build
  --help    this text

Status 0 when all counts are right. When they are not, the end of the daemon's log is left in out/soak-alarmd.log.
TEXT
}

minutes=""
load=""
seed=1
bin=""
while [[ $# -gt 0 ]]; do
    case $1 in
        --help | -h) usage; exit 0 ;;
        --load) load=yes ;;
        --seed | --bin)
            if [[ $# -lt 2 ]]; then echo "soak.sh: $1 needs a value" >&2; exit 2; fi
            if [[ $1 == --seed ]]; then seed=$2; else bin=$2; fi
            shift
            ;;
        *)
            if [[ -n $minutes || ! $1 =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
                echo "soak.sh: unknown option $1" >&2
                usage >&2
                exit 2
            fi
            minutes=$1
            ;;
    esac
    shift
done
if [[ -z $load && -z $minutes || -n $load && -n $minutes ]]; then usage >&2; exit 2; fi

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
# shellcheck source=scripts/build.sh
. scripts/build.sh

writable build out || exit 1
# shellcheck disable=SC2154
# The load's clock runs faster than the machine's, and its server makes a certificate.
if [[ -n $load ]]; then packages="$run_packages faketime openssl"; else packages=$run_packages; fi
# shellcheck disable=SC2086
install_packages out/install.log $packages || exit 1
if [[ $(scripts/world.sh --probe) == none ]]; then
    scripts/world.sh true
    exit 1
fi
if [[ -z $bin ]]; then
    build demo out/build.log alarmd korvato-server-sim gsm-modem-sim gps-sim counting-mail-client || exit 1
    bin=build/demo/bin
fi
if ! KORVATO_BIN=$(readlink -e "$bin"); then
    echo "There is no folder $bin." >&2
    exit 1
fi
export KORVATO_BIN
if [[ -n $load ]]; then
    export KORVATO_LOAD=full
    exec scripts/world.sh /usr/bin/python3 -B tests/system/load_test.py
fi
exec scripts/world.sh /usr/bin/python3 -B tests/system/soak.py "$minutes" --seed "$seed"
