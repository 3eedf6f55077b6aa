#!/usr/bin/env bash
# Makes Debian packages of a build tree, installs them into an empty root folder and runs the tool
# in there, where nothing but the packages and the system's own libraries can be found. ctest runs
# it.
#
#   debian_packages.sh BUILD-TREE
#
# Ends with 77, which ctest shows as skipped, where this cannot be done.
set -euo pipefail
tree="$1"

for program in cpack dpkg dpkg-shlibdeps; do
    command -v "$program" >/dev/null || { echo "no $program here"; exit 77; }
done
[ "$(id -u)" -eq 0 ] || { echo "only root may change into another root folder"; exit 77; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
place="$work/root"

fail() {
    echo "debian_packages.sh: $*" >&2
    exit 1
}

# copy_with_libraries <program> <folder inside of the root>: the system's own files, without those
# of the packages.
copy_with_libraries() {
    local library
    mkdir -p "$place$2"
    [ -e "$place$2/$(basename "$1")" ] || cp -L "$1" "$place$2"
    { ldd "$1" 2>/dev/null | grep -oE '/[^ ]+' || true; } |
        awk -v "root=$place" 'index($0, root) != 1' |
        while read -r library; do
            mkdir -p "$place$(dirname "$library")"
            cp -L "$library" "$place$library"
        done
}

cpack --config "$tree/CPackConfig.cmake" -B "$work/packages" >"$work/log" 2>&1 ||
    fail "$(cat "$work/log")"
[ "$(find "$work/packages" -maxdepth 1 -name '*.deb' | wc -l)" = 3 ] || fail "not three packages"

mkdir -p "$place/var/lib/dpkg/info" "$place/var/lib/dpkg/updates" "$place/tmp" "$place/etc"
touch "$place/var/lib/dpkg/status" "$place/var/lib/dpkg/available"
# What the packages' own scripts call.
copy_with_libraries /bin/sh /bin
copy_with_libraries /sbin/ldconfig /sbin
# The system's libraries are no packages in there, so their versions are not asked for.
dpkg --root="$place" --force-depends --install "$work"/packages/*.deb >"$work/log" 2>&1 ||
    fail "$(cat "$work/log")"
copy_with_libraries "$place/usr/bin/k9repl" /usr/bin

printf 'one\ntwo\n' | chroot "$place" /usr/bin/k9repl append --create --conn file=/tmp/data.edb \
    2>"$work/log" || fail "$(cat "$work/log")"
printed="$(chroot "$place" /usr/bin/k9repl cat --conn file=/tmp/data.edb)"
[ "$printed" = $'one\ntwo' ] || fail "cat printed: $printed"

for package in libk9erepl1 libk9erepl-dev k9repl; do
    dpkg --root="$place" --force-depends --remove "$package" >"$work/log" 2>&1 ||
        fail "$(cat "$work/log")"
done
left="$(find "$place" -path '*/usr/*' -iname '*k9*')"
[ -z "$left" ] || fail "removing the packages leaves $left"
