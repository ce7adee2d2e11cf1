#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: ./test.sh [PRESET...]
# Presets: dev (the default), asan, tsan, bench, fuzz.
set -euo pipefail
cd "$(dirname "$0")"

presets=("$@")
[ "${#presets[@]}" -gt 0 ] || presets=(dev)

scripts/install-packages.sh build test
[[ " ${presets[*]} " != *" fuzz "* ]] || scripts/install-packages.sh lint

# One line that counts, instead of one for each test.
progress=()
[ ! -t 1 ] || progress=(--progress)

for preset in "${presets[@]}"; do
    echo "== $preset"
    scripts/build.sh "$preset"
    ctest --preset "$preset" --parallel "$(nproc)" "${progress[@]}"
done
