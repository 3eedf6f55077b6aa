#!/usr/bin/env bash
# Counts the instructions that the library takes in user space for one record, or for one call, on
# each path that clients take often, and compares them with the kept ones in bench/instructions.txt.
# The numbers hardly depend on what else the machine does; times do.
#
#   bench/instructions.sh [--write | --markdown] [--program FILE]
#
#   --write         keep the numbers counted now, after a change that is meant to change them
#   --markdown      print them as a table for docs/performance.md; compare nothing
#   --program FILE  take this build of bench_instructions; the default builds it with "release"
#
# Each path is done twice, with few and with many records. The difference, divided by the records
# between, is the result: so what a call costs only once does not count.
#
# Exit status: 0 when no path takes more than 10 % more than is kept, 1 when one does, 77 when
# valgrind is missing.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"
check_options "--write --markdown --program" "$@"

kept="$root/bench/instructions.txt"
# What we want to reach, on the paths that have a mark.
marks="append-1 480 append-10 190 append-100 160 load 140"
mode=compare
program=""
while [ "$#" -gt 0 ]; do
    case "$1" in
        --write | --markdown) mode="${1#--}" ;;
        --program)
            program="${2:?instructions.sh: --program needs a file}"
            shift
            ;;
        *)
            echo "instructions.sh: unknown argument '$1'; --help tells" >&2
            exit 2
            ;;
    esac
    shift
done

if ! command -v valgrind >/dev/null; then
    echo "instructions.sh: skipped, because valgrind is not installed;" \
        "scripts/setup.sh test installs it" >&2
    exit 77
fi
if [ -z "$program" ]; then
    configure release -DK9EREPL_BUILD_BENCH=ON >&2
    build release bench_instructions >&2
    program="$root/build/release/bin/bench_instructions"
fi

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

# The program prints "path count" for each piece of work; Callgrind writes one file after each, with
# the instructions of MeasuredWork since the file before.
if ! K9EREPL_BENCH_DIR="$scratch" valgrind --tool=callgrind --toggle-collect=MeasuredWork \
    --dump-after=MeasuredWork --callgrind-out-file="$scratch/counted" \
    "$program" >"$scratch/work" 2>"$scratch/errors"; then
    cat "$scratch/errors" >&2
    exit 1
fi

# "path count" of a line of `work` and the instructions of its file become, for each pair of lines,
# "path instructions".
number=0
while read -r path count; do
    number=$((number + 1))
    echo "$path $count $(sed -n 's/^totals: //p' "$scratch/counted.$number")"
done <"$scratch/work" |
    awk '$1 == path { printf "%s %.1f\n", path, ($3 - total) / ($2 - count) }
         { path = $1; count = $2; total = $3 }' >"$scratch/counts"

write_kept() {
    {
        sed -n '/^#/p' "$kept"
        awk '{ printf "%-20s %10.1f\n", $1, $2 }' "$scratch/counts"
    } >"$scratch/kept"
    mv "$scratch/kept" "$kept"
    chmod 644 "$kept"
    cat "$kept"
}

print_markdown() {
    echo "| Path | Instructions | Mark |"
    echo "|---|---|---|"
    awk -v marks="$marks" '
        BEGIN { for (n = split(marks, word, " "); n > 1; n -= 2) mark[word[n - 1]] = word[n] }
        { printf "| `%s` | %.0f | %s |\n", $1, $2, ($1 in mark ? "≤ " mark[$1] : "") }
    ' "$scratch/counts"
}

compare() {
    awk -v marks="$marks" '
        BEGIN { for (n = split(marks, word, " "); n > 1; n -= 2) mark[word[n - 1]] = word[n] }
        FNR == NR { if ($0 !~ /^#/) kept[$1] = $2; next }
        FNR == 1 { printf "%-20s %10s %10s %8s  mark\n", "path", "now", "kept", "change" }
        !($1 in kept) {
            printf "%-20s %10.1f  no figure is kept; use --write\n", $1, $2
            bad = 1
            next
        }
        {
            change = ($2 / kept[$1] - 1) * 100
            printf "%-20s %10.1f %10.1f %+7.1f%%%6s%s\n", $1, $2, kept[$1], change, mark[$1],
                (change > 10 ? "  MORE THAN 10 % MORE" : "")
            if (change > 10) bad = 1
            delete kept[$1]
        }
        END {
            for (path in kept) {
                print path ": is kept, but was not counted"
                bad = 1
            }
            exit bad
        }' "$kept" "$scratch/counts"
}

case "$mode" in
    write) write_kept ;;
    markdown) print_markdown ;;
    compare)
        if ! compare; then
            echo "instructions.sh: see above; after a change that is meant, keep the new numbers" \
                "with bench/instructions.sh --write" >&2
            exit 1
        fi
        ;;
esac
