#!/usr/bin/env bash
# Builds and runs the benchmarks: a table on the screen, JSON in build/bench/results/. A benchmark that
# misses its budget says so, and the script ends with 1.
# ./bench.sh [FILTER]: only the benchmarks whose names match the regular expression.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-packages.sh build test bench
scripts/build.sh bench

results=build/bench/results
mkdir -p "$results"
status=0
for program in build/bench/bin/bench/*_bench; do
    name=$(basename "$program")
    echo "== $name"
    json=$results/$name.json
    # The program's own trace goes to a file, which tells why a benchmark has crashed.
    if ! "$program" --benchmark_filter="${1:-.}" --benchmark_counters_tabular=true \
        --benchmark_out_format=json --benchmark_out="$json" 2>"$results/$name.log"; then
        tail "$results/$name.log"
        status=1
    elif grep -q '"error_occurred": true' "$json"; then
        status=1
    fi
done
echo "JSON: $results/*.json"
exit "$status"
