# Installing Debian packages; shared by the scripts that set a machine up. Sourced, never run;
# expects bash with "set -euo pipefail".

is_installed() {
    dpkg -s "$1" 2>/dev/null | grep -q '^Status: install ok installed$'
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "setup.sh: to install packages, run it as root or install sudo" >&2
        return 1
    fi
}

# install_missing <package>...: installs those that are not there; says and does nothing when all
# are.
install_missing() {
    local package
    local -a missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "setup.sh: installing ${missing[*]}"
    as_root apt-get update -q </dev/null
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null
}
