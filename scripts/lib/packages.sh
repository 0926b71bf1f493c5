# shellcheck shell=bash
# Installs Debian packages for the scripts of the folder above, which source this file.

# Ends the script on a system without the Debian package tools.
require_debian() {
    local tool
    for tool in apt-get dpkg-query; do
        if ! command -v "$tool" >/dev/null 2>&1; then
            echo "This script needs Debian 12 or a similar system: '$tool' is missing." >&2
            echo "On other systems install a C++17 compiler, CMake, Ninja, pkg-config, Qt 5.15," >&2
            echo "zlib and CLI11, and build with CMake." >&2
            exit 1
        fi
    done
}

# missing_packages PACKAGE...: prints the packages that are not installed.
missing_packages() {
    local package status
    for package in "$@"; do
        status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) ||
            status=absent
        if [ "$status" != installed ]; then
            echo "$package"
        fi
    done
}

# install_packages PACKAGE...: installs the missing packages; changes nothing if there are none.
install_packages() {
    local missing=() as_root=()
    mapfile -t missing < <(missing_packages "$@")
    if [ "${#missing[@]}" -eq 0 ]; then
        echo "All required packages are installed."
        return
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null 2>&1; then
            echo "Missing packages: ${missing[*]}" >&2
            echo "Install them as root, or install sudo, and run this script again." >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
