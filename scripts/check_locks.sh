#!/usr/bin/env bash
# Checks the locks of the library with Clang's thread-safety analysis: builds the preset
# thread-safety, in which each finding is an error, and then makes sure that this build refuses each
# mistake in tests/style/LockViolations.cpp.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
preset=thread-safety
build=build/$preset
violations=tests/style/LockViolations.cpp
jobs=${LOCKS_JOBS:-$(nproc)}

options=("-DCMAKE_CXX_COMPILER_LAUNCHER=$(command -v ccache || true)")
[ -e "$build/CMakeCache.txt" ] || options+=(-G Ninja)
cmake --preset "$preset" "${options[@]}" >/dev/null
cmake --build --preset "$preset" --parallel "$jobs"

# Compiles the mistake of that number with the options of the library's own sources.
compile() {
    python3 - "$build/compile_commands.json" "$violations" "$1" <<'EOF'
import json, shlex, subprocess, sys
database, source, number = sys.argv[1:]
entry = next(e for e in json.load(open(database)) if e["file"].endswith("/ZebTdxMutex.cpp"))
words = shlex.split(entry["command"])
compiler = next(i for i, word in enumerate(words) if "clang" in word)
options = words[compiler:words.index("-o")]
sys.exit(subprocess.run([*options, f"-DVIOLATION={number}", "-fsyntax-only", source]).returncode)
EOF
}

if ! compile 0; then
    echo "check_locks: $violations has a finding without any mistake" >&2
    exit 1
fi
last=$(grep -oE 'VIOLATION [!=]= [0-9]+' "$violations" | grep -oE '[0-9]+$' | sort -n | tail -n 1)
for number in $(seq 1 "$last"); do
    if output=$(compile "$number" 2>&1); then
        echo "check_locks: mistake $number in $violations was accepted" >&2
        exit 1
    fi
    if ! grep -q 'Werror,-Wthread-safety' <<<"$output"; then
        printf '%s\ncheck_locks: mistake %s failed for another reason\n' "$output" "$number" >&2
        exit 1
    fi
done
echo "check_locks: no finding in the library; all $last mistakes in $violations were refused."
