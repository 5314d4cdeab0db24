# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_build $to_sanitise
minutes=${FUZZ_MINUTES:-1}
targets=$(ls fuzz/corpus)
build fuzz --target $(printf 'fuzz_%s ' $targets) >&2
# Exhausted memory is an outcome, and libFuzzer has an operator new of its own.
export ASAN_OPTIONS=allocator_may_return_null=1:alloc_dealloc_mismatch=0
runs=0
for target in $targets; do
    work=build/fuzz/found/$target
    mkdir -p "$work/corpus"
    cp fuzz/corpus/"$target"/* "$work/corpus"
    if ! "build/fuzz/fuzz/fuzz_$target" "$work/corpus" -max_total_time=$((60 * minutes)) \
        -rss_limit_mb=2048 -timeout=20 -print_final_stats=1 -artifact_prefix="$work/" \
        >"$work/log" 2>&1; then
        grep -E 'by the model|SUMMARY|Test unit written' "$work/log" || tail -n 20 "$work/log"
        found=$(sed -n 's/.*Test unit written to //p' "$work/log")
        echo "Replay:  build/fuzz/fuzz/fuzz_$target $found"
        echo "Keep it: copy that file to fuzz/corpus/$target/"
        exit 1
    fi
    runs=$((runs + $(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log")))
done
echo "$(echo "$targets" | wc -l) targets, $minutes min each," \
    "$(echo $runs | sed -E ':a; s/([0-9])([0-9]{3})($| )/\1 \2\3/; ta') runs, no finding"
