#!/usr/bin/env bash
# Burns a sample package into simulated devices and compares every byte: ./demo.sh [--headless]
# Installs and builds what is missing first. What the run leaves behind lies in build/demo/.
set -euo pipefail
cd "$(dirname "$0")"

for argument in "$@"; do
    [ "$argument" = --headless ] || { echo "usage: ./demo.sh [--headless]" >&2; exit 2; }
done

scripts/install-packages.sh build
scripts/build.sh release demo

program=$PWD/build/release/bin/demo
floor=$PWD/build/demo
rm -rf "$floor"
mkdir -p "$floor"
cd "$floor"

live=()
[ ! -t 1 ] || live=(--live)
status=0
# The program's own messages go to files; its report goes through the pipe to the screen.
"$program" /dev/fd/3 "${live[@]}" 3>&1 >stdout.txt 2>trace.txt | cat || status=$?
echo "run log, trace and package: build/demo/"
exit "$status"
