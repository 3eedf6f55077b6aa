#!/usr/bin/env bash
# Makes packages for those who do not build the library themselves: Debian packages of this
# machine's architecture, or an archive for Windows.
#
#   scripts/package.sh [linux|windows-x86|windows-x64]     (default: linux)
#
# Installs what the build lacks. The packages lie in build/package-<target>/packages afterwards,
# those for Linux with the debug symbols in packages of their own.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "${1:-}"

target="${1:-linux}"
plain=(-DK9EREPL_BUILD_TESTS=OFF -DK9EREPL_BUILD_BENCH=OFF)
case "$target" in
    linux)
        "$root/scripts/setup.sh" package
        preset=release
        # The folders of a system's own packages.
        plain+=(-DCMAKE_INSTALL_PREFIX=/usr)
        ;;
    windows-x86 | windows-x64)
        "$root/scripts/setup.sh" windows
        preset="$target"
        ;;
    *)
        echo "package.sh: unknown target '$target': use linux, windows-x86 or windows-x64" >&2
        exit 2
        ;;
esac
tree="$root/build/package-$target"
cmake -S "$root" -B "$tree" --preset "$preset" "${plain[@]}"
cmake --build "$tree"
rm -rf "$tree/packages"
(cd "$tree" && cpack)
rm -rf "$tree/packages/_CPack_Packages"
ls -l "$tree/packages"
