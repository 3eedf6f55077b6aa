#!/usr/bin/env bash
# Makes Wine run 32- and 64-bit Windows programs on a 64-bit Debian 12, and lays down the Wine
# prefix that scripts/wine.sh uses. Does nothing where both kinds run already. Called by
# scripts/setup.sh windows; may be called by hand:
#
#   scripts/setup-wine.sh
#
# Exit status: 0 when both kinds of program run; 1 with one line on standard error that says why
# they cannot. Needs root or sudo to install.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$here/install.sh"
source "$here/common.sh"
check_options "" "$@"

prefix="${WINEPREFIX:-$(dirname "$here")/build/wine}"
loader32=/usr/lib/wine/wine
# What a 32-bit loader needs where the packages cannot be installed; see unpack_wine32.
packages32=(wine32:i386 libwine:i386 libc6:i386 libgcc-s1:i386 libunwind8:i386 liblzma5:i386)
zlib32=/usr/i686-w64-mingw32/lib/zlib1.dll
log="$(mktemp "${TMPDIR:-/tmp}/k9erepl-setup-wine.XXXXXX")"
trap 'rm -f "$log"' EXIT

give_up() {
    echo "setup-wine.sh: $*" >&2
    tail -n 5 "$log" >&2
    exit 1
}

# add_i386: a failing update is no failure here: one list may be out of step while the others hold
# what is needed.
add_i386() {
    as_root dpkg --add-architecture i386
    as_root apt-get update -q </dev/null || true
}

# The archive for i386 may lack a package of the right version (lists of a mirror that are out of
# step), and then nothing can be installed. Six packages are enough for console programs; they are
# laid over the system, and the architecture is taken back so that later updates do not fail.
unpack_wine32() {
    local folder
    folder="$(mktemp -d "${TMPDIR:-/tmp}/k9erepl-wine32.XXXXXX")"
    chmod 755 "$folder"
    if (cd "$folder" && apt-get download -q "${packages32[@]}" </dev/null); then
        local package
        for package in "$folder"/*.deb; do
            dpkg -x "$package" "$folder/tree"
        done
        rm -rf "$folder/tree/usr/share"
        as_root cp -a "$folder/tree/usr/." /usr/
        # Files that are there already belong to the 32-bit libraries of an installed package.
        as_root cp -an "$folder/tree/lib/." /usr/lib/
        as_root cp -an "$folder/tree/etc/." /etc/
        # The 32-bit system libraries want zlib as a DLL, which the packages would have linked.
        as_root cp -n "$zlib32" /usr/lib/i386-linux-gnu/wine/i386-windows/
        as_root ldconfig
    fi
    rm -rf "$folder"
    as_root dpkg --remove-architecture i386 || true
    as_root apt-get update -q </dev/null || true
}

install_wine() {
    install_missing wine wine64 libz-mingw-w64
    if [ ! -x "$loader32" ]; then
        add_i386
        as_root env DEBIAN_FRONTEND=noninteractive \
            apt-get install -q -y --no-install-recommends wine32:i386 </dev/null || unpack_wine32
    fi
}

make_prefix() {
    rm -rf "$prefix"
    mkdir -p "$prefix"
    # No window system: the dialogue boxes that Wine might ask with are never shown.
    env -u DISPLAY WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
        wineboot -i </dev/null
    cp -n "$zlib32" "$prefix/drive_c/windows/syswow64/"
}

# runs <folder of Windows>: a program of that folder runs.
runs() {
    [ "$(WINEPREFIX="$prefix" "$here/wine.sh" "C:\\windows\\$1\\cmd.exe" /c echo runs \
        </dev/null 2>/dev/null | tr -d '\r')" = runs ]
}

both_run() {
    command -v wine >/dev/null && [ -x "$loader32" ] && [ -d "$prefix/drive_c/windows/syswow64" ] &&
        runs syswow64 && runs system32
}

both_run && exit 0
echo "setup-wine.sh: setting up Wine"
install_wine >"$log" 2>&1 || give_up "Wine cannot be installed"
[ -x "$loader32" ] || give_up "the 32-bit part of Wine cannot be had"
make_prefix >"$log" 2>&1 || give_up "Wine cannot lay down its prefix"
runs syswow64 || give_up "Wine does not run 32-bit programs"
runs system32 || give_up "Wine does not run 64-bit programs"
