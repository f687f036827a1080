#!/bin/bash
# Runs each fuzz target of a QK_BUILD_FUZZ build for SECONDS seconds (60 by
# default) on a scratch copy of its seed corpus, with leak detection on, and
# prints one line per target with its executions. New inputs and crashing
# inputs land under BUILD/fuzz-work/<target>/, never in the committed corpus.
# Fails when any target crashed, hung, leaked or had a sanitizer report.
#
# Usage: tests/fuzz/run.sh BUILD [SECONDS]
set -uo pipefail

build=$(realpath "$1")
seconds=${2:-60}
corpora=$(cd "$(dirname "$0")" && pwd)/corpus
work=$build/fuzz-work
rm -rf "$work"
mkdir -p "$work"
# The targets' scratch directories: in memory where there is /dev/shm.
shm=/dev/shm
[[ -d $shm && -w $shm ]] || shm=${TMPDIR:-/tmp}
scratch=$(mktemp -d "$shm/qkfuzz-run.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

failed=0
for corpus in "$corpora"/*/; do
    target=$(basename "$corpus")
    mkdir -p "$work/$target/corpus"
    cp "$corpus"* "$work/$target/corpus/"
    log=$work/$target/log
    TMPDIR=$scratch ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 \
        UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=25 \
        -print_final_stats=1 -artifact_prefix="$work/$target/" "$work/$target/corpus" \
        >"$log" 2>&1
    status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    if [[ $status -ne 0 ]] ||
        grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$log"; then
        echo "fuzz $target: FAILED after ${runs:-?} executions (exit $status); log: $log"
        grep -m 3 -E 'ERROR:|runtime error:|check failed|Test unit written' "$log"
        failed=1
    else
        echo "fuzz $target: $runs executions in $seconds s"
    fi
done
exit $failed
