#!/usr/bin/env bash
# Kills ingests at random moments and checks that each cache recovers: after verify, repair and
# another ingest, a new process restores every byte from the disk.
#
#   scripts/kill_loop.sh [KILLS [SEED]]
#
# KILLS is 20 by default. SEED chooses the moments; what an ingest has reached by then still differs
# from run to run. The runs alternate between blocks of 256 KiB and of 8 MiB, and between writers
# with and without compression threads. Uses the tool of build/dev, or the one that ZEBTDX names.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tool=${ZEBTDX:-$root/build/dev/tools/zebtdx}
kills=${1:-20}
seed=${2:-$RANDOM}
sample_mib=16

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# One half is compressible, the other is not.
make_sample() {
    mkdir in
    head -c $((sample_mib / 2))M /dev/urandom >in/random
    head -c $((sample_mib / 4))M /dev/urandom | base64 | head -c $((sample_mib / 2))M >in/text
}

# set_line BLOCK_SIZE COMPRESSION_THREADS: sets the command line of an ingest.
set_line() {
    line=("$tool" ingest in --root r1 --root r2 --manifest m --replace --block "$1"
        --compression-threads "$2" --no-check --json)
}

# The number that a JSON object has for a key.
number() {
    sed -E "s/.*\"$1\":([0-9]+).*/\1/"
}

fail() {
    echo "Kill $1: $2" >&2
    exit 1
}

echo "Seed $seed"
RANDOM=$seed
make_sample
declare -A span=()
killed=0
early=0
damaged=0
truncated=0
affected=0
for ((i = 0; i < kills; ++i)); do
    block=256K
    workers=0
    ((i % 2 == 0)) || block=8M
    ((i / 2 % 2 == 0)) || workers=2
    set_line $block $workers
    rm -rf r1 r2 out aside m
    # How many milliseconds a complete ingest takes, so that the kills fall into that time.
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
    ((status == (count > 0 ? 1 : 0))) ||
        fail $i "verify reports $count damaged files and exits with $status"
    damaged=$((damaged + count))
    truncated=$((truncated + $(number truncated <<<"$found")))
    ((count == 0)) || affected=$((affected + 1))
    "$tool" repair --apply --quarantine aside --root r1 --root r2 >/dev/null 2>&1 ||
        fail $i "repair exits with $?"
    "${line[@]}" >/dev/null || fail $i "ingest exits with $?"
    "$tool" verify --root r1 --root r2 >/dev/null || fail $i "the last verify exits with $?"
    "$tool" restore m --out out >/dev/null || fail $i "restore exits with $?"
    diff -r in out/in || fail $i "the bytes differ"
done
echo "$killed killed, $early finished before the kill; $damaged damaged files in $affected caches," \
    "$truncated truncated files; every byte was restored each time"
