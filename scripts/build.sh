# Configuring and building a preset, with progress on the terminal. Sourced by run.sh and test.sh.

# writable FOLDER...: makes the folders. Fails, with a line, for one that cannot be written.
writable() {
    local folder
    for folder; do
        if ! mkdir -p "$folder" || [[ ! -w $folder ]]; then
            echo "The folder $PWD/$folder cannot be written; does it belong to another user?" >&2
            return 1
        fi
    done
}

# build PRESET LOG [TARGET...]: builds the targets, or everything. The tools' talk goes to the file LOG; its end is
# shown when something fails.
build() {
    local preset=$1 log=$2 launcher="" status begin=$SECONDS
    shift 2
    # Objects of an earlier build are taken from ccache where that is installed.
    if command -v ccache >/dev/null; then launcher=ccache; fi
    mkdir -p "$(dirname "$log")"
    echo "Building ($preset)"
    if ! cmake --preset "$preset" "-DCMAKE_CXX_COMPILER_LAUNCHER=$launcher" </dev/null >"$log" 2>&1; then
        tail -n 30 "$log" >&2
        echo "Configuring failed; all of it is in $log" >&2
        return 1
    fi
    # Ninja's status line for each step becomes one that is written over on a terminal.
    NINJA_STATUS="[%f/%t] " cmake --build --preset "$preset" ${1:+--target "$@"} </dev/null 2>&1 |
        tee -a "$log" | progress
    status=${PIPESTATUS[0]}
    if [[ $status -ne 0 ]]; then
        grep -v '^\[[0-9]*/[0-9]*\] ' "$log" | tail -n 40 >&2
        echo "The build failed; all of it is in $log" >&2
        return 1
    fi
    echo "  built in $((SECONDS - begin)) s"
}

progress() {
    local line
    while IFS= read -r line; do
        if [[ -t 1 && $line =~ ^\[[0-9]+/[0-9]+\] ]]; then
            printf '\r\033[K  %.100s' "$line"
        fi
    done
    if [[ -t 1 ]]; then printf '\r\033[K'; fi
}
