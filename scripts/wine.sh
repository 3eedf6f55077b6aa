#!/usr/bin/env bash
# Runs a Windows program under Wine, in the Wine prefix of this repository (build/wine, or
# WINEPREFIX), which scripts/setup.sh windows has made. The build runs its Windows programs
# through it; a developer may, too:
#
#   scripts/wine.sh build/windows-x86/bin/k9repl.exe --help
set -euo pipefail
case "${1:-}" in
    "" | -*)
        source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
        check_options "" "${1:---help}"
        ;;
esac
build="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build"
export WINEPREFIX="${WINEPREFIX:-$build/wine}"
export WINEDEBUG="${WINEDEBUG:--all}"
exec wine "$@"
