#!/usr/bin/env bash
# Everything that a change must pass, on a fresh Debian 12: installs the packages it needs, checks
# the format, the shell scripts, clang-tidy and the lock annotations, and builds and tests the
# optimised and the sanitized build. May be run again, from any directory. The last lines are ctest's results for both builds.
#
# scripts/soak.sh runs the tests that take longer.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
# shellcheck source=lib/packages.sh
source scripts/lib/packages.sh

jobs=$(nproc)
step="start"
declare -A result=()

headline() {
    step=$1
    printf '\n== %s\n' "$step"
}

print_results() {
    local status=$?
    if ((status != 0)); then
        printf '\n== Failed: %s\n' "$step" >&2
    else
        printf '\n== Results: dev, then asan\n'
    fi
    local preset
    for preset in dev asan; do
        if [[ -n ${result[$preset]:-} ]]; then
            echo "${result[$preset]}"
        fi
    done
}
trap print_results EXIT

# Configures and builds a preset. A configured directory keeps its generator.
build() {
    local preset=$1
    local options=("-DCMAKE_CXX_COMPILER_LAUNCHER=$(command -v ccache || true)")
    if [[ ! -e build/$preset/CMakeCache.txt ]]; then
        options+=(-G Ninja)
    fi
    cmake --preset "$preset" "${options[@]}"
    cmake --build --preset "$preset" --parallel "$jobs"
}

run_tests() {
    local preset=$1
    local log=build/$preset/test.log
    local status=0
    ctest --preset "$preset" --output-on-failure --no-tests=error --parallel "$jobs" 2>&1 |
        tee "$log" || status=$?
    result[$preset]=$(grep -E '^[0-9]+% tests passed' "$log" | tail -n 1 || true)
    return "$status"
}

# Runs each benchmark as briefly as possible: they must work; their figures do not count here.
run_benchmarks() {
    local log=build/dev/bench.log
    # The excluded ones need gigabytes of memory and disk, or make many files.
    local large='admissionWithManyResident/(200000|1000000)/|Collector/.*:100000'
    large+='|OpenAndCloseSharedBlocks/100000/|Resident/memory/100000/'
    build/dev/bench/zebtdx_bench --benchmark_min_time=0.001 --benchmark_filter="-$large" 2>&1 |
        tee "$log"
    build/dev/bench/zebtdx_tool_bench --benchmark_min_time=0.001 2>&1 | tee -a "$log"
    # A benchmark that reports an error does not change the exit status.
    if grep -E 'ERROR OCCURRED|Failed to match any benchmarks' "$log" >&2; then
        return 1
    fi
}

if (($# > 0)); then
    step="options"
    echo "usage: scripts/test.sh" >&2
    exit 2
fi

headline "Packages"
require_debian
install_packages cmake ninja-build g++ pkg-config python3 qtbase5-dev qt5-image-formats-plugins \
    zlib1g-dev libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev libssl-dev clang \
    clang-format clang-tidy shellcheck

headline "Format"
find . -path ./build -prune -o -path './build-*' -prune -o -path './.*' -prune -o \
    -type f \( -name '*.h' -o -name '*.cpp' \) -print0 |
    xargs -0 clang-format --dry-run -Werror
echo "Nothing to change."

headline "Shell scripts"
shellcheck --external-sources --source-path=SCRIPTDIR scripts/*.sh scripts/lib/*.sh .ci/run
echo "No findings."

headline "Optimised build (preset dev)"
build dev

headline "clang-tidy"
scripts/check_tidy.sh

headline "Locks"
scripts/check_locks.sh

headline "Tests of the optimised build"
run_tests dev

headline "Benchmarks, once each"
run_benchmarks

headline "Sanitized build (preset asan)"
build asan

headline "Tests of the sanitized build"
export ASAN_OPTIONS=detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}
export UBSAN_OPTIONS=print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}
run_tests asan
