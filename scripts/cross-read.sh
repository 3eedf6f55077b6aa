#!/usr/bin/env bash
# Shows that storages written by one build open in every other: each build writes the storages of
# tests/portability into build/cross-read/PRESET, each build then checks all of them, and the files
# are compared byte for byte, but for the stamps of the commit blocks.
#
#   scripts/cross-read.sh
#
# Takes part: every preset of release, linux-x86, windows-x86 and windows-x64 whose build tree holds
# the program portable_storage (cmake --build build/PRESET --target portable_storage). Called at the
# end of scripts/test-windows.sh. Exit status: 0 when all is well, 1 when it is not, 3 with one line
# when fewer than two builds are there.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "$@"
cd "$root"

out=build/cross-read
presets=()
for preset in release linux-x86 windows-x86 windows-x64; do
    if compgen -G "build/$preset/bin/portable_storage*" >/dev/null; then
        presets+=("$preset")
    fi
done
if [ "${#presets[@]}" -lt 2 ]; then
    echo "cross-read.sh: nothing to compare: of two builds at least, ${presets[*]:-none} is there"
    exit 3
fi

scratch="$(mktemp -d "$(memory_folder)/k9erepl-cross-read.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT

# portable <preset> <command> <folder>: the program of that build; its lines end as they do here.
portable() {
    local preset="$1" program="build/$1/bin/portable_storage"
    shift
    case "$preset" in
        windows-*) scripts/wine.sh "$program.exe" "$@" </dev/null | tr -d '\r' ;;
        *) "$program" "$@" </dev/null ;;
    esac
}

failures=0
# cell <word> <command...>: prints the word, or FAILED; why goes to the notes.
cell() {
    local word="$1"
    shift
    if ! "$@" 2>>"$scratch/notes"; then
        word=FAILED
        failures=$((failures + 1))
    fi
    printf '%-13s' "$word"
}

# same_files <preset>: its files are those of the first preset.
same_files() {
    portable "${presets[0]}" digest "$out/$1" >"$scratch/$1" &&
        diff "$scratch/${presets[0]}" "$scratch/$1" >&2
}

rm -rf "$out"
mkdir -p "$out"
printf '%-13s' 'written by' "${presets[@]}" 'its files'
echo
for writer in "${presets[@]}"; do
    printf '%-13s' "$writer"
    if ! portable "$writer" write "$out/$writer" 2>>"$scratch/notes"; then
        echo 'FAILED to write'
        failures=$((failures + 1))
        continue
    fi
    for reader in "${presets[@]}"; do
        cell ok portable "$reader" check "$out/$writer"
    done
    cell same same_files "$writer"
    echo
done
if [ "$failures" -ne 0 ]; then
    cat "$scratch/notes" >&2
    echo "cross-read.sh: $failures failures" >&2
    exit 1
fi
echo "cross-read.sh: ${#presets[@]} builds read each other's storages, and write the same bytes"
