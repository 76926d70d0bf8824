# What the scripts share: getting what they need, or saying in one sentence what is missing.
# Sourced by bash scripts right after their cd to the repository's root.

# shellcheck shell=bash
# shellcheck disable=SC2034 # the lists are for those who source this
readonly missing_exit_code=69 # EX_UNAVAILABLE of sysexits.h
readonly started_in=${OLDPWD-$PWD}

build_packages=(cmake g++ libfuse3-dev ninja-build pkg-config)
cups_packages=(cups cups-client printer-driver-postscript-hp)
guest_packages=(fuse3 procps)
test_packages=(clang clang-format clang-tidy dpkg-dev libbenchmark-dev libclang-rt-14-dev
    libgmock-dev libgtest-dev libspdlog-dev mandoc shellcheck systemd)

missing() {
    echo "$(basename "$0"): $1" >&2
    exit "$missing_exit_code"
}

# user_path PATH: prints the absolute path of what the script's user calls PATH.
user_path() {
    case $1 in
        /*) echo "$1" ;;
        *) echo "$started_in/$1" ;;
    esac
}

# Installs those of the Debian packages that are not there yet.
require_packages() {
    local absent=() package
    for package; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
            absent+=("$package")
    done
    [ ${#absent[@]} -gt 0 ] || return 0
    [ "$(id -u)" = 0 ] || missing "root is needed to install ${absent[*]}"
    command -v apt-get >/dev/null || missing "apt-get is needed to install ${absent[*]}"
    echo "installing ${absent[*]}"
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${absent[@]}"; } >/dev/null 2>/tmp/qnt-install.$$ ||
        missing "could not install ${absent[*]}: $(tail -n 1 /tmp/qnt-install.$$)"
    rm -f /tmp/qnt-install.$$
}

# What a simulated guest needs of the kernel.
require_guest_kernel() {
    [ "$(id -u)" = 0 ] || missing "root is needed for a private mount namespace"
    unshare -m true 2>/dev/null || missing "the kernel refuses a private mount namespace"
    [ -c /dev/fuse ] || missing "/dev/fuse is missing, so the request device can't be played"
    [ -d /proc/driver ] || missing "/proc/driver is missing, so there is no place for the device"
}

# configure FOLDER [CMAKE-OPTION...]: quiet unless it fails.
configure() {
    local folder=$1
    mkdir -p "$folder"
    cmake -G Ninja -S . -B "$folder" "${@:2}" >"$folder/configure.log" 2>&1 || {
        cat "$folder/configure.log" >&2
        return 1
    }
}

# configure_build KIND: build/KIND, as it is shipped (plain), with the address and
# undefined-behaviour sanitizers (memory), or with the thread sanitizer (threads).
configure_build() {
    local -x CC=gcc CXX=g++
    local options=()
    case $1 in
        plain) options=(-DQNT_STATIC_LIBSTDCXX=ON) ;;
        memory)
            CC=clang CXX=clang++
            options=(-DCMAKE_BUILD_TYPE=Debug -DQNT_TEST_PREFIX=memory/
                "-DQNT_SANITIZE=address,undefined,fuzzer-no-link"
                -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only")
            ;;
        threads)
            options=(-DCMAKE_BUILD_TYPE=Debug -DQNT_TEST_PREFIX=threads/ -DQNT_SANITIZE=thread
                -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1")
            ;;
    esac
    configure "build/$1" "${options[@]}"
}
