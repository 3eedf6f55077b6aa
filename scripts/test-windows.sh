#!/usr/bin/env bash
# Sets up the cross compilers and Wine, builds for Windows and runs every test there.
#
#   scripts/test-windows.sh [windows-x86|windows-x64]...     (default: both)
#
# Says for each preset how its tests compare with the native ones (when build/release is there):
# the same but for those that tests/posix_only_tests.txt names. Closes with how many passed.
# Exit status: 0 when every test passed, 3 with one line that says why when this machine cannot run
# Windows programs, anything else when a build or a test failed.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "$@"

posix_only="$root/tests/posix_only_tests.txt"
presets=("$@")
[ "$#" -gt 0 ] || presets=(windows-x86 windows-x64)
for preset in "${presets[@]}"; do
    case "$preset" in
        windows-x86 | windows-x64) ;;
        *)
            echo "test-windows.sh: unknown preset '$preset': use windows-x86 or windows-x64" >&2
            exit 2
            ;;
    esac
done

if ! why="$("$root/scripts/setup.sh" windows 2>&1 >/dev/null)"; then
    echo "test-windows.sh: the Windows tests did not run: $(head -n 1 <<<"$why")"
    exit 3
fi

# The tests' files lie in memory where there is room: Wine's detours are slow enough. Wine takes the
# folder for temporary files from its prefix, whatever the environment says.
folder="$(mktemp -d "$(memory_folder)/k9erepl-windows-tests.XXXXXX")"
wine_temp="${WINEPREFIX:-$root/build/wine}/drive_c/users/$(id -un)/Temp"
clean_up() {
    rm -rf "$folder" "$wine_temp"
    mkdir -p "$wine_temp"
}
trap clean_up EXIT
rm -rf "$wine_temp"
mkdir "$folder/temp"
ln -s "$folder/temp" "$wine_temp"

# names_of <preset> [runner]: the tests of all its programs, sorted; parameters without their text.
names_of() {
    local program runner="${2:-}"
    for program in "$root/build/$1"/bin/*_tests "$root/build/$1"/bin/*_tests.exe; do
        [ -x "$program" ] || continue
        $runner "$program" --gtest_list_tests </dev/null 2>/dev/null | tr -d '\r' |
            awk '/^Running main/ { next } /^[^ ]/ { suite = $1; next } { print suite $1 }'
    done | sort
}

# named <+ or nothing>: the names of the list of that kind, as patterns of whole lines.
named() {
    sed -n -e '/^#/d' -e "s/^${1:+[+] }\([^+ ][^ ]*\).*/\1/p" "$posix_only" |
        sed -e 's/[.]/[.]/g' -e 's/[*]/.*/g'
}

# without <+ or nothing>: leaves out of a list of tests those of one kind of system only.
without() {
    grep -vxf <(named "$1")
}

# compare <preset>: the tests of both sides are the same but for those that the list names.
compare() {
    if [ ! -x "$root/build/release/bin/engine_tests" ]; then
        echo "not compared with the native tests: there is no build/release"
        return 0
    fi
    names_of release >"$folder/native"
    names_of "$1" "$root/scripts/wine.sh" >"$folder/windows"
    if ! diff <(without "" <"$folder/native") <(without + <"$folder/windows") >"$folder/diff"; then
        echo "test-windows.sh: of the tests that $1 lacks (<) or has alone (>)," \
            "tests/posix_only_tests.txt does not name:" >&2
        grep '^[<>]' "$folder/diff" | head -n 30 >&2
        return 1
    fi
    local native both
    native="$(wc -l <"$folder/native")"
    both="$(without "" <"$folder/native" | wc -l)"
    echo "$native native tests: $both on Windows, too, $((native - both)) of POSIX only;" \
        "$(($(wc -l <"$folder/windows") - both)) of Windows only"
}

# summary <preset>: the closing line, from the results that the test programs left.
summary() {
    local results="$root/build/$1/test-results" all failed skipped
    all="$(cat "$results"/*.xml | grep -c '<testcase ')"
    failed="$(cat "$results"/*.xml | grep -c '<failure ' || true)"
    skipped="$(cat "$results"/*.xml | grep -c 'result="skipped"' || true)"
    echo "$1: $((all - failed - skipped)) passed, $failed failed, $skipped skipped"
}

for preset in "${presets[@]}"; do
    started="$(date +%s%N)"
    # As it ships, too: the native tests run against objects that keep their asserts.
    configure "$preset" "${with_tests[@]}" -DK9EREPL_CHECKED_TESTS=OFF
    build "$preset"
    echo "test-windows.sh: built '$preset' in $(seconds_since "$started") s"
    rm -rf "$root/build/$preset/test-results"
    wake_wine
    (cd "$root" && ctest --preset "$preset" --parallel "$jobs" --no-tests=error </dev/null)
    echo "$preset: $(compare "$preset")"
    summary "$preset"
done
[ ! -x "$root/build/release/bin/portable_storage" ] || "$root/scripts/cross-read.sh"
