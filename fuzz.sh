#!/bin/bash
# Feeds the daemon's readers with inputs that nobody would send.
set -u
cd "$(dirname "$(readlink -f "$0")")" || exit 1

usage() {
    cat <<'TEXT'
Usage: ./fuzz.sh TARGET... SECONDS
       ./fuzz.sh --all SECONDS
       ./fuzz.sh --list

Builds fuzz targets (clang, libFuzzer, address and undefined-behaviour sanitizers) and runs each for SECONDS, two at a
time, from its corpus in tests/fuzz/corpus and what earlier runs have found. Missing packages are installed first.
tests/fuzz/README.md tells what the targets check.

  --all     all targets
  --list    the targets' names
  --help    this text

Status 0 when nothing was found, 1 when something was: the input is then in build/fuzz-finds/. Inputs that reach new
code are left in build/fuzz-corpus/TARGET/, logs in build/logs/.
TEXT
}

# A target's program is tests/fuzz/NAME_fuzz.cpp.
list() { for file in tests/fuzz/*_fuzz.cpp; do basename "$file" _fuzz.cpp; done; }

targets=()
all=""
for argument; do
    case $argument in
        --all) all=yes ;;
        --list) list; exit 0 ;;
        --help | -h) usage; exit 0 ;;
        -*) echo "fuzz.sh: unknown option $argument" >&2; usage >&2; exit 2 ;;
        *) targets+=("$argument") ;;
    esac
done
seconds=${targets[-1]-}
unset 'targets[-1]' 2>/dev/null
if [[ -n $all ]]; then mapfile -t targets < <(list); fi
if [[ ! $seconds =~ ^[1-9][0-9]*$ || ${#targets[@]} -eq 0 ]]; then
    usage >&2
    exit 2
fi
for target in "${targets[@]}"; do
    if ! list | grep -qx -- "$target"; then
        echo "fuzz.sh: no target $target; --list names them" >&2
        exit 2
    fi
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
# shellcheck source=scripts/build.sh
. scripts/build.sh

writable build/logs build/fuzz-finds || exit 1
# shellcheck disable=SC2086
install_packages build/logs/install.log $fuzz_packages || exit 1
build fuzz build/logs/build-fuzz.log "${targets[@]/%/_fuzz}" || exit 1

# fuzz TARGET: one run, in the place of the shell that calls it. The longest inputs are those of a modem's or a
# receiver's hour, not of a big project: what is long is slow, and goes the same ways.
fuzz() {
    local target=$1 log=build/logs/fuzz-$1.log
    mkdir -p "build/fuzz-corpus/$target"
    exec "build/fuzz/bin/${target}_fuzz" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -dict=tests/fuzz/words.dict -artifact_prefix="build/fuzz-finds/$target-" -print_final_stats=1 \
        "build/fuzz-corpus/$target" "tests/fuzz/corpus/$target" </dev/null >"$log" 2>&1
}

# tell TARGET STATUS: the run in one line, and a finding with what the log ends with.
tell() {
    local target=$1 log=build/logs/fuzz-$1.log executed coverage result="nothing found"
    executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    coverage=$(sed -n 's/^#.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
    if [[ $2 -ne 0 ]]; then result="FINDING ($log)"; fi
    printf '  %-14s %11s executions, %4s edges: %s\n' "$target" "${executed:-?}" "${coverage:-?}" "$result"
    if [[ $2 -ne 0 ]]; then grep -vE '^#[0-9]+|^INFO:| in fuzzer::|^stat::' "$log" | tail -n 30; fi
}

# A fuzzer ends without a clean-up: its temporary files go with this folder.
TMPDIR=$(mktemp -d -p "$([[ -w /dev/shm ]] && echo /dev/shm || echo /tmp)" korvato_fuzz_XXXXXX) || exit 1
export TMPDIR
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$TMPDIR"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
export ASAN_OPTIONS=${ASAN_OPTIONS-} ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH-/usr/bin/llvm-symbolizer-14}

echo "Fuzzing ${#targets[@]} targets, $seconds s each"
findings=0
declare -A running=()  # targets by process
reap() {
    local process status
    wait -n -p process "${!running[@]}"
    status=$?
    tell "${running[$process]}" $status
    if [[ $status -ne 0 ]]; then findings=$((findings + 1)); fi
    unset "running[$process]"
}
for target in "${targets[@]}"; do
    if [[ ${#running[@]} -ge 2 ]]; then reap; fi
    fuzz "$target" &
    running[$!]=$target
done
while [[ ${#running[@]} -gt 0 ]]; do reap; done
[[ $findings -eq 0 ]]
