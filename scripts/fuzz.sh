#!/usr/bin/env bash
# Coverage-guided fuzzing of files, calls, settings and formats, with clang's libFuzzer and both
# sanitizers. What a run learns stays in build/fuzz/corpus, for the next one.
#
#   scripts/fuzz.sh --build                       sets up and builds the targets
#   scripts/fuzz.sh --list                        prints their names, one a line
#   scripts/fuzz.sh [--seconds N] TARGET          lets one run (60 seconds), built or not
#
# Exit status: 0 when nothing was found. A finding is a file in build/fuzz/findings/TARGET; the
# program that it makes fail is build/fuzz/bin/fuzz_TARGET FILE. Once it is mended it belongs into
# tests/data/fuzz/TARGET, where every test run replays it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

tree="$root/build/fuzz"

targets() {
    sed -n 's/^k9erepl_add_fuzz_target(\([a-z_]*\))$/\1/p' "$root/tests/fuzz/CMakeLists.txt"
}

build_targets() {
    "$root/scripts/setup.sh" fuzz
    configure fuzz
    build fuzz fuzz_targets
}

# run_target <target> <seconds>
run_target() {
    local program="$tree/bin/fuzz_$1" corpus="$tree/corpus/$1" findings="$tree/findings/$1"
    local -i length_max=4096
    [ -x "$program" ] || build_targets
    mkdir -p "$corpus" "$findings"
    # Memory that a run gives back is soon used again; large buffers would fill it otherwise.
    TMPDIR="$(memory_folder)" \
        ASAN_OPTIONS="quarantine_size_mb=16:${ASAN_OPTIONS:-}" \
        "$program" "$corpus" "$root/tests/data/fuzz/$1" -max_total_time="$2" \
        -max_len="$length_max" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$findings/"
}

seconds=60
target=""
while [ "$#" -gt 0 ]; do
    case "$1" in
        --build) build_targets; exit 0 ;;
        --list) targets; exit 0 ;;
        --seconds) seconds="${2:?--seconds wants a number}"; shift ;;
        -h | --help) sed -n '2,12s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; exit 0 ;;
        -*)
            echo "fuzz.sh: unknown option '$1'; --help tells" >&2
            exit 2
            ;;
        *) target="$1" ;;
    esac
    shift
done
case "$seconds" in
    *[!0-9]* | "")
        echo "fuzz.sh: --seconds wants a whole number" >&2
        exit 2
        ;;
esac
if ! targets | grep -qx -- "${target:-none}"; then
    echo "fuzz.sh: no target '$target'; --list prints them" >&2
    exit 2
fi
run_target "$target" "$seconds"
