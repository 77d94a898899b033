# Debian packages of this project, and their installation. Sourced by run.sh and test.sh.

# What building and running the demo takes.
run_packages="cmake ninja-build g++ pkg-config libjsoncpp-dev libcurl4-openssl-dev libfcgi-dev libcpp-httplib-dev
    libssl-dev msmtp nginx-light python3 python3-aiosmtpd iproute2 util-linux ca-certificates"

# What ./test.sh takes besides.
test_packages="$run_packages libgtest-dev libcli11-dev faketime libfcgi-bin openssl tzdata"

# What ./test.sh --all takes besides.
all_packages="$test_packages clang-14 clang-tidy-14 clang-format-14 libclang-rt-14-dev libbenchmark-dev chromium chromium-driver
    python3-selenium debootstrap dpkg-dev file systemd procps"

# What ./fuzz.sh takes.
fuzz_packages="cmake ninja-build g++ pkg-config libjsoncpp-dev libcurl4-openssl-dev libfcgi-dev clang-14
    libclang-rt-14-dev llvm-14"

# Prints those of the packages in the arguments that are not installed.
missing_packages() {
    local package
    for package; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# A package that brings a service would start it; for the time of the installation nothing is started, and what the
# packages in the arguments have brought is not started at the next boot either. What stood in the policy's place is
# put back; the mark tells our own policy, left behind by a killed installation, from another's.
policy=/usr/sbin/policy-rc.d
mark="# korvato: nothing is started for now"
hold_services() {
    if ! grep -qsF "$mark" "$policy" && [[ -e $policy || -L $policy ]]; then
        $sudo mv -T "$policy" "$policy.korvato-kept"
    fi
    printf '#!/bin/sh\n%s\nexit 101\n' "$mark" | $sudo tee "$policy" >/dev/null
    $sudo chmod 755 "$policy"
}
release_services() {
    $sudo rm -f "$policy"
    if [[ -e $policy.korvato-kept || -L $policy.korvato-kept ]]; then
        $sudo mv -T "$policy.korvato-kept" "$policy"
    fi
}
disable_services() {
    local package service
    command -v systemctl >/dev/null || return 0
    # A service may belong to a dependency, so all packages unpacked since the list $1 was made count.
    for package in $(installed_packages | LC_ALL=C comm -13 "$1" -); do
        for service in $(dpkg -L "$package" | sed -n 's,^\(/usr\)\{0,1\}/lib/systemd/system/\([^/@]*\.service\)$,\2,p'); do
            $sudo systemctl disable "$service"
        done
    done
}
installed_packages() { dpkg-query -W -f '${db:Status-Status} ${Package}\n' | sed -n 's/^installed //p' | LC_ALL=C sort -u; }

# Installs what is missing of the packages in the arguments; does nothing, and needs no rights, when nothing is. The
# package manager's talk goes to the file $1.
install_packages() {
    local log=$1 missing
    shift
    missing=$(missing_packages "$@")
    [[ -n $missing ]] || return 0
    if ! command -v apt-get >/dev/null; then
        echo "These packages are missing, and there is no apt-get to install them with:" $missing >&2
        return 1
    fi
    sudo=""
    if [[ $EUID -ne 0 ]]; then
        if ! command -v sudo >/dev/null; then
            echo "These packages are missing, and only root can install them (there is no sudo):" $missing >&2
            echo "  apt-get install --no-install-recommends" $missing >&2
            return 1
        fi
        sudo=sudo
    fi
    mkdir -p "$(dirname "$log")"
    echo "Installing" $missing
    (
        before=$(mktemp)
        trap 'release_services; rm -f "$before"' EXIT
        trap 'exit 130' INT TERM HUP
        installed_packages >"$before"
        hold_services
        apt="$sudo env DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=300"
        {
            $apt update
            # shellcheck disable=SC2086
            $apt install --no-install-recommends $missing && { disable_services "$before" || true; }
        } </dev/null >"$log" 2>&1
    ) && return 0
    echo "The installation failed; the end of $log:" >&2
    tail -n 15 "$log" >&2
    return 1
}
