#!/usr/bin/env bash
# Measures the library's speed; builds what it needs, optimised.
#
#   scripts/bench.sh [--quick] [--rows LIST] [--rounds N] [--markdown | --json] [--html FILE] ...
#       beside the physical limit of each piece of work and beside LMDB, LevelDB, RocksDB and
#       SQLite, all in turns; prints one table. The options are those of bench_compare:
#       "scripts/bench.sh compare --help" explains them all. --markdown prints the tables of
#       docs/performance.md, that of bench/instructions.sh among them.
#   scripts/bench.sh renew [--quick] [--rounds N] ...
#       measures everything and puts the tables into docs/performance.md.
#   scripts/bench.sh append|clear|enumerate|load|all [Google Benchmark option...]
#       more of one kind of work, beside a baseline; "all" runs the four programs.
#
# K9EREPL_BENCH_DIR names the folder on the disk to measure (default: the system's temporary one);
# K9EREPL_BENCH_MAX_MB the largest file, in MB, that bench_clear makes (default: 4000). Where the
# disk must not count, files lie in memory if there is room (TMPDIR changes that).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# check_compare_options [bench_compare option...]: before anything is built. Values may follow "=".
check_compare_options() {
    check_options "--quick --rows --rounds --big --dir --disk --list --json --markdown --html" \
        "${@%%=*}"
}

# build_compare: makes bench_compare and folders for its files; sets places, the options for them.
build_compare() {
    "$root/scripts/setup.sh" test >&2
    "$root/scripts/setup.sh" peers >&2 ||
        echo "bench.sh: goes on without the libraries that could not be installed" >&2
    configure release -DK9EREPL_BUILD_BENCH=ON >&2
    build release bench_compare >&2
    folders="$(mktemp -d "$(memory_folder)/k9erepl-bench.XXXXXX")"
    disk="$(mktemp -d "${K9EREPL_BENCH_DIR:-${TMPDIR:-/tmp}}/k9erepl-bench.XXXXXX")"
    trap 'rm -rf "$folders" "$disk"' EXIT
    places=()
    [[ " $* " == *" --dir"* ]] || places+=(--dir "$folders")
    [[ " $* " == *" --disk"* ]] || places+=(--disk "$disk")
}

# compare [bench_compare option...]
compare() {
    build_compare "$@"
    if [[ " $* " == *" --markdown "* && " $* " != *" --rows"* ]]; then
        "$root/bench/instructions.sh" --markdown
        echo
    fi
    "$root/build/release/bin/bench_compare" "${places[@]}" "$@"
}

# paragraph <number>: that one of standard input.
paragraph() {
    awk -v number="$1" 'BEGIN { RS = "" } NR == number'
}

# put <name>: puts standard input between the two comments of that name in docs/performance.md.
put() {
    local page="$root/docs/performance.md"
    cat >"$folders/table"
    awk -v name="$1" -v table="$folders/table" '
        $0 == "<!-- " name ": end -->" { left_out = 0 }
        !left_out
        $0 == "<!-- " name ": begin -->" {
            while ((getline line < table) > 0) print line
            left_out = 1
        }' "$page" >"$folders/page"
    cat "$folders/page" >"$page"
}

# renew [bench_compare option...]
renew() {
    build_compare "$@"
    "$root/bench/instructions.sh" --markdown | put instructions
    "$root/build/release/bin/bench_compare" "${places[@]}" --markdown "$@" >"$folders/tables"
    {
        paragraph 1 <"$folders/tables"
        echo
        paragraph 3 <"$folders/tables"
    } | put marks
    paragraph 2 <"$folders/tables" | put growth
    echo "bench.sh: the tables of docs/performance.md are new" >&2
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
    compare | renew)
        task="$1"
        shift
        [[ " $* " == *" --help "* ]] || check_compare_options "$@"
        "$task" "$@"
        ;;
    "" | --*)
        check_compare_options "$@"
        compare "$@"
        ;;
    *)
        echo "bench.sh: unknown benchmark '$1':" \
            "use compare, renew, append, clear, enumerate, load or all" >&2
        exit 2
        ;;
esac
