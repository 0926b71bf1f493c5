#!/usr/bin/env bash
# Builds the command-line tool and shows it at work: puts files into a cache on disk with a memory
# limit far below their size, brings them back in a second process from that cache alone, and
# compares the two trees.
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

# The checksums of all files below the folders, by their paths from the top folder, which is given
# first. Of symbolic links, only those given are followed, as the tool has it.
checksums() {
    local top=$1
    shift
    (
        cd "$top"
        find -H "$@" -type f -print0 | sed -z 's|^\./||' | LC_ALL=C sort -z |
            xargs -0 -r sha256sum --zero
    )
}

# Where the tool restores a path to: it is made to lead to no other place.
restored_name() {
    realpath --no-symlinks --relative-to=/ "$1"
}

main() {
    require_debian
    install_packages cmake g++ libcli11-dev ninja-build pkg-config qtbase5-dev zlib1g-dev
    build_tool
    local tool=$build/tools/zebtdx path
    local -a given=() names=()
    if [ "$#" -gt 0 ]; then
        given=("$@")
    else
        choose_sample
        given=("${sample_paths[@]}")
    fi
    for path in "${given[@]}"; do
        if ! [ -e "$path" ]; then
            echo "There is no $path." >&2
            exit 1
        fi
        # From the root folder, so that every path has a name of its own.
        names+=("$(restored_name "$path")")
    done
    # Beside the build, where there is room; gone at the end.
    cd "$root"
    work=$(mktemp -d build/demo/run-XXXXXX)
    trap 'rm -rf "$work"' EXIT

    printf '\nIngesting, with %s MiB of memory for the blocks.\n\n' "$memory_mib"
    "$tool" ingest --memory "${memory_mib}M" --root "$work/cache1" --root "$work/cache2" \
        --manifest "$work/manifest" -- "${names[@]/#//}"
    printf '\nThe cache on disk:\n\n'
    "$tool" stat --root "$work/cache1" --root "$work/cache2"
    printf '\nRestoring in a second process.\n\n'
    "$tool" restore "$work/manifest" --out "$work/out" --memory "${memory_mib}M"
    printf '\nComparing the trees.\n'
    checksums / "${names[@]}" >"$work/before"
    checksums "$work/out" . >"$work/after"
    if ! cmp "$work/before" "$work/after"; then
        echo "The restored tree differs." >&2
        exit 1
    fi
    echo "$(tr -cd '\0' <"$work/before" | wc -c) files, and every one has come back as it was."
}

main "$@"
