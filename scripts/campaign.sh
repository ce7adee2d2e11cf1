#!/usr/bin/env bash
# The fault campaign for as long as you like: campaign.sh [BURNS [SEED [OPTION...]]]. A copy for each
# processor, with seeds from SEED on, share the burns. OPTIONs go to each copy, such as --weather calm and
# --road usb. Ends with 1 if a rule was broken; what the copies have found and left behind lies in
# build/campaign/SEED/.
set -euo pipefail
cd "$(dirname "$0")/.."

burns=${1:-10000}
seed=${2:-1}
scripts/install-packages.sh build test
scripts/build.sh dev campaign

copies=$(nproc)
program=$PWD/build/dev/bin/campaign
export QT_QPA_PLATFORM=offscreen
running=()
for ((i = 0; i < copies; ++i)); do
    floor=build/campaign/$((seed + i))
    rm -rf "$floor"
    mkdir -p "$floor"
    (cd "$floor" && "$program" report.txt --seed $((seed + i)) --burns $((burns / copies)) "${@:3}" \
        >stdout.txt 2>/dev/null) &
    running+=($!)
done
status=0
for process in "${running[@]}"; do
    wait "$process" || status=1
done
for ((i = 0; i < copies; ++i)); do
    grep -v '^day' "build/campaign/$((seed + i))/report.txt"
done
exit "$status"
