#!/usr/bin/env bash
# Checks the protocol of lock-free reads with the model checker Spin: every order of the steps of
# its threads in some small configurations, and mutants, each of which must fail.
#
#     scripts/check_model.sh            all of it, some minutes
#     scripts/check_model.sh NAME...    only the configurations and mutants of these names
#
# Needs spin and gcc, and up to 4 GB of memory. Exit status: 0 as expected, 1 not, 2 no Spin.
set -euo pipefail

model=$(cd "$(dirname "$0")/.." && pwd)/tests/model/reads.pml
command -v spin > /dev/null || { echo "check_model.sh: Spin is not installed" >&2; exit 2; }
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
wanted=" $* "
failures=0

# check NAME EXPECTED THREADS DEFINITION...: EXPECTED is "holds" or "fails".
check() {
    local name=$1 expected=$2 threads=$3
    shift 3
    [[ $wanted == "  " || $wanted == *" $name "* ]] || return 0
    local begin=$SECONDS found=holds
    gcc -E -P -x c "${@/#/-D}" "-DRUN_THREADS=$threads" "$model" > "$folder/model.pml"
    (cd "$folder" && spin -a model.pml > spin.log) || { cat "$folder/spin.log"; exit 1; }
    gcc -O1 -w -DSAFETY -DCOLLAPSE -DMEMLIM=4000 -DVECTORSZ=2048 -o "$folder/pan" "$folder/pan.c"
    (cd "$folder" && ./pan -m400000 -w22 > pan.log)
    grep -q "errors: 0" "$folder/pan.log" || found=fails
    # A search that ran out of memory or depth proves nothing.
    if [[ $found == holds ]] && grep -Eq "out of memory|Search not completed|max search depth too" \
        "$folder/pan.log"; then
        found=incomplete
    fi
    printf '%-24s %-10s %12s states %4d s\n' "$name" "$found" \
        "$(awk '/states, stored/ { print $1 }' "$folder/pan.log")" $((SECONDS - begin))
    if [[ $found != "$expected" ]]; then
        echo "  expected: $expected"
        grep -E "assertion violated|invalid end state" "$folder/pan.log" || true
        failures=$((failures + 1))
    fi
}

# Two readers that open, close and query one block, next to eviction.
pin="run user(0, 1, 0); run user(0, 1, 0); run evictor(1)"
pinning=(HASHES=1 REFERENCES_OF_EACH=2 WITH_OPEN WITH_USE)
# Two blocks in use, next to eviction: the order.
order="run closer(); run user(1, 1, 0); run evictor(1)"
ordering=(HASHES=2 REFERENCES_OF_EACH=2 PINNED_ASIDE WITH_USE)
# A reader of two blocks, next to eviction.
two="run user(0, 2, 1); run evictor(1)"
querying=(HASHES=2 REFERENCES_OF_EACH=2 WITH_USE)
opening=(HASHES=2 REFERENCES_OF_EACH=2 WITH_OPEN)
# The last two references to a block, next to eviction.
end="run user(0, 0, 0); run user(0, 0, 0); run evictor(1)"
ending=(HASHES=1 REFERENCES_OF_EACH=2 WITH_USE WITH_RELEASE)
# A query and the last release after it, next to eviction.
use="run user(0, 1, 0); run evictor(1)"
using=(HASHES=1 REFERENCES_OF_EACH=1 WITH_USE WITH_RELEASE)
# A look-up that may admit the block again, next to the last release and eviction.
find="run user(0, 0, 0); run finder(1); run evictor(1)"
finding=(HASHES=1 REFERENCES_OF_EACH=1 WITH_USE WITH_RELEASE)
# A copy of the bytes, next to eviction.
copy="run user(0, 1, 0); run evictor(1)"
copying=(HASHES=1 REFERENCES_OF_EACH=2 WITH_COPY)
# A reader next to a thread that closes the gate and frees the block or sets the host's flag.
lock="run user(0, 1, 0); run locker(1)"
locking=(HASHES=1 REFERENCES_OF_EACH=2 WITH_OPEN)
flag="run user(0, 1, 0); run locker(0)"
# A reader next to a host that holds the hash, and eviction.
hold="run user(0, 1, 0); run holder(); run evictor(1)"
holding=(HASHES=1 REFERENCES_OF_EACH=3 WITH_OPEN)

check pinning holds "$pin" "${pinning[@]}"
check order holds "$order" "${ordering[@]}"
check query holds "$two" "${querying[@]}"
check open holds "$two" "${opening[@]}"
check end holds "$end" "${ending[@]}"
check use holds "$use" "${using[@]}"
check find holds "$find" "${finding[@]}"
check copy holds "$copy" "${copying[@]}"
check lock holds "$lock" "${locking[@]}"
check flag holds "$flag" "${locking[@]}"
check hold holds "$hold" "${holding[@]}"

mutant() { check "$1" fails "$2" "${@:3}" "$1=1"; }
mutant NO_LOOK_AT_GATE "$lock" "${locking[@]}"
mutant NO_WAIT_FOR_SLOTS "$lock" "${locking[@]}"
mutant CLOSE_IGNORES_FLAG "$flag" "${locking[@]}"
mutant NO_WAIT_FOR_COPIES "$copy" "${copying[@]}"
mutant OPEN_IGNORES_RESIDENT "$pin" "${pinning[@]}"
mutant OPEN_IGNORES_LOCKED "$pin" "${pinning[@]}"
mutant EVICT_IGNORES_USED "$two" "${querying[@]}"
mutant FREE_WITHOUT_DRAIN "$use" "${using[@]}"
mutant LINK_READ_LATE "$two" "${querying[@]}"
mutant STAMP_READ_EARLY "$two" "${querying[@]}"
mutant NO_STAMP "$two" "${opening[@]}"
mutant NO_EXCHANGE_OF_USED "$two" "${querying[@]}"
mutant NO_DRAIN_TIME "$order" "${ordering[@]}"
mutant EMPTY_WITH_OPEN_GATE "$pin" "${pinning[@]}"
mutant NO_REGISTRY_FOR_LAST "$find" "${finding[@]}"
mutant END_WITHOUT_MUTEX "$end" "${ending[@]}"

[[ $failures == 0 ]] || { echo "$failures not as expected"; exit 1; }
