# shellcheck shell=bash
# What ./run, ./test and .ci/run share: installing what is missing, building, running test programs and counting.
# Sourced, from the checkout's root, by scripts that set -euo pipefail.

# What building takes, what booting throwaway machines does, and what the tests add to it.
# shellcheck disable=SC2034
readonly build_packages=(g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libedit-dev libncurses-dev libbsd-dev) \
    machine_packages=(systemd-container) \
    test_packages=(libgtest-dev libgmock-dev libbenchmark-dev strace shellcheck busybox iproute2 valgrind dpkg-dev file
        python3 groff)

# In a root of that release. The oldest has no CLI11, which is headers only: there the next one's serves.
build_packages_in() { # SUITE
    local -a names=("${build_packages[@]}")
    [[ $1 != bullseye ]] || names=("${names[@]/#libcli11-dev/libcli11-dev/bookworm}")
    echo "${names[@]}"
}

# The sourcing scripts use it.
# shellcheck disable=SC2034
readonly machine=$PWD/tools/machine

say() {
    echo "== $*"
}

# One line instead of many about what cannot be written.
if ! mkdir -p build 2>/dev/null || [[ ! -w build ]]; then
    echo "$PWD cannot be written (read-only, or somebody else's): copy the checkout to a folder of yours" >&2
    exit 1
fi

as_root() {
    if [[ $EUID == 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Shown only when it fails.
apt_quietly() { # ARGUMENT...
    local output
    output=$(as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y -o Dpkg::Use-Pty=0 "$@" 2>&1 </dev/null) || {
        echo "$output" >&2
        return 1
    }
}

# apt-get only runs when something is missing.
install_missing() { # PACKAGE...
    local package
    local -a missing=()
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed* ]] || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0
    say "Installing ${missing[*]}"
    apt_quietly update
    apt_quietly --no-install-recommends install "${missing[@]}"
}

# Unpacks packages into a folder instead of installing them. A library's name has a suffix from Debian 13 on.
unpack() { # FOLDER PACKAGE...
    local folder=$1 package place status=0
    place=$(mktemp -d)
    for package in "${@:2}"; do
        (cd "$place" && { apt-get -qq download "$package" || apt-get -qq download "${package}t64"; }) >/dev/null 2>&1 ||
            status=1
    done
    if ((status == 0)); then
        for package in "$place"/*.deb; do
            dpkg -x "$package" "$folder"
        done
    fi
    rm -r "$place"
    return "$status"
}

# Other init systems' tools, for the tests of the init scripts: beside the programs, since installing them would replace
# this machine's own service manager, or is refused. Without them those tests are skipped.
unpack_init_tools() { # FOLDER
    [[ ! -d $1/openrc || ! -d $1/insserv ]] || return 0
    say "Unpacking OpenRC and insserv for the tests"
    [[ -d $1/openrc ]] || unpack "$1/openrc" openrc librc1 libeinfo1 || true
    [[ -d $1/insserv ]] || unpack "$1/insserv" insserv || true
}

# Off a terminal only every 20th step is worth a line; what is not a step always is.
build_progress() {
    awk '/^\[[0-9]+\/[0-9]+\]/ && ++n % 20 { next } { print; fflush() }'
}

# The tests are left out where nobody has asked for them and what they need is missing. A cache that another checkout,
# compiler or release has left is thrown away.
configure() { # PRESET
    local -a how=(--preset "$1" --log-level=ERROR)
    if [[ ${with_tests:-yes} == no ]]; then
        [[ -e /usr/include/gtest/gtest.h ]] || how+=(-DVELMO_TESTS=OFF)
    else
        how+=(-DVELMO_TESTS=ON)
    fi
    if ! cmake "${how[@]}" >/dev/null 2>&1; then
        rm -f build{,-"$1"}/.ninja_{deps,log} # they name files of the other checkout, which may be closed to us
        cmake --fresh "${how[@]}" >/dev/null
    fi
}

build() { # PRESET [TARGET...]
    local preset=$1
    shift
    say "Building ($preset)"
    configure "$preset" || return
    if [[ -t 1 ]]; then
        cmake --build --preset "$preset" ${1:+--target "$@"}
    else
        cmake --build --preset "$preset" ${1:+--target "$@"} | build_progress
    fi
}

passed=0 failed=0 skipped=0

# The number in front of "test" in one of gtest's closing lines of that kind; 0 without such a line.
closing_count() { # KIND LOG
    sed -n "s/^\[ *$1 *\] \([0-9]\+\) tests\?[.,].*/\1/p" "$2" | tail -n 1 | grep . || echo 0
}

without_successes() { # LOG
    awk '/^\[ RUN / { test = $0; next } /^\[       OK / { test = ""; next }
         { if (test) print test; test = ""; print } END { if (test) print test }' "$1"
}

# Counts what a test program did. One that ended badly without a failed test of its own (it crashed, it hung, it
# left in the middle) is one failure more.
count_results() { # STATUS LOG SECONDS
    local ok bad skip
    ok=$(closing_count PASSED "$2")
    bad=$(closing_count FAILED "$2")
    skip=$(closing_count SKIPPED "$2")
    if ! grep -q '^\[==========\].* ran\.' "$2"; then
        ok=$(grep -c '^\[       OK \]' "$2" || true)
        bad=$(($(grep -c '^\[  FAILED  \]' "$2" || true) + 1))
    elif (($1 != 0 && bad == 0)); then
        bad=1
    fi
    passed=$((passed + ok)) failed=$((failed + bad)) skipped=$((skipped + skip))
    echo "$ok passed, $bad failed, $skip skipped in $3 s"
    if ((skip > 0)); then
        grep -ao 'SKIPPED:.*' "$2" | sort -u | sed 's/^/    /' || true
    fi
    if ((bad > 0)); then
        echo "---- exit status $1; the end of $2:"
        without_successes "$2" | tail -n 60
        echo "----"
    fi
}

# A filter that is part of a program's name selects the program, any other selects tests by (part of) their name.
gtest_filter() { # PROGRAM FILTER
    case $2 in
    '') echo '*' ;;
    *[*?:-]*) echo "$2" ;;
    *) if [[ $1 == *$2* ]]; then echo '*'; else echo "*$2*"; fi ;;
    esac
}

# A program that cannot even list its tests counts as one: it is to run, and to fail.
selected_tests() { # PROGRAM GTEST_FILTER
    local list
    if list=$("$1" --gtest_list_tests --gtest_filter="$2" 2>/dev/null); then
        grep -c '^  ' <<<"$list" || true
    else
        echo 1
    fi
}

# Runs a test program, here or through a wrapper, and counts. Its whole output goes to a log beside the programs.
run_program() { # PROGRAM FILTER SECONDS [WRAPPER...]
    local program=$1 name=${1##*/} seconds=$3 chosen log status=0 started=$SECONDS
    chosen=$(gtest_filter "$name" "$2")
    (($(selected_tests "$program" "$chosen") > 0)) || return 0
    log=${program%/*}/logs/$name.log
    mkdir -p "${log%/*}"
    printf '%-24s ' "$name"
    shift 3
    # Who starts us may ignore SIGPIPE (as CI agents below systemd do), which programs would inherit.
    timeout -k 10 "$seconds" env --default-signal=PIPE "$@" "$program" --gtest_filter="$chosen" >"$log" 2>&1 </dev/null || status=$?
    count_results "$status" "$log" "$((SECONDS - started))"
}

# The last line of a test run, and its exit status.
summary() {
    echo "$passed passed, $failed failed, $skipped skipped"
    ((failed == 0 && passed > 0))
}
