#!/usr/bin/env bash
# Shows the main job on this machine: sets up what is missing, builds the tool, appends a
# real stream of at least 100 MB to a storage, closes it, reopens it through its index, reads
# everything back and compares the bytes by their SHA-256.
#
#   scripts/demo.sh [--preset PRESET] [TEXT-FILE]
#
# PRESET: release (default), linux-x86, or windows-x86 and windows-x64, which run under Wine. The
# text is the machine's own package database, repeated, unless a file is given.
#
# Exit status: 0 when the checksums are equal. Works in a folder of its own under TMPDIR (default
# /tmp), which it removes; KEEP=1 keeps it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "--preset" "$@"

least_bytes=$((100 * 1000 * 1000))

fail() {
    echo "demo.sh: $*" >&2
    exit 1
}

# make_stream <file>: at least 100 MB of package descriptions.
make_stream() {
    local seed="$work/packages.txt" size
    { apt-cache dumpavail 2>/dev/null || true; cat /var/lib/dpkg/status 2>/dev/null || true; } \
        >"$seed"
    size="$(stat -c %s "$seed")"
    [ "$size" -gt 0 ] || fail "this machine has no package database; give a text file"
    : >"$1"
    while [ "$(stat -c %s "$1")" -lt "$least_bytes" ]; do
        cat "$seed" >>"$1"
    done
    rm "$seed"
}

# need_space <bytes>: in the work folder.
need_space() {
    local free
    free="$(df --output=avail -B1 "$work" | tail -n 1)"
    [ "$free" -ge "$1" ] ||
        fail "$work needs $(($1 / 1000000)) MB of free space and has $((free / 1000000)) MB"
}

# Without a newline at the end, the last line comes back with one; the checksum allows for it.
input_sha() {
    { cat "$1"; if [ -n "$(tail -c 1 "$1")" ]; then echo; fi; } | sha256sum | cut -d ' ' -f 1
}

timed() {
    local started
    started="$(date +%s%N)"
    "${@:2}"
    printf -v "$1" '%s' "$(seconds_since "$started")"
}

rate() {
    awk -v bytes="$1" -v s="$2" 'BEGIN { printf "%.0f MB/s", bytes / 1e6 / (s > 0 ? s : 0.05) }'
}

# path_of <file>: as the tool takes it; a Windows program takes a word that begins with / for an
# option.
path_of() {
    case "$preset" in
        windows-*) echo "Z:${1//\//\\}" ;;
        *) echo "$1" ;;
    esac
}

append_all() {
    "${k9repl[@]}" append --create --conn "$conn" "$(path_of "$stream")" >"$work/append.txt"
}

# The library's own log tells whether the index was taken.
stat_storage() {
    K9SYS_LOG=k9eRepl-storage-idx=info K9SYS_LOG_FILE="$(path_of "$work/reopen.log")" \
        "${k9repl[@]}" stat --conn "$conn" >"$work/stat.txt"
    grep -q 'Index file seems to be valid' "$work/reopen.log" ||
        fail "the storage was not reopened through its index: $(cat "$work/reopen.log")"
}

enumerate_all() {
    "${k9repl[@]}" cat --conn "$conn" | sha256sum | cut -d ' ' -f 1 >"$work/sha.txt"
}

preset=release
if [ "${1:-}" = --preset ] && [ "$#" -ge 2 ]; then
    preset="$2"
    shift 2
fi
case "$preset" in
    release) needs=demo ;;
    linux-x86) needs=test32 ;;
    windows-x86 | windows-x64) needs=windows ;;
    *) fail "unknown preset '$preset': use release, linux-x86, windows-x86 or windows-x64" ;;
esac
input="${1:-}"
[ "$#" -le 1 ] || fail "usage: scripts/demo.sh [--preset PRESET] [TEXT-FILE]"
[ -z "$input" ] || [ -f "$input" ] || fail "'$input' is no file"

k9repl=("$root/build/$preset/bin/k9repl")
if [ "$needs" = windows ]; then
    k9repl=("$root/scripts/wine.sh" "$k9repl.exe")
fi

"$root/scripts/setup.sh" "$needs"
mkdir -p "$root/build"
build_log="$root/build/demo-build.log"

build_tool() {
    local -a parts=()
    # A tree that has its tests keeps them.
    [ -f "$root/build/$preset/CMakeCache.txt" ] ||
        parts=(-DK9EREPL_BUILD_TESTS=OFF -DK9EREPL_BUILD_BENCH=OFF)
    { configure "$preset" "${parts[@]}" -DK9EREPL_BUILD_TOOL=ON &&
        build "$preset" k9repl; } >"$build_log" 2>&1 || {
        tail -n 30 "$build_log" >&2
        fail "the build failed; all of its output is in $build_log"
    }
}

echo "building build/$preset (a minute or two the first time)"
timed build_time build_tool
[ "$needs" != windows ] || wake_wine

work="$(mktemp -d "${TMPDIR:-/tmp}/k9repl-demo.XXXXXX")"
cleanup() {
    if [ "${KEEP:-0}" = 1 ]; then
        echo "kept: $work"
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if [ -n "$input" ]; then
    stream="$(realpath "$input")"
    # The storage adds a head to each line; short lines weigh several times their length.
    need_space "$(($(stat -c %s "$stream") * 3 + $(wc -l <"$stream") * 24))"
else
    need_space $((least_bytes * 5))
    stream="$work/stream.txt"
    make_stream "$stream"
fi

conn="file=$(path_of "$work/demo.edb");block_size=1048672;cache_type=Last20;flush_mode=PerTrans"
conn="$conn;flush_trans_num=10;file_size_delta=16"
bytes="$(stat -c %s "$stream")"

timed append_time append_all
timed reopen_time stat_storage
timed enum_time enumerate_all
sent="$(input_sha "$stream")"
received="$(cat "$work/sha.txt")"

echo
echo "stream      $bytes bytes, $(wc -l <"$stream") lines"
echo "build       $build_time s"
echo "append      $append_time s ($(rate "$bytes" "$append_time")): $(cat "$work/append.txt")"
echo "reopen      $reopen_time s, through the index"
sed 's/^/            /' "$work/stat.txt"
echo "enumerate   $enum_time s ($(rate "$bytes" "$enum_time"))"
echo "sent        $sent"
echo "received    $received"
if [ "$sent" != "$received" ]; then
    fail "the checksums differ: the storage did not give back what it was given"
fi
echo "equal: every byte came back"
