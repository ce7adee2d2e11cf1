#!/usr/bin/env bash
# Checks the format of every file, builds all with clang and runs clang-tidy over every source:
# lint.sh [--since REV]. With --since only the sources that have changed since then go through clang-tidy,
# those that changed last first, and nothing is built.
set -euo pipefail
cd "$(dirname "$0")/.."

since=
[ "${1:-}" != --since ] || since=$2

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
    xargs -P "$(nproc)" -I{} sh -c \
        'clang-tidy --quiet -p build/tidy "$1" 2>/dev/null || { echo "clang-tidy: $1"; exit 1; }' _ {} \
        <<<"$sources"
fi
echo "format clean, clang-tidy clean over $count sources"
