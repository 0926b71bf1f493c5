#!/usr/bin/env bash
# Kills ingests at random moments and checks that the same command recovers, without any repair:
# whenever it exits with 0, a new process restores every byte from the disk.
#
#   scripts/kill_loop.sh [KILLS [SEED [LANES]]]
#
# KILLS is 20 by default. SEED chooses the moments; what an ingest has reached by then still differs
# from run to run. LANES loops run at once, 1 by default, each in a directory of its own. The runs
# alternate between small and large blocks, between writers with and without compression threads,
# between fresh caches and those that an earlier kill has left, and between two ways to choose the
# moment: by the clock, and by the number of a call that changes files, in the middle of a write
# among them. Uses the tool of build/dev, or the one that ZEBTDX names.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tool=${ZEBTDX:-$root/build/dev/tools/zebtdx}
killer=$root/build/dev/tests/faults/libZebTdxKillAtCall.so
kills=${1:-20}
seed=${2:-$RANDOM}
lanes=${3:-1}
sample_mib=4

[[ -f $killer ]] || {
    echo "$killer is missing; build the tests of the preset dev first." >&2
    exit 2
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One half is compressible, the other is not.
make_sample() {
    mkdir in
    head -c $((sample_mib / 2))M /dev/urandom >in/random
    head -c $((sample_mib / 4))M /dev/urandom | base64 | head -c $((sample_mib / 2))M >in/text
    for i in {1..20}; do
        head -c $((i * 500)) /dev/urandom >"in/small$i"
    done
}

# set_line BLOCK_SIZE COMPRESSION_THREADS: sets the command line of an ingest.
set_line() {
    line=("$tool" ingest in --root r1 --root r2 --manifest m --replace --block "$1"
        --compression-threads "$2" --json)
}

fail() {
    echo "Lane $1, kill $2: $3 (kept in $work/failed-$1)" >&2
    cp -a . "$work/failed-$1"
    trap - EXIT
    exit 1
}

# Microseconds and calls of a complete ingest, so that the kills fall among them.
measure() {
    rm -rf r1 r2 m m.* calls
    local begin
    begin=$(date +%s%N)
    ZEBTDX_KILL_COUNT=calls LD_PRELOAD=$killer "${line[@]}" >/dev/null
    span=$((($(date +%s%N) - begin) / 1000))
    calls=$(tail -n 1 calls)
    rm -rf r1 r2 m m.*
}

# Starts the ingest and kills it by the clock.
kill_at_time() {
    local delay=$(((RANDOM * 32768 + RANDOM) % (span + 1)))
    "${line[@]}" >/dev/null 2>&1 &
    local child=$!
    sleep "$(printf '%d.%06d' $((delay / 1000000)) $((delay % 1000000)))"
    kill -9 "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null
}

# Starts the ingest, which is killed at one of its calls.
kill_at_call() {
    ZEBTDX_KILL_AT=$(((RANDOM * 32768 + RANDOM) % calls + 1)) LD_PRELOAD=$killer \
        "${line[@]}" >/dev/null 2>&1 &
    wait $! 2>/dev/null
}

# run_lane NUMBER KILLS
run_lane() {
    mkdir "$work/lane$1"
    cd "$work/lane$1"
    RANDOM=$((seed + $1))
    make_sample
    local -A spans=() counts=()
    local killed=0 early=0 refused=0 status block workers span calls
    for ((i = 0; i < $2; ++i)); do
        block=64K
        workers=0
        ((i % 2 == 0)) || block=1M
        ((i / 2 % 2 == 0)) || workers=2
        set_line $block $workers
        if [[ -z ${spans[$block$workers]:-} ]]; then
            measure
            spans[$block$workers]=$span
            counts[$block$workers]=$calls
        fi
        span=${spans[$block$workers]}
        calls=${counts[$block$workers]}
        # Every fifth ingest finds the cache and the manifest of the run before.
        ((i % 5 == 4)) || rm -rf r1 r2 m m.*
        status=0
        if ((i / 4 % 2 == 0)); then
            kill_at_call || status=$?
        else
            kill_at_time || status=$?
        fi
        # 137 stands for the signal.
        if ((status == 137)); then
            killed=$((killed + 1))
        else
            early=$((early + 1))
        fi

        status=0
        "${line[@]}" >out.json 2>err.txt || status=$?
        if ((status != 0)); then
            # An error does not promise bytes that are lost, but none is expected.
            refused=$((refused + 1))
            echo "Lane $1, kill $i: the same command exits with $status: $(head -c 300 err.txt)" >&2
            rm -rf r1 r2 m m.*
            continue
        fi
        rm -rf out
        "$tool" restore m --out out >/dev/null 2>err.txt || fail "$1" $i "restore exits with $?"
        diff -r in out/in >/dev/null || fail "$1" $i "the bytes differ"
    done
    echo "$killed $early $refused" >"$work/result$1"
}

echo "Seed $seed"
children=()
for ((lane = 1; lane <= lanes; ++lane)); do
    run_lane $lane $(((kills + lanes - lane) / lanes)) &
    children+=($!)
done
failed=0
for child in "${children[@]}"; do
    wait "$child" || failed=1
done
((failed == 0)) || {
    trap - EXIT
    exit 1
}
cat "$work"/result* | awk '{k += $1; e += $2; r += $3} END {
    print k " killed, " e " finished before the kill, " r " refused by the same command;" \
        " after every other one each byte was restored"
    if (k == 0)
        print "No ingest was killed, so nothing is shown." >"/dev/stderr"
    exit r > 0 || k == 0 }'
