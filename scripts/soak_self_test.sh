#!/usr/bin/env bash
# Tests scripts/soak.sh against small programs of its own: arguments, the time limit, exit status.
set -euo pipefail

soak=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/soak.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mistakes=0

# make_program NAME COMMAND: a "built" test program and its source.
make_program() {
    touch "$work/tests/data/$1.cpp"
    printf '#!/bin/sh\n%s\n' "$2" >"$work/build/dev/tests/$1"
    chmod +x "$work/build/dev/tests/$1"
}

# expect STATUS TEXT ARGUMENT...: runs the script and checks its exit status and its output.
expect() {
    local expected=$1 text=$2 status=0 output
    shift 2
    output=$("$work/scripts/soak.sh" "$@" 2>&1) || status=$?
    if ((status != expected)) || [[ $output != *"$text"* ]]; then
        echo "soak.sh $*: expected status $expected and \"$text\", got status $status and:" >&2
        echo "$output" >&2
        mistakes=$((mistakes + 1))
    fi
}

mkdir -p "$work/scripts" "$work/tests/data" "$work/build/dev/tests"
cp "$soak" "$work/scripts/soak.sh"
make_program PassingStressTest 'exit 0'
make_program FailingStressTest 'echo the reason; exit 3'
make_program SleepingStressTest 'sleep 60'
make_program ListedHeavyTest 'printf "Rows.\n  First\n  Second  # comment\n"; exit 0'
printf 'TEST(Slow, DISABLED_Run)\n{}\nTEST_F(Slow,\n       DISABLED_Wrapped)\n{}\n' \
    >"$work/tests/data/SlowTest.cpp"

expect 2 'unknown argument: --often' --often
expect 2 '--minutes requires a value' --minutes
expect 2 '--minutes: not a number: ten' --minutes ten
expect 2 '--minutes: must be more than 0' --minutes 0
expect 2 '--seed: not a number: -1' --seed -1
expect 2 '--seed: must be from 1 to 99999' --seed 100000
expect 2 'nothing has a name with: absent' --only absent
expect 2 'SlowTest' --only Slow.
expect 2 'build/asan/tests/PassingStressTest' --asan --only Passing
expect 0 'stress:PassingStressTest' --list
expect 0 'disabled:Slow.DISABLED_Run' --list
expect 0 'disabled:Slow.DISABLED_Wrapped' --list
expect 0 'heavy:Rows.Second' --list
expect 1 'FAILED with status 3' --only Failing --minutes 1
expect 1 'the reason' --only Failing --minutes 1 --seed 7
expect 1 'failed with seed 7 8 9' --only Failing --minutes 1 --seed 7
expect 0 'cut off' --only Sleeping --minutes 0.1
expect 0 'seeds 5 to' --only Passing --minutes 0.1 --seed 5
expect 0 'heavy:Rows.First' --only heavy
expect 1 'passed' --only Failing --only Passing --minutes 0.1

((mistakes == 0)) || exit 1
echo "soak.sh behaves as expected."
