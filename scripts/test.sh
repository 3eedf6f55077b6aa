#!/usr/bin/env bash
# Sets up what is missing, builds everything and runs every test.
#
#   scripts/test.sh [release|debug|asan|tsan|linux-x86] [ctest option...]     (default: release)
#
# K9EREPL_TEST_MODULES="solid engine" builds and runs the tests of these folders of tests/ alone.
# Exit status: 0 when every test passed.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "${1:-}"  # what follows the preset is for ctest

preset="${1:-release}"
[ "$#" -gt 0 ] && shift
case "$preset" in
    release | debug | asan | tsan | linux-x86) ;;
    *)
        echo "test.sh: unknown preset '$preset': use release, debug, asan, tsan or linux-x86" >&2
        exit 2
        ;;
esac

if [ "$preset" = linux-x86 ]; then
    "$root/scripts/setup.sh" test32
else
    "$root/scripts/setup.sh" test
fi
started="$(date +%s%N)"
# Times of a sanitizer build mean nothing: it goes without the benchmarks, and so does a build that
# would need Google Benchmark for another target.
bench=ON
case "$preset" in asan | tsan | linux-x86) bench=OFF ;; esac
# 32-bit Linux runs what ships; release runs it with its asserts.
checked=ON
[ "$preset" != linux-x86 ] || checked=OFF
modules="${K9EREPL_TEST_MODULES:-}"
configure "$preset" "${with_tests[@]}" "-DK9EREPL_BUILD_BENCH=$bench" \
    "-DK9EREPL_CHECKED_TESTS=$checked" \
    "-DK9EREPL_TEST_MODULES=${modules// /;}"
build "$preset"
echo "test.sh: built '$preset' in $(seconds_since "$started") s"

# A log keeps what failed and the runner's closing lines; a terminal shows every test.
without_passed() {
    if [ -t 1 ]; then
        cat
    else
        grep --line-buffered -vE '^ +Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test .* Passed '
    fi
}

# The tests' files lie where the system keeps temporary ones (TMPDIR). A sanitizer build looks for
# faults in the code, not in the disk: there, memory saves the time of many flushes to disk.
log="$(mktemp)"
trap 'rm -f "$log"' EXIT
case "$preset" in
    asan | tsan | linux-x86)
        TMPDIR="$(mktemp -d "$(memory_folder)/k9erepl-tests.XXXXXX")"
        chmod 755 "$TMPDIR"  # some tests let another user in
        export TMPDIR
        trap 'rm -rf "$log" "$TMPDIR"' EXIT
        ;;
esac

# slowest: the ten tests of the log that took longest, one a line.
slowest() {
    sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .* ([0-9.]+) sec.*/\2 s  \1/p' "$log" |
        sort -rn | sed -n 1,10p
}

cd "$root"
status=0
ctest --preset "$preset" --parallel "$jobs" --no-tests=error "$@" </dev/null |
    tee "$log" | without_passed || status=$?
echo "test.sh: the ten slowest:"
slowest
exit "$status"
