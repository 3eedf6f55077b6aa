#!/usr/bin/env bash
# Checks the rules of this repository that no compiler checks.
#
#   scripts/check.sh            everything, clang-tidy over every source included (minutes)
#   scripts/check.sh --quick    everything but clang-tidy (seconds)
#
# Exit status: 0 when nothing was found; each finding is a line "file:line: what is wrong".
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "--quick" "$@"
cd "$root" || exit 2

file_lines_max=600
line_columns_max=100
findings=0

# report <rule>: prints the findings on standard input, one a line, and counts them.
report() {
    local line
    while IFS= read -r line; do
        [ -n "$line" ] || continue
        echo "$line: $1"
        findings=$((findings + 1))
    done
}

# list <pattern...>: tracked and new files, existing ones only.
list() {
    git ls-files --cached --others --exclude-standard -- "$@" | sort -u |
        while IFS= read -r file; do [ -f "$file" ] && echo "$file"; done
}

sources() { list '*.cpp' '*.h' '*.c'; }
texts() { list '*.cpp' '*.h' '*.c' '*.cmake' '*CMakeLists.txt' '*.sh' '.ci/run' '*.map'; }

# The two public C headers choose their export macro by system, and nothing else does outside the
# folders and files that are named after their system.
portable_sources() {
    sources | grep -E '^(src|include|k9sys|tools|bench|examples)/' |
        grep -vE '/(posix|windows)/|_(posix|windows)\.(cpp|h)$'
}

check_format() {
    sources | xargs -r -n 1 -P "$jobs" sh -c \
        'clang-format --dry-run -Werror "$0" >/dev/null 2>&1 || echo "$0:1"' |
        sort > "$scratch/format"
    report "not formatted: clang-format -i" <"$scratch/format"
}

check_sizes() {
    texts | while IFS= read -r file; do
        awk -v file="$file" -v max="$file_lines_max" \
            'END { if (NR > max) print file ":" NR }' "$file"
    done >"$scratch/long-files"
    report "more than $file_lines_max lines in a file" <"$scratch/long-files"
    texts | LC_ALL=C.UTF-8 xargs -r grep -HnoE "^.{$((line_columns_max + 1)),}$" |
        cut -d : -f 1,2 >"$scratch/long-lines"
    report "more than $line_columns_max columns in a line" <"$scratch/long-lines"
    texts | xargs -r grep -HnE '[[:blank:]]+$' | cut -d : -f 1,2 >"$scratch/blanks"
    report "blanks at the end of a line" <"$scratch/blanks"
}

check_system_headers() {
    local headers='(unistd|fcntl|poll|pthread|sched|semaphore|signal|dlfcn|termios|dirent|link'
    headers="$headers|windows|winsock2|io|process|intrin|x86intrin|sys/[a-z0-9_]+|linux/[a-z0-9_]+"
    headers="$headers)\\.h"
    portable_sources | xargs -r grep -HnE "^[[:blank:]]*#[[:blank:]]*include +<$headers>" |
        cut -d : -f 1,2 >"$scratch/headers"
    report "a header of the operating system outside its folder" <"$scratch/headers"
    portable_sources | grep -v '^include/' |
        xargs -r grep -HnE '^[[:blank:]]*#.*\b(_WIN32|_WIN64|__linux__|__unix__|_MSC_VER)\b' |
        cut -d : -f 1,2 >"$scratch/switches"
    report "a switch by operating system outside its folder" <"$scratch/switches"
}

# A module includes itself and the modules below it, in one order for all.
check_directions() {
    awk '
        BEGIN {
            order = "format platform support memory writers index solid engine api"
            count = split(order, modules, " ")
            for (i = 1; i <= count; ++i) ranks[modules[i]] = i
        }
        /^#include "/ {
            split(FILENAME, path, "/"); own = path[2]
            split($2, included, "\""); split(included[2], parts, "/"); other = parts[1]
            known = (own in ranks) && (other in ranks)
            if (!known || (other != own && ranks[other] > ranks[own])) print FILENAME ":" FNR
        }' $(list 'src/*.h' 'src/*.cpp') >"$scratch/directions"
    report "includes a module that is not below its own" <"$scratch/directions"
}

# A class is found in one source, or in two where a client's and a thread's side differ; the twins
# of posix/ and windows/ count as one. Functions that a header defines do not count.
check_classes() {
    awk '
        FNR == 1 { place = FILENAME; sub(/\/(posix|windows)\//, "/", place) }
        /^[A-Za-z_].*::~?[A-Za-z0-9_]+\(/ {
            sub(/\(.*/, "")
            words = split($0, word, /[ *&]+/)
            parts = split(word[words], part, "::")
            if (parts < 2 || part[parts - 1] !~ /^[A-Z]/) next
            class = part[parts - 1]
            if ((class, place) in seen) next
            seen[class, place] = 1
            if (++places[class] == 3) print FILENAME ":" FNR ": " class
        }' $(list 'src/*.cpp') >"$scratch/classes"
    report "is a class whose functions lie in more than two sources" <"$scratch/classes"
}

check_heads() {
    sources | while IFS= read -r file; do
        head -n 1 "$file" | grep -qE '^(//|/\*)' || echo "$file:1"
    done >"$scratch/heads"
    report "does not begin with what it is for and who calls it" <"$scratch/heads"
    list 'src/*.h' | while IFS= read -r file; do
        guard="K9EREPL_$(echo "${file#src/}" | tr 'a-z/.' 'A-Z__')"
        grep -q "^#ifndef $guard\$" "$file" || echo "$file:1"
    done >"$scratch/guards"
    report "the include guard is not named after the file" <"$scratch/guards"
}

# The C headers of include/ are left out: they must be C, and the checks are for C++.
check_tidy() {
    local headers="^$root/(src|k9sys|tools|tests|bench|examples)/.*\\.h\$"
    configure debug -DK9EREPL_BUILD_TESTS=ON -DK9EREPL_BUILD_BENCH=ON >/dev/null || return 1
    list '*.cpp' | grep -vE '/windows/|_windows\.cpp$' | while IFS= read -r file; do
        grep -q "\"file\": \"$root/$file\"" build/debug/compile_commands.json && echo "$file"
    done | HEADERS="$headers" xargs -r -n 1 -P "$jobs" sh -c \
        'clang-tidy -p build/debug --quiet --header-filter="$HEADERS" "$0" 2>/dev/null |
            grep -E "(error|warning):"' |
        sort -u >"$scratch/tidy"
    report "clang-tidy" <"$scratch/tidy"
}

mode="${1:-}"
if [ -n "$mode" ] && [ "$mode" != --quick ]; then
    echo "usage: scripts/check.sh [--quick]" >&2
    exit 2
fi
"$root/scripts/setup.sh" check || exit 2
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

check_format
check_sizes
check_system_headers
check_directions
check_classes
check_heads
if [ "$mode" != --quick ]; then
    check_tidy || findings=$((findings + 1))
fi

if [ "$findings" -ne 0 ]; then
    echo "check.sh: $findings findings" >&2
    exit 1
fi
echo "check.sh: nothing found"
