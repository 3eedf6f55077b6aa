#!/usr/bin/env bash
# Installs what a Debian 12 machine lacks for one task, and nothing when nothing is missing.
#
#   scripts/setup.sh demo|test|coverage|check|all     (default: test)
#
# Runs as root or through sudo. The other scripts call it first; a developer may call it by hand.
set -euo pipefail

build_packages=(cmake ninja-build g++ libcli11-dev libfmt-dev nlohmann-json3-dev)
test_packages=("${build_packages[@]}" libgtest-dev libgmock-dev libbenchmark-dev)

packages_for() {
    case "$1" in
        demo) echo "${build_packages[@]}" ;;
        test) echo "${test_packages[@]}" ;;
        coverage) echo "${test_packages[@]}" gcovr ;;
        check) echo "${test_packages[@]}" clang-format clang-tidy ;;
        all) echo "${test_packages[@]}" gcovr clang-format clang-tidy ;;
        *) return 1 ;;
    esac
}

is_installed() {
    dpkg -s "$1" 2>/dev/null | grep -q '^Status: install ok installed$'
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "setup.sh: to install packages, run it as root or install sudo" >&2
        return 1
    fi
}

main() {
    local task="${1:-test}" wanted package
    local -a missing=()
    if ! wanted="$(packages_for "$task")"; then
        echo "setup.sh: unknown task '$task': use demo, test, coverage, check or all" >&2
        return 2
    fi
    if ! command -v dpkg >/dev/null; then
        echo "setup.sh: no dpkg on this machine; install by hand what $wanted stand for" >&2
        return 0
    fi
    for package in $wanted; do
        is_installed "$package" || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "setup.sh: installing ${missing[*]}"
    as_root apt-get update -q </dev/null
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null
}

main "$@"
