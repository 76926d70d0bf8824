# Functions that the scripts share: installing what they need, and building. Sourced by bash scripts
# after they have changed to the root of the repository.

# shellcheck shell=bash
# shellcheck disable=SC2034 # used by the scripts
readonly missing_exit_code=69 # EX_UNAVAILABLE of sysexits.h
readonly started_in=${OLDPWD-$PWD}
PATH=$PATH:/usr/sbin:/sbin # for lpadmin; a root shell started by su may lack them

build_packages=(cmake g++ libedit-dev libfuse3-dev ninja-build pkg-config)
cups_packages=(cups cups-client printer-driver-postscript-hp)
guest_packages=(fuse3 procps)
test_packages=(clang clang-format clang-tidy cups-ipp-utils dpkg-dev libbenchmark-dev libclang-rt-dev
    libgmock-dev libgtest-dev mandoc shellcheck systemd tmux)

# missing SENTENCE: ends the script because the machine lacks something.
missing() {
    echo "$(basename "$0"): $1" >&2
    exit "$missing_exit_code"
}

# user_path PATH: prints the absolute path of PATH, relative to where the script was started.
user_path() {
    case $1 in
        /*) echo "$1" ;;
        *) echo "$started_in/$1" ;;
    esac
}

# require_packages PACKAGE...: installs the Debian packages that are not installed yet, after it has
# printed which, and how much apt-get downloads and installs with all that they need.
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
    local began=$SECONDS complaints install=(apt-get install --no-install-recommends "${absent[@]}")
    complaints=$(apt-get update -qq 2>&1 >/dev/null) ||
        missing "could not update the list of packages: ${complaints##*$'\n'}"
    { LC_ALL=C "${install[@]}" --assume-no 2>/dev/null || true; } | sed -n '/^Need to get/p; /^After/p'
    complaints=$(DEBIAN_FRONTEND=noninteractive "${install[@]}" -y -qq 2>&1 >/dev/null) ||
        missing "could not install ${absent[*]}: ${complaints##*$'\n'}"
    echo "installed in $((SECONDS - began)) s"
}

# find_clang_tool TOOL: sets clang_tool to TOOL in the version that the project uses. Other versions
# give other results.
find_clang_tool() {
    local version=14
    for clang_tool in "$1-$version" "$1"; do
        ! "$clang_tool" --version 2>/dev/null | grep -q "version $version\." || return 0
    done
    missing "not run, as $1 $version is not installed"
}

# Ends the script if the kernel does not support a simulated guest.
require_guest_kernel() {
    [ "$(id -u)" = 0 ] || missing "root is needed for a private mount namespace"
    unshare -m true 2>/dev/null || missing "the kernel refuses a private mount namespace"
    [ -c /dev/fuse ] || missing "/dev/fuse is missing, so the request device can't be simulated"
    [ -d /proc/driver ] || missing "/proc/driver is missing, so the device can't be mounted there"
}

# make_root RELEASE FOLDER [PACKAGE...]: makes a minimal Debian root, from the mirror and with the
# proxies of this machine's apt.
make_root() {
    local mirror option options=()
    # shellcheck disable=SC2016 # apt-get expands it
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Label: Debian' | sed -n 1p)
    while IFS= read -r option; do
        options+=("--aptopt=$option")
    done < <(apt-config dump | grep -E '^Acquire::(https?|Check-|ForceIP|Retries)' | grep -v Auto-Detect)
    mmdebstrap --variant=minbase "${options[@]}" --include="$(IFS=, && echo "${*:3}")" \
        "$1" "$2" "${mirror:-http://deb.debian.org/debian}"
}

# Prints the files that git would commit, each followed by a NUL; where there is no git, all files
# outside of build folders.
source_files() {
    if git rev-parse HEAD >/dev/null 2>&1; then
        git ls-files -z --cached --others --exclude-standard
    else
        find . -mindepth 1 \( -path './build*' -o -path ./out -o -path ./.git \) -prune \
            -o \( -type f -o -type l \) -print0
    fi
}

# copy_checkout FOLDER: copies the files of the checkout, committed or not.
copy_checkout() {
    mkdir -p "$1"
    source_files | tar -c --null --ignore-failed-read -T - 2>/dev/null | tar -x -C "$1"
}

# configure FOLDER [CMAKE-OPTION...]: quiet unless it fails. Waits for other scripts that build in
# the folder, and makes them wait until build_targets has returned.
configure() {
    mkdir -p "$1"
    exec 9>"$1/lock"
    flock 9
    cmake -G Ninja -S . -B "$1" "${@:2}" >"$1/configure.log" 2>&1 9>&- || {
        cat "$1/configure.log" >&2
        return 1
    }
}

# build_targets FOLDER [TARGET...]: builds in a folder that was just configured; quiet unless it fails.
build_targets() {
    cmake --build "$1" ${2:+--target "${@:2}"} >"$1/build.log" 9>&- || {
        grep -E -A 20 'FAILED|error' "$1/build.log" >&2
        return 1
    }
    exec 9>&-
}

# configure_build KIND: build/KIND, as it is shipped (plain), with the address and
# undefined-behaviour sanitizers (memory), or with the thread sanitizer (threads).
configure_build() {
    local -x CC=gcc CXX=g++
    local options=(-DQNT_WARNINGS_AS_ERRORS=ON)
    case $1 in
        plain) options+=(-DQNT_STATIC_LIBSTDCXX=ON) ;;
        memory)
            CC=clang CXX=clang++
            options+=(-DCMAKE_BUILD_TYPE=Debug -DQNT_TEST_PREFIX=memory/
                "-DQNT_SANITIZE=address,undefined,fuzzer-no-link"
                -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only")
            ;;
        threads)
            options+=(-DCMAKE_BUILD_TYPE=Debug -DQNT_TEST_PREFIX=threads/ -DQNT_SANITIZE=thread
                -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1")
            ;;
    esac
    configure "build/$1" "${options[@]}"
}
