#!/usr/bin/env bash
# Builds and runs the benchmarks: a table on the screen, JSON in build/bench/results/. A benchmark that
# misses its budget says so, and the script ends with 1.
# ./bench.sh [FILTER]: only the benchmarks whose names match the regular expression.
# ./bench.sh --report: all of them, and docs/performance.md is made of the results.
set -euo pipefail
cd "$(dirname "$0")"

report=false
if [ "${1:-}" = --report ]; then
    report=true
    shift
fi

scripts/install-packages.sh build test bench
scripts/build.sh bench

results=build/bench/results
rm -rf "$results"
mkdir -p "$results"
{
    echo "- Machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) processors," \
        "$(awk '/MemTotal/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo) GiB, Linux $(uname -r)"
    echo "- Compiler: $(c++ --version | head -1)"
    echo "- Version: $(git rev-parse --short HEAD 2>/dev/null || echo unknown), $(date -u '+%Y-%m-%d %H:%M') UTC"
    echo "- Load when it began: $(cut -d' ' -f1-3 /proc/loadavg)"
} >"$results/machine.txt"

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

# profile NAME PROGRAM FILTER: where the processor's time goes; nothing where the kernel forbids it.
profile() {
    if perf record --quiet -F 2000 -o "$results/perf.data" "build/bench/bin/bench/$2" \
        --benchmark_filter="$3" >"$results/perf.log" 2>&1; then
        perf report -i "$results/perf.data" --stdio --no-children -F overhead,sym 2>/dev/null |
            grep '%' >"$results/$1.profile" || true
    else
        echo "no profile of $1: $(tail -1 "$results/perf.log")"
    fi
    rm -f "$results/perf.data"
}
if $report; then
    profile USB-road burn_bench 'burnOfDevices/devices:16/'
    profile serial-road uart_bench 'downloadAtLinePace/ports:16/'
    scripts/performance-report "$results" docs/performance.md
    echo "report: docs/performance.md"
fi
echo "JSON: $results/*.json"
exit "$status"
