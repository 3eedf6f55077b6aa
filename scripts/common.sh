# Shared by the scripts of this folder: where the repository is, how a preset is built.
# Sourced, never run; expects bash with "set -euo pipefail".

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc 2>/dev/null || echo 2)"

# Clones and work trees share what the compiler cache holds: paths count from the root.
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1

# check_options <known options> "$@": the calling script's opening comment for --help; refuses an
# option that is not among the known ones, which stand in one word, separated by blanks.
check_options() {
    local script="${BASH_SOURCE[1]}" known=" $1 " argument
    shift
    for argument in "$@"; do
        case "$argument" in
            -h | --help)
                sed -n '2,${/^#/!q;s/^# \{0,1\}//p}' "$script"
                exit 0
                ;;
            -*)
                if [[ "$known" != *" $argument "* ]]; then
                    echo "$(basename "$script"): unknown option '$argument'; --help tells" >&2
                    exit 2
                fi
                ;;
        esac
    done
}

# What configures a tree for its tests.
# shellcheck disable=SC2034  # the scripts that run tests use it
with_tests=(-DK9EREPL_BUILD_TESTS=ON -DK9EREPL_JOIN_FILES=ON -DK9EREPL_BUILD_TOOL=ON)

# configure <preset> [cmake option...]: the build tree build/<preset>, with ccache if it is there.
configure() {
    local preset="$1"
    shift
    local -a launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    (cd "$root" && cmake --preset "$preset" "${launcher[@]}" "$@" </dev/null)
}

# build <preset> [target...]: everything, or the targets.
build() {
    local preset="$1"
    shift
    local -a targets=()
    if [ "$#" -gt 0 ]; then
        targets=(--target "$@")
    fi
    (cd "$root" && cmake --build "build/$preset" --parallel "$jobs" "${targets[@]}" </dev/null)
}

# seconds_since <start>: with one decimal; <start> from "date +%s%N".
seconds_since() {
    local ms=$((($(date +%s%N) - $1) / 1000000))
    printf '%d.%d' $((ms / 1000)) $((ms % 1000 / 100))
}

# share_of <end> <pieces>: how many seconds the next of so many pieces of work may take, so that all
# of them end at <end> (seconds since 1970), "$jobs" at a time. What a piece does not use, or takes
# too much, is divided among those behind it. Never below one second.
share_of() {
    awk -v left="$(($1 - $(date +%s)))" -v pieces="$2" -v jobs="$jobs" 'BEGIN {
        share = left * jobs / (pieces + jobs - 1)
        printf "%.1f", (share > 1 ? share : 1) }'
}

# free_mebibytes <folder>: the room on its file system.
free_mebibytes() {
    df -Pm "$1" | awk 'NR == 2 { print $4 }'
}

# memory_folder: where short-lived files of tests may lie in memory; /tmp, or TMPDIR, where memory
# is short or is not to be had as files.
memory_folder() {
    local memory=/dev/shm
    if [ -z "${TMPDIR:-}" ] && [ -w "$memory" ] && [ "$(free_mebibytes "$memory")" -ge 4096 ]; then
        echo "$memory"
    else
        echo "${TMPDIR:-/tmp}"
    fi
}

# wake_wine: starts Wine's own processes, which stay for a minute after the last program. Otherwise
# the first program starts them, with its output, and what reads that waits for them to the end.
wake_wine() {
    WINEPREFIX="${WINEPREFIX:-$root/build/wine}" wineserver -p60 >/dev/null 2>&1 </dev/null || true
    "$root/scripts/wine.sh" 'C:\windows\system32\cmd.exe' /c exit >/dev/null 2>&1 </dev/null
}
