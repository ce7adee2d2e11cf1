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

program=$PWD/build/demo/bin/demo
floor=$PWD/build/floor
rm -rf "$floor"
mkdir -p "$floor"
cd "$floor"

if [ "${#options[@]}" -eq 0 ]; then
    mkdir -m 700 runtime
    # The unseen screen is as large as an operator's.
    printf '{"screens":[{"name":"demo","x":0,"y":0,"width":1920,"height":1080,%s}]}\n' \
        '"logicalDpi":96,"logicalBaseDpi":96,"dpr":1' >runtime/screen.json
    export QT_QPA_PLATFORM=offscreen:configfile=runtime/screen.json
    export XDG_RUNTIME_DIR=$floor/runtime
fi
status=0
# The program's own messages go to files; its report goes through the pipe to the screen.
"$program" /dev/fd/3 "${options[@]}" 3>&1 >stdout.txt 2>trace.txt | tee report.txt || status=$?
exit "$status"
