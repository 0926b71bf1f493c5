#!/usr/bin/env bash
# Builds the command-line tool and demonstrates it: stores files in a cache on disk with a memory
# limit far below their size, restores them in a second process from that cache alone, and compares
# the two trees.
#
#   scripts/demo.sh            stores files that every Debian system has
#   scripts/demo.sh PATH...    stores these files and folders
#
# Installs the packages it needs on Debian 12. May be run again.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/demo
# shellcheck source=lib/packages.sh
source "$root/scripts/lib/packages.sh"

sample_mib=400
memory_mib=64

# Runs a command without its output, which is printed only if the command fails.
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

# Whether this user can read everything in a folder, and all of it is files and folders.
readable() {
    local obstacle
    obstacle=$(find "$1" \( -type d ! \( -readable -executable \) -o -type f ! -readable \
        -o -type p -o -type s -o -type b -o -type c \) -print -quit 2>/dev/null) || return 1
    [ -z "$obstacle" ]
}

# Fills sample_paths with /usr/include and the folders of /usr/share, in the order of their names,
# except those that would exceed the size limit and those that this user may not read.
choose_sample() {
    local folder kib left_kib=$((sample_mib * 1024))
    sample_paths=()
    local LC_ALL=C
    for folder in /usr/include /usr/share/*; do
        if [ -L "$folder" ] || ! [ -d "$folder" ]; then
            continue
        fi
        # A folder that du cannot measure cannot be read either.
        kib=$(du -sk --apparent-size "$folder" 2>/dev/null | cut -f1) || continue
        if [ "$kib" -le "$left_kib" ] && readable "$folder"; then
            sample_paths+=("$folder")
            left_kib=$((left_kib - kib))
        fi
    done
    if [ "${#sample_paths[@]}" -eq 0 ]; then
        echo "Found no readable sample below /usr; name files or folders as arguments." >&2
        exit 1
    fi
    echo "Using ${#sample_paths[@]} folders of /usr/include and /usr/share," \
        "$((sample_mib - left_kib / 1024)) MiB in total."
}

# checksums TOP FOLDER...: prints the checksums of all files in the folders, with their paths
# relative to TOP. Follows only the symbolic links that are named, as the tool does.
checksums() {
    local top=$1
    shift
    (
        cd "$top"
        find -H "$@" -type f -print0 | sed -z 's|^\./||' | LC_ALL=C sort -z |
            xargs -0 -r sha256sum --zero
    )
}

# Prints the name under which the tool restores a path: relative, without dots or links.
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
            echo "$path does not exist." >&2
            exit 1
        fi
        # Relative to the root folder, so that no two paths have the same name.
        names+=("$(restored_name "$path")")
    done
    # Next to the build, where there is room; removed at the end.
    cd "$root"
    work=$(mktemp -d build/demo/run-XXXXXX)
    trap 'rm -rf "$work"' EXIT

    printf '\nStoring the files, with %s MiB of memory for blocks:\n\n' "$memory_mib"
    "$tool" ingest --memory "${memory_mib}M" --root "$work/cache1" --root "$work/cache2" \
        --manifest "$work/manifest" -- "${names[@]/#//}"
    printf '\nThe cache on disk:\n\n'
    "$tool" stat --root "$work/cache1" --root "$work/cache2"
    printf '\nRestoring the files in a second process:\n\n'
    "$tool" restore "$work/manifest" --out "$work/out" --memory "${memory_mib}M"
    printf '\nComparing the trees.\n'
    checksums / "${names[@]}" >"$work/before"
    checksums "$work/out" . >"$work/after"
    if ! cmp "$work/before" "$work/after"; then
        echo "The restored tree differs." >&2
        exit 1
    fi
    echo "$(tr -cd '\0' <"$work/before" | wc -c) files, all restored unchanged."
}

main "$@"
