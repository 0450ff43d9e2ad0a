# shellcheck shell=bash
# What ./run, ./test and .ci/run share: installing what is missing, building, running test programs and counting.
# Sourced, from the checkout's root, by scripts that set -euo pipefail.

packages=(g++ cmake ninja-build libgtest-dev libgmock-dev libbenchmark-dev systemd-container strace
    shellcheck busybox insserv iproute2 valgrind dpkg-dev file python3
    libcli11-dev nlohmann-json3-dev libedit-dev libncurses-dev libbsd-dev)
# The sourcing scripts use it.
# shellcheck disable=SC2034
readonly machine=$PWD/tools/machine

say() {
    echo "== $*"
}

as_root() {
    if [[ $EUID == 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}

# apt-get only runs when something is missing.
install_missing() {
    local package
    local -a missing=()
    for package in "${packages[@]}"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0
    say "Installing ${missing[*]}"
    as_root apt-get -qq update
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends \
        install "${missing[@]}"
}

# OpenRC, for the tests of the init scripts: unpacked beside the programs, since installing it would replace this
# machine's own service manager. Without it those tests are skipped.
unpack_openrc() { # FOLDER
    [[ ! -d $1/openrc ]] || return 0
    local package packages_folder
    packages_folder=$(mktemp -d)
    say "Unpacking OpenRC for its tests"
    if (cd "$packages_folder" && apt-get -qq download openrc librc1 libeinfo1) >/dev/null 2>&1; then
        for package in "$packages_folder"/*.deb; do
            dpkg -x "$package" "$1/openrc"
        done
    fi
    rm -r "$packages_folder"
}

# Off a terminal only every 20th step is worth a line; what is not a step always is.
build_progress() {
    awk '/^\[[0-9]+\/[0-9]+\]/ && ++n % 20 { next } { print; fflush() }'
}

build() { # PRESET [TARGET...]
    local preset=$1
    shift
    say "Building ($preset)"
    cmake --preset "$preset" --log-level=WARNING >/dev/null || return
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
    timeout -k 10 "$seconds" "$@" "$program" --gtest_filter="$chosen" >"$log" 2>&1 </dev/null || status=$?
    count_results "$status" "$log" "$((SECONDS - started))"
}

# The last line of a test run, and its exit status.
summary() {
    echo "$passed passed, $failed failed, $skipped skipped"
    ((failed == 0 && passed > 0))
}
