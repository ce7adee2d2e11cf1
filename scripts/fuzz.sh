#!/usr/bin/env bash
# Looks for inputs that break something: fuzz.sh [--keep] [SECONDS [TARGET...]]. Builds the fuzz preset
# and runs every target, or those named, for SECONDS each (60), two at a time. Prints for each how often
# it ran, its coverage, what it found; ends with 1 if something was found.
#
# What a run leaves lies in build/fuzz: corpus-TARGET (the inputs that reached something new, which the
# next run begins with), findings-TARGET, TARGET.log. With --keep the new inputs are merged into the
# corpus in the repository, so far as they reach what that does not.
set -euo pipefail
cd "$(dirname "$0")/.."

keep=false
if [ "${1:-}" = --keep ]; then
    keep=true
    shift
fi
seconds=${1:-60}
shift || true
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: fuzz.sh [--keep] [SECONDS [TARGET...]]" >&2; exit 2; }
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
    for source in tests/fuzz/*_fuzzer.cpp; do
        targets+=("$(basename "$source" _fuzzer.cpp)")
    done
fi
work=$PWD/build/fuzz

scripts/install-packages.sh build test lint
scripts/build.sh fuzz "${targets[@]/%/_fuzzer}"

# Fuzzers write a file or two for each input: in memory, where there is a place for that.
TMPDIR=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")")
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT

# A target's run ends at its first finding.
fuzz() {
    local target=$1
    mkdir -p "$work/corpus-$target" "$work/findings-$target"
    "$work/bin/${target}_fuzzer" -max_total_time="$seconds" -timeout=20 -print_final_stats=1 \
        -artifact_prefix="$work/findings-$target/" "$work/corpus-$target" \
        "tests/fuzz/${target}_corpus" >"$work/$target.log" 2>&1 ||
        echo "ended with $?" >>"$work/$target.log"
}

# The last number behind a word of the log.
number() { grep -oE "$2 [0-9]+" "$work/$1.log" | tail -1 | grep -oE '[0-9]+$' || echo 0; }

for target in "${targets[@]}"; do
    rm -rf "$work/findings-$target"
    while [ "$(jobs -rp | wc -l)" -ge 2 ]; do
        wait -n
    done
    fuzz "$target" &
done
wait

found=0
printf '%-16s %12s %9s %9s %9s\n' target runs coverage features findings
for target in "${targets[@]}"; do
    findings=$(find "$work/findings-$target" -type f | wc -l)
    # A target that could not run to its end counts, even if it left no file.
    [ "$findings" -gt 0 ] || ! grep -q '^ended with' "$work/$target.log" || findings=1
    [ "$findings" -eq 0 ] || found=1
    printf '%-16s %12s %9s %9s %9s\n' "$target" "$(number "$target" stat::number_of_executed_units:)" \
        "$(number "$target" cov:)" "$(number "$target" ft:)" "$findings"
    if [ "$findings" -gt 0 ]; then
        grep -E '^(broken: |ERROR: |SUMMARY: )|==ERROR: |runtime error' "$work/$target.log" | head -3 || true
        find "$work/findings-$target" -type f
    elif $keep; then
        "$work/bin/${target}_fuzzer" -merge=1 "tests/fuzz/${target}_corpus" "$work/corpus-$target" \
            >"$work/$target-merge.log" 2>&1
    fi
done
exit "$found"
