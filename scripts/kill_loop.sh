#!/usr/bin/env bash
# Kills ingests at random moments and shows that each cache heals: after verify, repair and another
# ingest, every byte comes back right from the disk in a process of its own.
#
#   scripts/kill_loop.sh [KILLS]    20 when not given
#
# Blocks of 256 KiB and of 8 MiB take turns, and so do writers that compress by themselves and
# writers with workers. Takes the tool of build/dev, or the one that ZEBTDX names.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tool=${ZEBTDX:-$root/build/dev/tools/zebtdx}
kills=${1:-20}
sample_mib=16

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# Half of it can be compressed, half of it cannot.
make_sample() {
    mkdir in
    head -c $((sample_mib / 2))M /dev/urandom >in/random
    head -c $((sample_mib / 4))M /dev/urandom | base64 | head -c $((sample_mib / 2))M >in/text
}

# Sets the command line of an ingest with this size of blocks and so many workers.
set_line() {
    line=("$tool" ingest in --root r1 --root r2 --manifest m --replace --block "$1"
        --compression-threads "$2" --no-check --json)
}

# The number behind a key of a JSON object.
number() {
    sed -E "s/.*\"$1\":([0-9]+).*/\1/"
}

fail() {
    echo "Kill $1: $2" >&2
    exit 1
}

make_sample
declare -A span=()
killed=0
early=0
damaged=0
stumps=0
hurt=0
for ((i = 0; i < kills; ++i)); do
    block=256K
    workers=0
    ((i % 2 == 0)) || block=8M
    ((i / 2 % 2 == 0)) || workers=2
    set_line $block $workers
    rm -rf r1 r2 out aside m
    # Milliseconds that a whole ingest takes, so that the kills fall into its time.
    if [[ -z ${span[$block$workers]:-} ]]; then
        begin=$(date +%s%N)
        "${line[@]}" >/dev/null
        span[$block$workers]=$((($(date +%s%N) - begin) / 1000000))
        rm -rf r1 r2 m
    fi
    delay=$((RANDOM * span[$block$workers] / 32768))
    "${line[@]}" >/dev/null 2>&1 &
    child=$!
    sleep "$(printf '%d.%03d' $((delay / 1000)) $((delay % 1000)))"
    if kill -9 "$child" 2>/dev/null; then
        killed=$((killed + 1))
    else
        early=$((early + 1))
    fi
    wait "$child" 2>/dev/null || true
    mkdir -p r1 r2

    status=0
    found=$("$tool" verify --root r1 --root r2 --json 2>/dev/null) || status=$?
    count=$(number damaged <<<"$found")
    ((status == (count > 0 ? 1 : 0))) || fail $i "verify says $count and ends with $status"
    damaged=$((damaged + count))
    stumps=$((stumps + $(number stumps <<<"$found")))
    ((count == 0)) || hurt=$((hurt + 1))
    "$tool" repair --apply --quarantine aside --root r1 --root r2 >/dev/null 2>&1 ||
        fail $i "repair ends with $?"
    "${line[@]}" >/dev/null || fail $i "ingest ends with $?"
    "$tool" verify --root r1 --root r2 >/dev/null || fail $i "verify ends with $? at last"
    "$tool" restore m --out out >/dev/null || fail $i "restore ends with $?"
    diff -r in out/in || fail $i "the bytes differ"
done
echo "$killed killed, $early that had ended before; $hurt caches with $damaged damaged files, and" \
    "$stumps stumps; every byte came back right after each"
