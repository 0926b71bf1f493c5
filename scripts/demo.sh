#!/usr/bin/env bash
# Builds the command-line tool and shows it at work: puts files into a store, reads all of them
# back, and compares.
#
#   scripts/demo.sh            files that every machine has
#   scripts/demo.sh PATH...    these files and folders
#
# Prepares a Debian 12 system by itself, and may be run again.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/demo
# shellcheck source=lib/packages.sh
source "$root/scripts/lib/packages.sh"

sample_mib=400
memory_mib=64

# Runs a command quietly; its output shows when it fails.
quietly() {
    local log=$build/demo.log
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        echo "Failed: $*" >&2
        exit 1
    fi
}

build_tool() {
    mkdir -p "$build"
    echo "Configuring build/demo (Release, the tool only)."
    quietly cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DZEBTDX_BUILD_TOOLS=ON -DZEBTDX_BUILD_TESTS=OFF -DZEBTDX_BUILD_BENCHMARKS=OFF \
        -DZEBTDX_BUILD_EXAMPLES=OFF
    echo "Building zebtdx."
    quietly cmake --build "$build" --target zebtdx
}

# Whether all of a folder can be read as files and folders.
readable() {
    local obstacle
    obstacle=$(find "$1" \( -type d ! \( -readable -executable \) -o -type f ! -readable \
        -o -type p -o -type s -o -type b -o -type c \) -print -quit 2>/dev/null) || return 1
    [ -z "$obstacle" ]
}

# Fills sample_paths with /usr/include and the folders of /usr/share, in the order of their names;
# leaves out what would take the sum past the bound, and what this user may not read.
choose_sample() {
    local folder kib left_kib=$((sample_mib * 1024))
    sample_paths=()
    local LC_ALL=C
    for folder in /usr/include /usr/share/*; do
        if [ -L "$folder" ] || ! [ -d "$folder" ]; then
            continue
        fi
        # What cannot be measured cannot be read either.
        kib=$(du -sk --apparent-size "$folder" 2>/dev/null | cut -f1) || continue
        if [ "$kib" -le "$left_kib" ] && readable "$folder"; then
            sample_paths+=("$folder")
            left_kib=$((left_kib - kib))
        fi
    done
    if [ "${#sample_paths[@]}" -eq 0 ]; then
        echo "Found nothing to show below /usr; give files or folders." >&2
        exit 1
    fi
    echo "Taking ${#sample_paths[@]} folders of /usr/include and /usr/share," \
        "$((sample_mib - left_kib / 1024)) MiB together."
}

# The user's paths are meant from where the user stands, so nothing here changes the folder.
main() {
    require_debian
    install_packages cmake g++ libcli11-dev ninja-build pkg-config qtbase5-dev
    build_tool
    local tool=$build/tools/zebtdx
    if [ "$#" -gt 0 ]; then
        echo "Ingesting what was given."
        echo
        exec "$tool" ingest -- "$@"
    fi
    choose_sample
    echo
    exec "$tool" ingest --memory "${memory_mib}M" -- "${sample_paths[@]}"
}

main "$@"
