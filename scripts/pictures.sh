#!/usr/bin/env bash
# Makes the pictures of the documents anew, from the program's own window in a run of the demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build
scripts/build.sh demo demo

# The pictures show paths of this directory.
station=${TMPDIR:-/tmp}/station
mkdir "$station"
trap 'rm -rf "$station"' EXIT
demo/vorlanfactorytool-demo --headless "$station"
(cd "$station" && QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=$station/runtime \
    "$OLDPWD/build/demo/bin/demo" --floor floor.png 2>floor.txt)
mkdir -p docs/pictures
for picture in main-page usb-page-burning serial-page-burning floor; do
    cp "$station/$picture.png" docs/pictures/
done
