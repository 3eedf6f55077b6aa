#!/usr/bin/env bash
# The long run of the reliability harness: every row for its share of the time, with a seed of its
# own, then the fuzz targets where clang is there, then the planted bugs. Writes the numbers into
# the scorecard of docs/reliability.md.
#
#   scripts/soak.sh [--minutes N] [--seed N] [--no-scorecard]     (default: 30 minutes, by date)
#
# Exit status: 0 when nothing failed. A failing case prints its seed and the command that replays
# it; everything that was printed is in build/soak/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=30
seed="$(date +%Y%m%d)"
scorecard=yes
while [ "$#" -gt 0 ]; do
    case "$1" in
        --minutes) minutes="${2:?--minutes wants a number}"; shift ;;
        --seed) seed="${2:?--seed wants a number}"; shift ;;
        --no-scorecard) scorecard=no ;;
        -h | --help) sed -n '2,10s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; exit 0 ;;
        *)
            echo "soak.sh: unknown option '$1'; --help tells" >&2
            exit 2
            ;;
    esac
    shift
done
case "$minutes$seed" in
    *[!0-9]* | "")
        echo "soak.sh: --minutes and --seed want whole numbers" >&2
        exit 2
        ;;
esac

"$root/scripts/setup.sh" test
configure release "${with_tests[@]}" >/dev/null
build release reliability_run
run="$root/build/release/bin/reliability_run"
out="$root/build/soak"
document="$root/docs/reliability.md"
rm -rf "$out"
mkdir -p "$out"

fuzz_targets=()
if "$root/scripts/fuzz.sh" --build >"$out/fuzz-build.log" 2>&1; then
    mapfile -t fuzz_targets < <("$root/scripts/fuzz.sh" --list)
fi
mapfile -t rows < <("$run" --list | cut -d ' ' -f 1)

# Every row and every fuzz target gets the same share of what the cores have.
share="$(awk -v m="$minutes" -v j="$jobs" -v n="$((${#rows[@]} + ${#fuzz_targets[@]}))" \
    'BEGIN { printf "%.3f", m * j / n }')"
echo "soak.sh: ${#rows[@]} rows and ${#fuzz_targets[@]} fuzz targets, $share minutes each," \
    "seed $seed"

# one_row <row>: its summary is the last line of its file.
one_row() {
    "$run" --row "$1" --minutes "$share" --seed "$seed" >"$out/$1.txt" 2>&1 ||
        echo "soak.sh: $1 failed; see $out/$1.txt" | tee -a "$out/failed" >&2
    tail -n 1 "$out/$1.txt"
}

# one_target <fuzz target>
one_target() {
    local seconds
    seconds="$(awk -v m="$share" 'BEGIN { printf "%d", m * 60 + 1 }')"
    "$root/scripts/fuzz.sh" --seconds "$seconds" "$1" >"$out/fuzz-$1.txt" 2>&1 ||
        echo "soak.sh: fuzz target $1 failed; see $out/fuzz-$1.txt" | tee -a "$out/failed" >&2
    echo "fuzz $1: $(grep -ao 'stat::number_of_executed_units: *[0-9]*' "$out/fuzz-$1.txt" |
        grep -o '[0-9]*$' || echo 0) runs"
}

export -f one_row one_target
export run out share seed root
printf '%s\n' "${rows[@]}" | xargs -P "$jobs" -I{} bash -c 'one_row "$1"' _ {}
if [ "${#fuzz_targets[@]}" -gt 0 ]; then
    printf '%s\n' "${fuzz_targets[@]}" | xargs -P "$jobs" -I{} bash -c 'one_target "$1"' _ {} |
        tee "$out/fuzz.txt"
fi
"$root/scripts/sabotage.sh" | tee "$out/sabotage.txt" | tail -n 1 || touch "$out/failed"

# row_line <row>: a line of the scorecard, from "row: N cases, N failed, N this, N that; ...".
row_line() {
    local title summary
    title="$("$run" --list | awk -v row="$1" '$1 == row { $1 = ""; print }' |
        sed -e 's/ ([0-9]* cases)$//' -e 's/^ *//')"
    summary="$(tail -n 1 "$out/$1.txt")"
    awk -v title="$title" -v row="$1" -v s="$summary" 'BEGIN {
        sub(/^[^:]*: /, "", s); sub(/;[^;]*$/, "", s)
        cases = s; sub(/ cases.*/, "", cases)
        failed = s; sub(/.* cases, /, "", failed); sub(/ failed.*/, "", failed)
        rest = s; if (!sub(/.* failed, /, "", rest)) rest = ""
        if (length(rest) > 500) rest = "by class and place: see below"
        printf "| `%s` | %s | %s | %s | %s |\n", row, title, cases, failed, rest }'
}

table() {
    echo "Run of $(date +%Y-%m-%d), $minutes minutes on $jobs cores, seed $seed,"
    echo "commit $(git -C "$root" rev-parse --short HEAD)."
    echo
    echo "| Row | What happens | Cases | Failed | Also counted |"
    echo "|---|---|---:|---:|---|"
    local row target
    for row in "${rows[@]}"; do
        row_line "$row"
    done
    for target in "${fuzz_targets[@]}"; do
        awk -v target="$target" '$1 == "fuzz" && $2 == target ":" {
            print "| `fuzz " target "` | coverage-guided input, sanitizers on | " $3 " | 0 | |" }' \
            "$out/fuzz.txt"
    done
    awk '/^planted bugs:/ { print "| `sabotage` | planted durability bugs | " $3 + $5 " | " $5 \
        " | " $3 " caught |" }' "$out/sabotage.txt"
}

if [ "$scorecard" = yes ]; then
    table >"$out/table.md"
    awk -v table="$out/table.md" '
        /<!-- soak:end -->/ { skip = 0 }
        !skip { print }
        /<!-- soak:begin -->/ { skip = 1; while ((getline line < table) > 0) print line }
    ' "$document" >"$out/document.md"
    cp "$out/document.md" "$document"
fi
[ ! -e "$out/failed" ]
