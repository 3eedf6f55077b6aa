#!/usr/bin/env bash
# Measures the library's speed; builds what it needs, optimised.
#
#   scripts/bench.sh [--quick] [--rows LIST] [--rounds N] [--markdown | --json] [--html FILE] ...
#       beside the physical limit of each piece of work and beside LMDB, LevelDB, RocksDB and
#       SQLite, all in turns; prints one table. The options are those of bench_compare:
#       "scripts/bench.sh compare --help" explains them all. --markdown prints the tables of
#       docs/performance.md, that of bench/instructions.sh among them.
#   scripts/bench.sh append|clear|enumerate|load|all [Google Benchmark option...]
#       more of one kind of work, beside a baseline; "all" runs the four programs.
#
# K9EREPL_BENCH_DIR names the folder on the disk to measure (default: the system's temporary one);
# K9EREPL_BENCH_MAX_MB the largest file, in MB, that bench_clear makes (default: 4000). Where the
# disk must not count, files lie in memory if there is room (TMPDIR changes that).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# compare [bench_compare option...]
compare() {
    "$root/scripts/setup.sh" test >&2
    "$root/scripts/setup.sh" peers >&2 ||
        echo "bench.sh: goes on without the libraries that could not be installed" >&2
    configure release -DK9EREPL_BUILD_BENCH=ON >&2
    build release bench_compare >&2
    folders="$(mktemp -d "$(memory_folder)/k9erepl-bench.XXXXXX")"
    disk="$(mktemp -d "${K9EREPL_BENCH_DIR:-${TMPDIR:-/tmp}}/k9erepl-bench.XXXXXX")"
    trap 'rm -rf "$folders" "$disk"' EXIT
    local -a places=()
    [[ " $* " == *" --dir"* ]] || places+=(--dir "$folders")
    [[ " $* " == *" --disk"* ]] || places+=(--disk "$disk")
    if [[ " $* " == *" --markdown "* && " $* " != *" --rows"* ]]; then
        "$root/bench/instructions.sh" --markdown
        echo
    fi
    "$root/build/release/bin/bench_compare" "${places[@]}" "$@"
}

# programs <program>... -- [Google Benchmark option...]
programs() {
    local -a chosen=()
    while [ "$1" != -- ]; do
        chosen+=("$1")
        shift
    done
    shift
    local argument program
    for argument in "$@"; do
        if [[ "$argument" != --benchmark_* ]]; then
            echo "bench.sh: unknown argument '$argument'; --help tells" >&2
            exit 2
        fi
    done
    "$root/scripts/setup.sh" test
    configure release -DK9EREPL_BUILD_BENCH=ON
    build release "${chosen[@]/#/bench_}"
    for program in "${chosen[@]}"; do
        echo "=== bench_$program"
        "$root/build/release/bin/bench_$program" --benchmark_repetitions=5 \
            --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=false \
            "$@"
    done
}

case "${1:-}" in
    -h | --help) check_options "" "$1" ;;
    all)
        shift
        programs append clear enumerate load -- "$@"
        ;;
    append | clear | enumerate | load)
        chosen="$1"
        shift
        programs "$chosen" -- "$@"
        ;;
    compare)
        shift
        compare "$@"
        ;;
    "" | --*) compare "$@" ;;
    *)
        echo "bench.sh: unknown benchmark '$1':" \
            "use compare, append, clear, enumerate, load or all" >&2
        exit 2
        ;;
esac
