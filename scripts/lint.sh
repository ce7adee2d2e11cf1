#!/usr/bin/env bash
# Checks the format of every file and runs clang-tidy over all of them, with clang as the compiler.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test bench lint
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
scripts/build.sh tidy
echo "format and clang-tidy: clean"
