#!/usr/bin/env bash
# Opens the program's window over simulated devices, has a script burn them, and proves the result:
# ./demo.sh [--headless]. Headless, or with no display, the same window lives unseen.
# Installs and builds what is missing first. What the run leaves behind lies in build/floor/.
set -euo pipefail
cd "$(dirname "$0")"

options=(--watched)
[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || options=()
for argument in "$@"; do
    [ "$argument" = --headless ] || { echo "usage: ./demo.sh [--headless]" >&2; exit 2; }
    options=()
done

scripts/install-packages.sh build
scripts/build.sh demo demo
rm -rf build/floor
exec scripts/run-demo.sh build/floor "${options[@]}"
