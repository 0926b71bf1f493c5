#!/usr/bin/env bash
# Runs the tests that take too long for every change, for a given number of minutes:
#
#   stress:PROGRAM       a program of threads that race, shuffled
#   reads                ReadStress: threads that read without a lock, two minutes at a time
#   reads-delayed        the same, with delays in the middle of operations
#   kill-loop            scripts/kill_loop.sh: ingests killed at random moments
#   disabled:TEST        a test that is off by default since it takes a minute or more
#   heavy:TEST           a test with the label "heavy": minutes and gigabytes, at most once
#
#   scripts/soak.sh [--minutes N] [--only NAME]... [--seed N] [--asan] [--list]
#
#   --minutes N   stop after that many minutes, 60 when not given; fractions are fine
#   --only NAME   run only what has NAME in its name; may be given several times
#   --seed N      the first seed, to repeat a run
#   --asan        use the programs of build/asan instead of build/dev
#   --list        print the names and end
#
# Runs everything once, then everything but the heavy tests again until the time is over. Needs the
# programs built; works from any directory. Exit status: 0 when all passed, 1 when anything failed,
# 2 when nothing could be run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=dev
minutes=60
seed=$((RANDOM + 1))
only=()
list=false

# A run that takes longer than this hangs.
run_limit_s=1800
kills_per_run=5
reads_run_s=120
# An entry that has failed this often is not run again.
most_failures=3
# What GoogleTest accepts as a seed: from 1 on.
largest_seed=99999

fail_usage() {
    echo "scripts/soak.sh: $1" >&2
    echo "usage: scripts/soak.sh [--minutes N] [--only NAME]... [--seed N] [--asan] [--list]" >&2
    exit 2
}

parse_arguments() {
    while (($# > 0)); do
        case $1 in
        --minutes | --only | --seed)
            (($# > 1)) || fail_usage "$1 requires a value"
            case $1 in
            --minutes) minutes=$2 ;;
            --only) only+=("$2") ;;
            --seed) seed=$2 ;;
            esac
            shift 2
            ;;
        --asan)
            preset=asan
            shift
            ;;
        --list)
            list=true
            shift
            ;;
        *) fail_usage "unknown argument: $1" ;;
        esac
    done
    [[ $minutes =~ ^[0-9]{1,6}(\.[0-9]+)?$ ]] || fail_usage "--minutes: not a number: $minutes"
    bound_s=$(awk -v minutes="$minutes" 'BEGIN { printf "%d", minutes * 60 + 0.5 }')
    ((bound_s > 0)) || fail_usage "--minutes: must be more than 0"
    [[ $seed =~ ^[0-9]{1,9}$ ]] || fail_usage "--seed: not a number: $seed"
    seed=$((10#$seed))
    ((seed >= 1 && seed <= largest_seed)) ||
        fail_usage "--seed: must be from 1 to $largest_seed"
}

# Whether --only selects this name.
selected() {
    local part
    ((${#only[@]} > 0)) || return 0
    for part in "${only[@]}"; do
        [[ $1 != *"$part"* ]] || return 0
    done
    return 1
}

# add NAME PROGRAM [FILTER]: one entry of the list of what to run.
add() {
    if selected "$1"; then
        names+=("$1")
        program[$1]=$2
        filter[$1]=${3:-}
    fi
}

# The built program of a source file below tests/.
program_of() {
    local name
    name=$(basename "$1" .cpp)
    case $1 in
    */tests/tools/*) echo "$build/tests/tools/$name" ;;
    */tests/reads/*) echo "$build/tests/reads/$name" ;;
    *) echo "$build/tests/$name" ;;
    esac
}

# The tests of a program as SUITE.TEST, one a line.
tests_of() {
    "$1" --gtest_list_tests | awk '
        /^[^ ].*\./ { suite = $1 }
        /^  /       { print suite $1 }'
}

# The disabled tests of a source file as SUITE.TEST, one a line.
disabled_tests_of() {
    tr '\n' ' ' <"$1" | grep -oE 'TEST(_F|_P)?\( *\w+, *DISABLED_\w+' |
        sed -E 's/.*\( *(\w+), *(\w+)/\1.\2/'
}

find_work() {
    local source test
    names=()
    declare -gA program=() filter=()
    while IFS= read -r source; do
        add "stress:$(basename "$source" .cpp)" "$(program_of "$source")"
    done < <(find "$root/tests" -name '*StressTest.cpp' | LC_ALL=C sort)
    if [[ -e $root/tests/reads/ReadStress.cpp ]]; then
        add reads "$build/tests/reads/ReadStress"
        add reads-delayed "$build/tests/reads/PointedReadStress"
    fi
    add kill-loop "$root/scripts/kill_loop.sh"
    while IFS= read -r source; do
        while IFS= read -r test; do
            add "disabled:$test" "$(program_of "$source")" "$test"
        done < <(disabled_tests_of "$source")
    done < <(grep -rl --include='*Test.cpp' DISABLED_ "$root/tests" | LC_ALL=C sort)
    while IFS= read -r source; do
        if ! [[ -x $(program_of "$source") ]]; then
            # Only the program can list its tests.
            add "heavy:$(basename "$source" .cpp)" "$(program_of "$source")"
            continue
        fi
        while IFS= read -r test; do
            add "heavy:$test" "$(program_of "$source")" "$test"
        done < <(tests_of "$(program_of "$source")")
    done < <(find "$root/tests" -name '*HeavyTest.cpp' | LC_ALL=C sort)
}

# Fails early when a program is missing, so that no hour passes without it.
require_programs() {
    local name missing=()
    for name in "${names[@]}"; do
        [[ -x ${program[$name]} ]] || missing+=("${program[$name]}")
    done
    if ((${#missing[@]} > 0)); then
        printf 'Not built: %s\n' "${missing[@]}" >&2
        echo "Build the preset first: cmake --preset $preset && cmake --build --preset $preset" >&2
        exit 2
    fi
}

seconds_left() {
    echo $((begin_s + bound_s - SECONDS))
}

# Sets the command line of one run.
set_line() {
    local name=$1 run_seed=$2
    case $name in
    kill-loop)
        line=("${program[$name]}" "$kills_per_run" "$run_seed")
        ;;
    reads)
        line=("${program[$name]}" --seconds "$reads_run_s" --seed "$run_seed")
        ;;
    reads-delayed)
        line=("${program[$name]}" --seconds "$reads_run_s" --seed "$run_seed" --round-ms 20
            --yields 50)
        ;;
    stress:*)
        line=("${program[$name]}" --gtest_shuffle --gtest_random_seed="$run_seed")
        ;;
    *)
        line=("${program[$name]}" --gtest_also_run_disabled_tests --gtest_shuffle
            --gtest_random_seed="$run_seed" --gtest_filter="*${filter[$name]}*")
        ;;
    esac
}

# Runs one entry once. Returns 1 when the time is over.
run_once() {
    local name=$1 left limit start took status=0 log
    left=$(seconds_left)
    ((left > 0)) || return 1
    limit=$((left < run_limit_s ? left : run_limit_s))
    log=$logs/${name//[^A-Za-z0-9._-]/_}.$seed.log
    set_line "$name" "$seed"
    printf '%-*s  seed %5d  ' "$width" "$name" "$seed"
    start=$SECONDS
    # In the background, so that a signal is handled at once.
    timeout --kill-after=10 "$limit" "${line[@]}" >"$log" 2>&1 &
    child=$!
    wait "$child" || status=$?
    child=
    took=$((SECONDS - start))
    spent[$name]=$((${spent[$name]:-0} + took))
    seed=$((seed % largest_seed + 1))
    if ((status == 124 || status == 137)) && ((limit < run_limit_s && took >= limit)); then
        echo "cut off after $took s: the time is over"
        cut[$name]=1
        rm -f "$log"
        return 1
    fi
    runs[$name]=$((${runs[$name]:-0} + 1))
    # GoogleTest succeeds when its filter selects no test.
    if ((status == 0)) && grep -q '^\[  PASSED  \] 0 tests' "$log"; then
        status=1
        echo "no test has the name $name" >>"$log"
    fi
    if ((status == 0)); then
        echo "passed, $took s"
        rm -f "$log"
        return 0
    fi
    echo "FAILED with status $status, $took s"
    failed[$name]=$((${failed[$name]:-0} + 1))
    failed_seeds[$name]+="${failed_seeds[$name]:+ }$((seed == 1 ? largest_seed : seed - 1))"
    tail -n 40 "$log" >&2
    echo "All of its output: $log" >&2
}

run_everything() {
    local name again=true
    for name in "${names[@]}"; do
        run_once "$name" || return 0
    done
    while "$again"; do
        again=false
        for name in "${names[@]}"; do
            [[ $name != heavy:* ]] || continue
            ((${failed[$name]:-0} < most_failures)) || continue
            run_once "$name" || return 0
            again=true
        done
    done
}

print_summary() {
    local name note
    printf '\n%-*s  Runs  Failed  Seconds\n' "$width" What
    for name in "${names[@]}"; do
        note=""
        if [[ -n ${failed_seeds[$name]:-} ]]; then
            note="  failed with seed ${failed_seeds[$name]}"
        elif [[ -n ${cut[$name]:-} ]]; then
            note="  the last run was cut off"
        elif ((${runs[$name]:-0} == 0)); then
            note="  not run: no time was left"
        fi
        printf '%-*s  %4d  %6d  %7d%s\n' "$width" "$name" "${runs[$name]:-0}" "${failed[$name]:-0}" \
            "${spent[$name]:-0}" "$note"
    done
    printf 'Preset %s, seeds %d to %d, %d s of %d s.\n' "$preset" "$first_seed" \
        "$((seed == 1 ? largest_seed : seed - 1))" "$((SECONDS - begin_s))" "$bound_s"
}

interrupted() {
    trap - INT TERM
    [[ -z ${child:-} ]] || kill "$child" 2>/dev/null || true
    echo "interrupted"
    print_summary
    exit 1
}

parse_arguments "$@"
build=$root/build/$preset
find_work
if ((${#names[@]} == 0)); then
    fail_usage "nothing has a name with: ${only[*]}"
fi
if "$list"; then
    printf '%s\n' "${names[@]}"
    exit 0
fi
require_programs
logs=$build/soak
mkdir -p "$logs"
cd "$logs"
export ZEBTDX=$build/tools/zebtdx
export ASAN_OPTIONS=detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}
export UBSAN_OPTIONS=print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}

declare -A runs=() failed=() failed_seeds=() spent=() cut=()
first_seed=$seed
width=0
for name in "${names[@]}"; do
    width=$((${#name} > width ? ${#name} : width))
done
begin_s=$SECONDS
trap interrupted INT TERM
run_everything
print_summary
((${#failed[@]} == 0))
