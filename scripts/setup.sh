#!/usr/bin/env bash
# Installs what a Debian 12 machine lacks for one task, and nothing when nothing is missing.
#
#   scripts/setup.sh demo|package|test|test32|windows|coverage|fuzz|check|peers|all
#                                                                        (default: test)
#
# "peers" are the libraries that scripts/bench.sh compares ours with; "all" goes without them,
# because no test needs them.
#
# Runs as root or through sudo. The other scripts call it first; a developer may call it by hand.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$here/install.sh"
source "$here/common.sh"
check_options "" "$@"

tool_packages=(cmake ninja-build libcli11-dev libfmt-dev nlohmann-json3-dev)
build_packages=("${tool_packages[@]}" g++)
test_packages=("${build_packages[@]}" libgtest-dev libgmock-dev libbenchmark-dev pkgconf)

packages_for() {
    case "$1" in
        demo) echo "${build_packages[@]}" ;;
        package) echo "${build_packages[@]}" dpkg-dev file ;;
        test) echo "${test_packages[@]}" valgrind ;;
        test32) echo "${tool_packages[@]}" g++-multilib googletest ;;
        windows) echo "${tool_packages[@]}" g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix \
            googletest ;;
        coverage) echo "${test_packages[@]}" gcovr ;;
        fuzz) echo "${test_packages[@]}" clang libclang-rt-14-dev ;;
        peers) echo "${test_packages[@]}" valgrind liblmdb-dev libleveldb-dev librocksdb-dev \
            libsqlite3-dev ;;
        check) echo "${test_packages[@]}" clang-format clang-tidy ;;
        all) echo "${test_packages[@]}" gcovr clang-format clang-tidy ;;
        *) return 1 ;;
    esac
}

main() {
    local task="${1:-test}" wanted
    if ! wanted="$(packages_for "$task")"; then
        echo "setup.sh: unknown task '$task':" \
            "use demo, package, test, test32, windows, coverage, fuzz, check, peers or all" >&2
        return 2
    fi
    if ! command -v dpkg >/dev/null; then
        echo "setup.sh: no dpkg on this machine; install by hand what $wanted stand for" >&2
        return 0
    fi
    # shellcheck disable=SC2086  # the packages are words
    install_missing $wanted
    if [ "$task" = windows ]; then
        "$here/setup-wine.sh"
    fi
}

main "$@"
