#!/usr/bin/env bash
# Builds the coverage preset, runs every test and prints the line and branch coverage of src/.
#
#   scripts/coverage.sh
#
# Exit status: 0 when every test passed and src/ is covered well enough: 95 % of the lines, 85 % of
# the branches. The report by file and line lies in build/coverage/report/index.html.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "$@"

least_lines=95
least_branches=85
"$root/scripts/setup.sh" coverage
configure coverage "${with_tests[@]}" -DK9EREPL_BUILD_BENCH=OFF
build coverage

cd "$root"
find build/coverage -name '*.gcda' -delete
# The tool's tests compare standard error, where the counters of the shared library complain when
# they meet those of the test programs, which link the same objects.
TMPDIR="$(memory_folder)" ctest --preset coverage --parallel "$jobs" --no-tests=error \
    --exclude-regex '^(Async[.])?Tool' </dev/null

mkdir -p build/coverage/report
# The systems' other side is not compiled here; exceptions' unreachable arcs are no branches.
status=0
totals="$(gcovr --root "$root" --filter 'src/' --exclude 'src/platform/windows/' \
    --exclude-throw-branches --exclude-unreachable-branches -j "$jobs" \
    --html-details build/coverage/report/index.html --txt build/coverage/report/summary.txt \
    --fail-under-line "$least_lines" --fail-under-branch "$least_branches" \
    --print-summary build/coverage </dev/null)" || status=$?
cat build/coverage/report/summary.txt
echo "$totals"
if [ "$status" -ne 0 ]; then
    echo "coverage.sh: src/ is covered below $least_lines % of the lines or" \
        "$least_branches % of the branches" >&2
fi
exit "$status"
