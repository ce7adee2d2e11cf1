#!/usr/bin/env bash
# Runs the demo, which has been built, in a directory made for it: run-demo.sh FLOOR [--watched].
# Unless watched, its window lives unseen.
set -euo pipefail

program=$(dirname "$(realpath "$0")")/../build/demo/bin/demo
floor=$(realpath -m "$1")
shift
mkdir -p "$floor"
cd "$floor"

if [ "$#" -eq 0 ]; then
    mkdir -m 700 runtime
    # The unseen screen is as large as an operator's.
    printf '{"screens":[{"name":"demo","x":0,"y":0,"width":1920,"height":1080,%s}]}\n' \
        '"logicalDpi":96,"logicalBaseDpi":96,"dpr":1' >runtime/screen.json
    export QT_QPA_PLATFORM=offscreen:configfile=runtime/screen.json
    export XDG_RUNTIME_DIR=$floor/runtime
fi
# The program's own messages go to files; its report goes through the pipe to the screen.
"$program" /dev/fd/3 "$@" 3>&1 >stdout.txt 2>trace.txt | tee report.txt
