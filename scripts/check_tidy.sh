#!/usr/bin/env bash
# Runs clang-tidy over the sources of the library and the tool; every warning is an error.
# Configures the preset dev if needed, since clang-tidy reads that preset's compile commands.
#
#   scripts/check_tidy.sh             all of them
#   scripts/check_tidy.sh io tools    these folders or files
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build=build/dev
jobs=${TIDY_JOBS:-$(nproc)}

# CMake writes new compile commands whenever a list of sources is newer than the old ones.
if [ ! -e "$build/compile_commands.json" ]; then
    cmake --preset dev -G Ninja >/dev/null
fi

wanted=("$@")
[ "${#wanted[@]}" -gt 0 ] || wanted=(support hash data io manager selfcheck tools)

# Prints the sources of the wanted folders that the build compiles, largest first, so that the
# processors end at about the same time.
compiled_sources() {
    python3 - "$root" "$build/compile_commands.json" "$@" <<'EOF'
import json, os, sys
root, database, *wanted = sys.argv[1:]
wanted = [os.path.normpath(os.path.relpath(path, root)) for path in wanted]
sources = {os.path.relpath(entry["file"], root) for entry in json.load(open(database))}
for path in wanted:
    found = {source for source in sources if (source + "/").startswith(path + "/")}
    if not found:
        sys.exit(f"{path}: no compiled source there; configure {os.path.dirname(database)} again?")
chosen = [s for s in sources if any((s + "/").startswith(w + "/") for w in wanted)]
for source in sorted((s for s in chosen if os.path.exists(s)), key=os.path.getsize, reverse=True):
    print(source)
EOF
}

sources=$(compiled_sources "${wanted[@]}")
count=$(wc -l <<<"$sources")
begin=$SECONDS

# On its error stream clang-tidy also counts the warnings of other projects' headers.
noise='^[0-9]+ warnings? (and [0-9]+ errors? )?(generated|treated as errors?)\.?$'
if ! xargs -P "$jobs" -n 1 -d '\n' clang-tidy -p "$build" --quiet --warnings-as-errors='*' \
    <<<"$sources" 2> >(grep -vE "$noise" >&2); then
    echo "clang-tidy: findings in ${wanted[*]}; .clang-tidy lists the checks" >&2
    exit 1
fi
echo "clang-tidy: $count sources without a finding, $((SECONDS - begin)) s."
