#!/usr/bin/env bash
# Opens the program's window over simulated devices: ./demo.sh [--floor | --watched | --headless].
#   --floor     with the floor beside it, where devices are plugged in and out by click
#   --watched   worked by a script that burns devices over both roads and proves the result
#   --headless  the same, fast and unseen
# Without an option: the floor, or, with no display, headless. Installs and builds what is missing
# first. What the run leaves behind lies in build/floor/.
set -euo pipefail
cd "$(dirname "$0")"

way=--floor
[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || way=--headless
case $#${1:-} in
    0) ;;
    1--floor | 1--watched | 1--headless) way=$1 ;;
    *) echo "usage: ./demo.sh [--floor | --watched | --headless]" >&2; exit 2 ;;
esac

scripts/install-packages.sh build
scripts/build.sh demo demo
rm -rf build/floor
exec demo/vorlanfactorytool-demo "$way" build/floor
