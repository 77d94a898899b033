#!/bin/bash
# Builds the project and runs its tests.
set -u
cd "$(dirname "$(readlink -f "$0")")" || exit 1

usage() {
    cat <<'TEXT'
Usage: ./test.sh [--all] [FILTER]

Builds the daemon and the simulated plant, and runs the unit tests and the system tests, each of these in a private
world. Missing packages are installed first. Closes with a line "N passed, M failed" (", K skipped").

  --all     besides: clang with thread-safety analysis, clang-format, clang-tidy, the tests under address and
            undefined-behaviour sanitizers and under the thread sanitizer, the release build, the console page in
            a headless browser, and the Debian package in a Debian 12 of its own
  FILTER    only tests whose name matches this regular expression, as in ./test.sh system.mail
  --help    this text

Status 0 when nothing failed. Logs are left in build/logs/.
TEXT
}

all=""
filter=""
for argument; do
    case $argument in
        --all) all=yes ;;
        --help | -h) usage; exit 0 ;;
        -*) echo "test.sh: unknown option $argument" >&2; usage >&2; exit 2 ;;
        *) filter=$argument ;;
    esac
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
# shellcheck source=scripts/build.sh
. scripts/build.sh
# shellcheck source=scripts/checks.sh
. scripts/checks.sh

writable build/logs || exit 1
if [[ -n $all ]]; then packages=$all_packages; else packages=$test_packages; fi
# shellcheck disable=SC2086
install_packages build/logs/install.log $packages || exit 1

# System tests mostly wait.
jobs=$(($(nproc) * 12))
world=$(scripts/world.sh --probe)
case $world in
    fixed) echo "No namespaces on this machine: system tests use /etc/korvato and the ports 11010 and 11032" \
        "themselves, one at a time; what was there is put back." ;;
    none) echo "A plain user gets no namespaces on this machine, so the system tests are skipped; run this as root." ;;
esac

others=""
if [[ -n $all ]]; then others="clang tidy asan tsan release"; fi

# The system tests leave half of the machine to the compiler, so the unit tests are built while they run.
step "Tests"
if build_check dev system_programs; then
    # shellcheck disable=SC2086
    in_background dev $others
    run_ctest dev system
    if finish dev; then run_ctest dev unit; fi
    if [[ $tests_found -eq 0 ]]; then fail "no test matches ${filter:-all}"; fi
elif [[ -n $others ]]; then
    # shellcheck disable=SC2086
    in_background $others
fi

if [[ -n $all ]]; then
    step "Checks of the sources"
    check "clang-format" build/logs/format.log format
    finish clang
    finish tidy
    sanitizer asan address,undefined
    sanitizer tsan thread
    step "Release"
    finish release
    step "Console page in a browser"
    browser
    step "Debian package"
    package
fi

for failure in "${failures[@]}"; do echo "failed: $failure"; done
printf '%d passed, %d failed' $passed $failed
if [[ $skipped -gt 0 ]]; then printf ', %d skipped' $skipped; fi
echo
[[ $failed -eq 0 ]]
