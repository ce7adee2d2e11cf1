#!/usr/bin/env bash
# Configures and builds one preset: build.sh PRESET [TARGET...]. Quiet unless something fails.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=$1
shift
mkdir -p build
log=build/$preset.log
targets=()
[ "$#" -eq 0 ] || targets=(--target "$@")
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "${targets[@]}"; } >"$log" 2>&1
then
    cat "$log"
    exit 1
fi
