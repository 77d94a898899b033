#!/bin/bash
# Measures which lines of the daemon and its library the tests run.
set -u
cd "$(dirname "$(readlink -f "$0")")" || exit 1

usage() {
    cat <<'TEXT'
Usage: ./coverage.sh [--report]

Builds everything with gcov's counters, runs all unit and system tests and tells how many lines of alarmd/, alarmctl/ and
knihovny/ they run, file by file, and which lines are missed. Missing packages are installed first.

  --report  only the report, from the counts of the last run
  --help    this text

Status 0 when at least 95 % of the lines of alarmd/ and knihovny/ were run. The report is left in build/coverage.txt, with
every line in build/coverage/html/.
TEXT
}

report_only=""
for argument; do
    case $argument in
        --report) report_only=yes ;;
        --help | -h) usage; exit 0 ;;
        *) echo "coverage.sh: unknown option $argument" >&2; usage >&2; exit 2 ;;
    esac
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
# shellcheck source=scripts/build.sh
. scripts/build.sh
# shellcheck source=scripts/checks.sh
. scripts/checks.sh

wanted=95
writable build/logs || exit 1
# shellcheck disable=SC2086
install_packages build/logs/install.log $test_packages gcovr || exit 1

if [[ -z $report_only ]]; then
    build coverage build/logs/build-coverage.log || exit 1
    find build/coverage -name '*.gcda' -delete
    jobs=$(($(nproc) * 10))
    world=$(scripts/world.sh --probe)
    filter=""
    run_ctest coverage all
fi

# report FOLDERS OPTION...: gcovr's table of the folders, "a|b".
report() {
    /usr/bin/gcovr -r . --object-directory build/coverage --gcov-ignore-parse-errors --filter "($1)/" "${@:2}" \
        2>>build/logs/gcovr.log
}

rm -f build/logs/gcovr.log
mkdir -p build/coverage/html
report "alarmd|alarmctl|knihovny" --html-details build/coverage/html/index.html
report alarmctl
report "alarmd|knihovny" --fail-under-line $wanted | tee build/coverage.txt
[[ ${PIPESTATUS[0]} -eq 0 ]]
