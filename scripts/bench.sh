#!/usr/bin/env bash
# Builds the benchmarks optimised and runs them: each program prints its rows and their ratios to
# the physical baseline that ran beside them.
#
#   scripts/bench.sh [append|clear|enumerate|load] [Google Benchmark option...]     (default: all)
#
# K9EREPL_BENCH_DIR names the folder for the storage files (default: the system's temporary one);
# K9EREPL_BENCH_MAX_MB the largest file, in MB, that bench_clear makes (default: 4000).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
for argument in "$@"; do
    [[ "$argument" == --benchmark_* ]] || check_options "" "$argument"
done

programs=(append clear enumerate load)
case "${1:-}" in
    append | clear | enumerate | load)
        programs=("$1")
        shift
        ;;
    "" | --*) ;;
    *)
        echo "bench.sh: unknown benchmark '$1': use append, clear, enumerate or load" >&2
        exit 2
        ;;
esac

"$root/scripts/setup.sh" test
configure release -DK9EREPL_BUILD_BENCH=ON
build release "${programs[@]/#/bench_}"
for program in "${programs[@]}"; do
    echo "=== bench_$program"
    "$root/build/release/bin/bench_$program" --benchmark_repetitions=5 \
        --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=false "$@"
done
