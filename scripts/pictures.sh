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
mkdir -p docs/pictures
cp "$station"/usb-page-burning.png docs/pictures/
