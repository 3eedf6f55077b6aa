#!/usr/bin/env bash
# Builds the coverage preset, runs every test and prints the line and branch coverage of src/.
#
#   scripts/coverage.sh [least line coverage in percent]     (default: 90)
#
# Exit status: 0 when every test passed and the lines of src/ are covered well enough. The report
# by file and line lies in build/coverage/report/index.html.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

least="${1:-90}"
"$root/scripts/setup.sh" coverage
configure coverage "${with_tests[@]}" -DK9EREPL_BUILD_BENCH=OFF
build coverage

cd "$root"
find build/coverage -name '*.gcda' -delete
# The tool's tests compare standard error, where the counters of the shared library complain when
# they meet those of the test programs, which link the same objects.
ctest --preset coverage --parallel "$jobs" --no-tests=error --exclude-regex '^Tool' </dev/null

mkdir -p build/coverage/report
# The systems' other side is not compiled here; exceptions' unreachable arcs are no branches.
status=0
totals="$(gcovr --root "$root" --filter 'src/' --exclude 'src/platform/windows/' \
    --exclude-throw-branches --exclude-unreachable-branches -j "$jobs" \
    --html-details build/coverage/report/index.html --txt build/coverage/report/summary.txt \
    --fail-under-line "$least" --print-summary build/coverage </dev/null)" || status=$?
cat build/coverage/report/summary.txt
echo "$totals"
if [ "$status" -ne 0 ]; then
    echo "coverage.sh: line coverage of src/ is below $least %" >&2
fi
exit "$status"
