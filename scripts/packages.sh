# Debian packages of this project, and their installation. Sourced by run.sh and test.sh.

# What building and running the demo takes.
run_packages="cmake ninja-build g++ pkg-config libjsoncpp-dev libcurl4-openssl-dev libfcgi-dev libcpp-httplib-dev
    libssl-dev msmtp python3 python3-aiosmtpd iproute2 util-linux ca-certificates"

# What ./test.sh takes besides.
test_packages="$run_packages libgtest-dev faketime nginx-light libfcgi-bin"

# What ./test.sh --all takes besides.
all_packages="$test_packages clang-14 clang-tidy-14 clang-format-14 libclang-rt-14-dev libbenchmark-dev libcli11-dev"

# Prints those of the packages in the arguments that are not installed.
missing_packages() {
    local package
    for package; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || echo "$package"
    done
}

# A package that brings a service would start it; for the time of the installation nothing is started.
policy=/usr/sbin/policy-rc.d
hold_services() {
    [[ ! -e $policy && ! -L $policy ]] || $sudo mv -T "$policy" "$policy.korvato-kept"
    printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
    $sudo chmod 755 "$policy"
}
release_services() {
    $sudo rm -f "$policy"
    [[ ! -e $policy.korvato-kept && ! -L $policy.korvato-kept ]] || $sudo mv -T "$policy.korvato-kept" "$policy"
}

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
        sudo -v || return 1
    fi
    mkdir -p "$(dirname "$log")"
    echo "Installing" $missing
    (
        trap release_services EXIT
        trap 'exit 130' INT TERM HUP
        hold_services
        apt="$sudo env DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=300"
        {
            $apt update
            # shellcheck disable=SC2086
            $apt install --no-install-recommends $missing
        } </dev/null >"$log" 2>&1
    ) && return 0
    echo "The installation failed; the end of $log:" >&2
    tail -n 15 "$log" >&2
    return 1
}
