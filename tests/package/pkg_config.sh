#!/usr/bin/env bash
# Compiles and runs the consumer with the flags from pkg-config for the package under a prefix.
# usage: pkg_config.sh PREFIX LIBDIR VERSION COMPILER SOURCE WORK_DIRECTORY
set -euo pipefail

prefix=$1 libdir=$2 version=$3 compiler=$4 source=$5 work=$6
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}

expect() {
    if [[ $2 != "$3" ]]; then
        echo "$1 is '$2', expected '$3'" >&2
        exit 1
    fi
}

expect version "$(pkg-config --modversion zebtdx)" "$version"
# Compares resolved paths, because the file may refer to its prefix through "..".
expect libdir "$(realpath -m "$(pkg-config --variable=libdir zebtdx)")" "$(realpath "$prefix/$libdir")"
expect includedir "$(realpath -m "$(pkg-config --variable=includedir zebtdx)")" \
    "$(realpath "$prefix/include/ZebTdx")"

rm -rf "$work"
mkdir -p "$work/store"
read -ra flags <<<"$(pkg-config --cflags --libs zebtdx)"
# Qt's headers require position-independent code.
"$compiler" -std=c++17 -fPIC "$source" -o "$work/consumer" "${flags[@]}"
LD_LIBRARY_PATH=$prefix/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
    "$work/consumer" "$work/store" "$version"
