# Running checks and ctest, and counting them. Sourced by test.sh.

passed=0
failed=0
skipped=0
failures=()

step() { echo "-- $*"; }

pass() {
    passed=$((passed + 1))
    echo "  ok       $1"
}

fail() {
    failed=$((failed + 1))
    failures+=("$1")
    echo "  FAILED   $1"
}

skip() {
    skipped=$((skipped + 1))
    echo "  skipped  $1: $2"
}

# check NAME LOG COMMAND...: one command that is a test of its own. Its output goes to LOG and is shown when it fails.
check() {
    local name=$1 log=$2 begin=$SECONDS
    shift 2
    if "$@" >"$log" 2>&1 </dev/null; then
        pass "$name ($((SECONDS - begin)) s)"
    else
        tail -n 60 "$log"
        fail "$name (all of its output is in $log)"
        return 1
    fi
}

# build_check PRESET TARGET: a build of the target that is a test of its own.
build_check() {
    if build "$1" "build/logs/build-$1-$2.log" "$2"; then pass "build $1 ($2)"; else fail "build $1 ($2)"; return 1; fi
}

# in_background JOB...: does the jobs (builds by their presets, and tidy) one after the other while the tests, which
# mostly wait, run in front. finish JOB waits for one and counts it as a test of its own.
in_background() {
    local job
    for job; do rm -f "build/logs/$job.status"; done
    set -m  # a process group of its own, to end it by
    (
        # Only what the tests in front leave.
        chrt --idle -p 0 $BASHPID 2>/dev/null || renice -n 19 $BASHPID >/dev/null
        for job; do
            if [[ $job == tidy ]]; then
                tidy >build/logs/tidy.log 2>&1 </dev/null
            else
                build "$job" "build/logs/build-$job.log" >"build/logs/$job.console" 2>&1
            fi
            echo $? >"build/logs/$job.new"
            mv "build/logs/$job.new" "build/logs/$job.status"
        done
    ) </dev/null &
    background=$!
    set +m
    trap 'kill -- -$background 2>/dev/null' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
}

finish() {
    local job=$1 name="build $1"
    if [[ $job == tidy ]]; then name="clang-tidy"; fi
    if [[ ! -e build/logs/$job.status ]]; then echo "Waiting for $name"; fi
    while [[ ! -e build/logs/$job.status ]] && kill -0 $background 2>/dev/null; do sleep 0.5; done
    if [[ $(cat "build/logs/$job.status" 2>/dev/null) == 0 ]]; then
        pass "$name"
        return 0
    fi
    if [[ $job == tidy ]]; then grep -hE 'error:|warning:' build/logs/tidy.log | sort -u; else cat "build/logs/$job.console"; fi
    fail "$name (build/logs)"
    return 1
}

# What a test waits for may come too late on a machine that does many things at once. A few failed tests are therefore
# run once more, by twos, when the others are through; which ones passed only then is told.
most_second_tries=12
try_again() {
    local again=build/logs/again-$preset-$part.xml names p2 f2 s2 second
    echo "  once more, by twos: the failed ones"
    rm -f "$again"
    # By their names: their numbers may have changed since, because tests were being built meanwhile.
    names=$(/usr/bin/python3 -B scripts/junit_counts.py --failed "$junit")
    "$@" ctest --test-dir "build/$preset" -j 2 -R "$names" --output-on-failure --output-junit "$PWD/$again" \
        </dev/null 2>&1 | tee -a "$log" | show_tests
    second=$(/usr/bin/python3 -B scripts/junit_counts.py "$again")
    read -r p2 f2 s2 <<<"${second%%$'\n'*}"
    if [[ $((p2 + f2)) -ne $f ]]; then return; fi  # not the same tests: the first result stands
    echo "  of $f that failed, $p2 passed at the second try"
    p=$((p + p2))
    f=$f2
}

# run_ctest PRESET PART [PREFIX...]: runs the preset's tests (those that match the filter, where there is one) and adds
# up the results. PART: all, system (the system tests) or unit (the others). PREFIX is a command to run ctest by.
tests_found=0
run_ctest() {
    local preset=$1 part=$2 begin=$SECONDS counts p f s labels=() at_once=$jobs
    local log=build/logs/test-$1-$2.log junit=build/logs/test-$1-$2.xml
    shift 2
    if [[ $world == fixed && $preset != dev ]]; then part=unit; fi
    case $part in
        system) labels=(-L system) ;;
        unit) labels=(-LE system) at_once=$((jobs / 2)) ;;  # they wait less
    esac
    rm -f "$junit"
    "$@" ctest --test-dir "build/$preset" -j "$at_once" --output-on-failure --no-tests=ignore \
        --output-junit "$PWD/$junit" ${filter:+-R "$filter"} "${labels[@]}" \
        </dev/null 2>&1 | tee "$log" | show_tests
    counts=$(/usr/bin/python3 -B scripts/junit_counts.py "$junit")
    read -r p f s <<<"${counts%%$'\n'*}"
    if [[ $counts == *$'\n'* ]]; then echo "${counts#*$'\n'}"; fi
    if [[ $((p + f + s)) -eq 0 ]]; then return; fi
    tests_found=$((tests_found + p + f + s))
    if [[ $f -gt 0 && $f -le $most_second_tries ]]; then try_again "$@"; fi
    passed=$((passed + p))
    failed=$((failed + f))
    skipped=$((skipped + s))
    if [[ $f -gt 0 ]]; then
        failures+=("$f of the tests of $preset ($part); see $log")
    fi
    echo "  tests of $preset ($part): $p passed, $f failed, $s skipped in $((SECONDS - begin)) s ($log)"
}

# Reads ctest's output: shows a counter for passed tests (on a terminal), and failed ones with what they printed.
show_tests() {
    local line show="" shown=0
    while IFS= read -r line; do
        if [[ $line =~ ^[[:space:]]*([0-9]+/[0-9]+)\ Test\ +#[0-9]+:\ ([^ ]+)\ (.*)$ ]]; then
            show=""
            case ${BASH_REMATCH[3]} in
                *Passed*)
                    if [[ -t 1 ]]; then printf '\r\033[K  %s %.90s' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"; fi
                    continue
                    ;;
                *Skipped*) continue ;;
                *) line="  FAILED   ${BASH_REMATCH[2]}" show=yes shown=0 ;;
            esac
            if [[ -t 1 ]]; then printf '\r\033[K'; fi
            echo "$line"
        elif [[ $line =~ ^[[:space:]]+Start\ +[0-9]+: || $line =~ tests\ passed, ]]; then
            if [[ $line == *tests\ passed,* ]]; then show=""; fi
        elif [[ $show == yes && $shown -lt 60 ]]; then
            shown=$((shown + 1))
            echo "    $line"
        elif [[ $line == *"Error"* && $line != "Errors while running CTest" ]]; then
            echo "  $line"
        fi
    done
    if [[ -t 1 ]]; then printf '\r\033[K'; fi
}

# sanitizer_prefix LIST: prints the command prefix that a program built with -fsanitize=LIST needs on this machine, if
# any. Fails when such a program does not start at all.
sanitizer_prefix() {
    local folder prefix
    folder=$(mktemp -d)
    echo 'int main() { return 0; }' >"$folder/probe.cpp"
    if g++ -fsanitize="$1" "$folder/probe.cpp" -o "$folder/probe" 2>/dev/null; then
        # Shadow memory may have no place under a kernel with much address randomisation.
        for prefix in "" "setarch $(uname -m) -R"; do
            if $prefix "$folder/probe" >/dev/null 2>&1 && $prefix "$folder/probe" >/dev/null 2>&1 &&
                $prefix "$folder/probe" >/dev/null 2>&1; then
                rm -rf "$folder"
                echo "$prefix"
                return
            fi
        done
    fi
    rm -rf "$folder"
    return 1
}

# sanitizer PRESET LIST: the tests under sanitizers, when the build in the background is ready.
sanitizer() {
    local prefix jobs=$(($(nproc) * 8))  # programs built with sanitizers work more than they wait
    step "Tests with -fsanitize=$2"
    if ! prefix=$(sanitizer_prefix "$2"); then
        skip "tests with -fsanitize=$2" "programs built with it do not start under this kernel"
        return
    fi
    finish "$1" || return
    # One at a time the system tests take half an hour; once is enough.
    if [[ $world == fixed ]]; then skip "system tests of $1" "without namespaces only the dev build runs them"; fi
    # shellcheck disable=SC2086
    run_ctest "$1" all $prefix
}

# trial NAME LOG COMMAND...: as check, but status 125 means that it cannot be tried on this machine.
trial() {
    local name=$1 log=$2 begin=$SECONDS status
    shift 2
    "$@" >"$log" 2>&1 </dev/null
    status=$?
    case $status in
        0) pass "$name ($((SECONDS - begin)) s)" ;;
        125) skip "$name" "$(tail -n 1 "$log")" ;;
        *)
            tail -n 60 "$log"
            fail "$name (all of its output is in $log)"
            ;;
    esac
}

browser() {
    trial "console page in Chromium" build/logs/browser.log env KORVATO_BIN="$PWD/build/dev/bin" \
        scripts/world.sh --quiet /usr/bin/python3 -B tests/browser/console_test.py
}

package() {
    trial "Debian package installed, used and purged" build/logs/package.log \
        tests/package/package_test.sh build/package build/dev/bin
}

sources() { git ls-files --cached --others --exclude-standard '*.cpp' '*.h' 2>/dev/null || list_sources; }
list_sources() { find alarmd alarmctl knihovny sim tests bench -name '*.cpp' -o -name '*.h'; }

tidy() {
    sources | grep -E '^(alarmd|alarmctl|knihovny|sim)/.*\.cpp$' |
        xargs -P "$(nproc)" -n 1 clang-tidy-14 --quiet -p build/clang 2>/dev/null
}

format() { sources | xargs clang-format-14 --dry-run -Werror; }
