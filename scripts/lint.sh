#!/usr/bin/env bash
# Checks the format of every file, builds all with clang and runs clang-tidy over every source:
# lint.sh [--since REV [SECONDS]]. With --since only the sources that have changed since then go through
# clang-tidy, those that changed last first, until the time is up, and nothing is built.
set -euo pipefail
cd "$(dirname "$0")/.."

since=
deadline=
if [ "${1:-}" = --since ]; then
    since=$2
    [ -z "${3:-}" ] || deadline=$(($(date +%s) + $3))
fi

scripts/install-packages.sh build test bench lint
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

if [ -z "$since" ]; then
    sources=$(git ls-files '*.cpp')
    scripts/build.sh tidy
else
    sources=$({
        git diff --name-only HEAD -- '*.cpp'
        git log --format= --name-only "$since..HEAD" -- '*.cpp'
    } | awk 'NF && !seen[$0]++' | while IFS= read -r file; do [ ! -f "$file" ] || echo "$file"; done)
    cmake --preset tidy >/dev/null
fi
count=$(grep -c . <<<"$sources" || true)
if [ "$count" -gt 0 ]; then
    xargs -P "$(nproc)" -I{} sh -c '
        [ -z "$2" ] || [ "$(date +%s)" -lt "$2" ] || { echo "no time left for $1"; exit 0; }
        clang-tidy --quiet -p build/tidy "$1" 2>/dev/null || { echo "clang-tidy: $1"; exit 1; }' \
        _ {} "$deadline" <<<"$sources"
fi
echo "format and clang-tidy clean, of $count sources"
