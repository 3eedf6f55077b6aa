#!/usr/bin/env bash
# The long run of the reliability harness: the fuzz targets where clang is there, every family, with
# a seed of its own, then the planted bugs. Writes the numbers into the scorecard of
# docs/reliability.md. What it has to build comes on top of the minutes.
#
#   scripts/soak.sh [--minutes N] [--seed N] [--no-scorecard] [--dry-run]
#                                                             (default: 30 minutes, by date)
#
# --dry-run prints how the time would be divided. Exit status: 0 when nothing failed. A failing case
# prints its seed and the command that replays it; everything that was printed is in build/soak/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=30
seed="$(date +%Y%m%d)"
scorecard=yes
dry=""
while [ "$#" -gt 0 ]; do
    case "$1" in
        --minutes) minutes="${2:?--minutes wants a number}"; shift ;;
        --seed) seed="${2:?--seed wants a number}"; shift ;;
        --no-scorecard) scorecard=no ;;
        --dry-run) dry=yes ;;
        -h | --help) check_options "" --help ;;
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
mapfile -t families < <("$run" --list | cut -d ' ' -f 1)
mapfile -t fuzz_targets < <("$root/scripts/fuzz.sh" --list)

# A quarter of the time is the planted bugs'; every family and every fuzz target gets the same share
# of what the cores have in the rest. Families keep their time to the second, so they come last.
bugs_minutes="$(awk -v m="$minutes" 'BEGIN { printf "%.2f", m / 4 }')"
main_seconds=$((minutes * 60 * 3 / 4))
plan() {
    pieces=$((${#families[@]} + ${#fuzz_targets[@]}))
    main_end=$(($(date +%s) + main_seconds))
    printf '%s' "soak.sh: ${#fuzz_targets[@]} fuzz targets and ${#families[@]} families" \
        " in $main_seconds s, about $(share_of "$main_end" "$pieces") s each;" \
        " then planted bugs for $bugs_minutes minutes; seed $seed"
    printf '\n'
}

if [ -n "$dry" ]; then
    plan
    exit 0
fi
rm -rf "$out"
mkdir -p "$out"
if ! "$root/scripts/fuzz.sh" --build >"$out/fuzz-build.log" 2>&1; then
    echo "soak.sh: goes without the fuzz targets: no build; see $out/fuzz-build.log" >&2
    fuzz_targets=()
fi
plan

# one_family <seconds> <family>: its summary is the last line of its file.
one_family() {
    "$run" --family "$2" --minutes "$(awk -v s="$1" 'BEGIN { printf "%.3f", s / 60 }')" \
        --seed "$seed" >"$out/$2.txt" 2>&1 ||
        echo "soak.sh: $2 failed; see $out/$2.txt" | tee -a "$out/failed" >&2
    tail -n 1 "$out/$2.txt"
}

# one_target <seconds> <fuzz target>
one_target() {
    "$root/scripts/fuzz.sh" --seconds "${1%.*}" "$2" >"$out/fuzz-$2.txt" 2>&1 ||
        echo "soak.sh: fuzz target $2 failed; see $out/fuzz-$2.txt" | tee -a "$out/failed" >&2
    echo "fuzz $2: $(grep -ao 'stat::number_of_executed_units: *[0-9]*' "$out/fuzz-$2.txt" |
        grep -o '[0-9]*$' || echo 0) runs"
}

# one_piece <place> <function> <name>
one_piece() {
    "$2" "$(share_of "$main_end" $((pieces - $1 + 1)))" "$3"
}

export -f one_family one_target one_piece share_of
export run out seed root jobs pieces main_end
{
    [ "${#fuzz_targets[@]}" -eq 0 ] || printf 'one_target %s\n' "${fuzz_targets[@]}"
    printf 'one_family %s\n' "${families[@]}"
} | awk '{ print NR, $0 }' | xargs -P "$jobs" -L 1 bash -c 'one_piece "$@"' _ | tee "$out/all.txt"
grep '^fuzz ' "$out/all.txt" >"$out/fuzz.txt" || true
"$root/scripts/sabotage.sh" --minutes "$bugs_minutes" | tee "$out/sabotage.txt" | tail -n 1 ||
    touch "$out/failed"

# family_line <family>: a line of the scorecard, from "family: N cases, N failed, N this, N that;
# ...".
family_line() {
    local title summary
    title="$("$run" --list | awk -v family="$1" '$1 == family { $1 = ""; print }' |
        sed -e 's/ ([0-9]* cases)$//' -e 's/^ *//')"
    summary="$(tail -n 1 "$out/$1.txt")"
    awk -v title="$title" -v family="$1" -v s="$summary" 'BEGIN {
        sub(/^[^:]*: /, "", s); sub(/;[^;]*$/, "", s)
        cases = s; sub(/ cases.*/, "", cases)
        failed = s; sub(/.* cases, /, "", failed); sub(/ failed.*/, "", failed)
        rest = s; if (!sub(/.* failed, /, "", rest)) rest = ""
        if (length(rest) > 500) rest = "by class and place: see below"
        printf "| `%s` | %s | %s | %s | %s |\n", family, title, cases, failed, rest }'
}

table() {
    echo "Run of $(date +%Y-%m-%d), $minutes minutes on $jobs cores, seed $seed,"
    echo "commit $(git -C "$root" rev-parse --short HEAD)."
    echo
    echo "| Family | What happens | Cases | Failed | Also counted |"
    echo "|---|---|---:|---:|---|"
    local family target
    for family in "${families[@]}"; do
        family_line "$family"
    done
    for target in "${fuzz_targets[@]}"; do
        awk -v target="$target" '$1 == "fuzz" && $2 == target ":" {
            print "| `fuzz " target "` | coverage-guided input, sanitizers on | " $3 " | 0 | |" }' \
            "$out/fuzz.txt"
    done
    awk '/^planted bugs:/ {
        print "| `sabotage` | planted durability bugs | " $3 + $5 + $7 + $10 " | " $5 + $7 " | " \
            $3 " caught, " $10 " not decided in the time |" }' "$out/sabotage.txt"
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
