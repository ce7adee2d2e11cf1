#!/usr/bin/env bash
# What the report on speed makes of the benchmarks' results: performance_test.sh REPORT_SCRIPT
set -euo pipefail

script=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "$1" >&2
    cat "$work/performance.md" >&2
    exit 1
}

mkdir "$work/results"
if "$script" "$work/results" "$work/performance.md" --no-pictures 2>/dev/null; then
    fail "a report of no results"
fi

echo "- Machine: one of the test" >"$work/results/machine.txt"
cat >"$work/results/burn_bench.json" <<'EOF'
{"benchmarks": [
 {"name": "a", "run_name": "burnOfOneDevice/bytes:65536/iterations:15/manual_time", "run_type": "iteration",
  "iterations": 15, "real_time": 11.4567, "cpu_time": 0.5, "time_unit": "ms", "ratio": 1.0349, "bare_ms": 1234.5},
 {"name": "a", "run_name": "burnOfOneDevice/bytes:8388608/iterations:15/manual_time", "run_type": "iteration",
  "iterations": 15, "real_time": 0.0, "cpu_time": 0.0, "time_unit": "ms",
  "error_occurred": true, "error_message": "over budget"},
 {"name": "load/20", "run_name": "load/20", "iterations": 6, "real_time": 123.456, "cpu_time": 1,
  "time_unit": "ms", "bytes_per_row": 0.00001234}]}
EOF
cat >"$work/results/USB-road.profile" <<'EOF'
    60.00%  [.] simulator::UsbConnection::pump
    20.50%  [k] copy
    10.00%  [.] crc64(unsigned long)
     5.25%  [k] clear
EOF
"$script" "$work/results" "$work/performance.md" --no-pictures
for line in \
    '- Machine: one of the test' \
    '| bytes | time | bare_ms | ratio |' \
    '| 64 KiB | 11.5 ms | 1234 | 1.03 |' \
    '| 8 MiB | **over budget** |  |  |' \
    '| size | time | bytes_per_row |' \
    '| 20 | 123 ms | 1.23e-05 |' \
    'Sixteen devices, USB road:' \
    '| the virtual devices | 60 % | `simulator::UsbConnection::pump` 60.0 % |' \
    '| the kernel | 26 % | `copy` 20.5 %, `clear` 5.2 % |' \
    '| the program and its libraries | 10 % | `crc64(unsigned long)` 10.0 % |'; do
    grep -qxF -- "$line" "$work/performance.md" || fail "not in the report: $line"
done
