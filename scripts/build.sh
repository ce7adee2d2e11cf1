#!/usr/bin/env bash
# Configures and builds one preset: build.sh PRESET [TARGET...]. On a terminal it shows how far it is;
# elsewhere it is quiet. What the tools have said comes out if something fails, and lies in
# build/PRESET.log.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=$1
shift
mkdir -p build
log=build/$preset.log
targets=()
[ "$#" -eq 0 ] || targets=(--target "$@")

build() { cmake --preset "$preset" && cmake --build --preset "$preset" "${targets[@]}"; }

# Keeps the last line of progress, such as "[12/226] Building ...", at the same place of the screen.
show_progress() {
    local line columns
    columns=$(tput cols 2>/dev/null || echo 80)
    while IFS= read -r line; do
        [[ $line != \[* ]] || printf '\r\033[K%s' "${line:0:columns-1}"
    done
    printf '\r\033[K'
}

if [ -t 1 ]; then
    build 2>&1 | tee "$log" | show_progress && exit
else
    build >"$log" 2>&1 && exit
fi
cat "$log"
exit 1
