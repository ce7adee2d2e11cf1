#!/usr/bin/env bash
# Installs the Debian packages that are missing: install-packages.sh GROUP...
# Groups: build (compiler, libraries), test (test libraries and tools), bench, package, try, lint.
set -euo pipefail

declare -A groups=(
    [build]="cmake ninja-build ccache g++ pkg-config libusb-1.0-0-dev libcjson-dev libminizip-dev
             libmd-dev libudev-dev zlib1g-dev qt6-base-dev qt6-translations-l10n fonts-wqy-microhei"
    [test]="dbus libgtest-dev libgmock-dev umockdev libumockdev-dev libglib2.0-dev perl unzip"
    [bench]="gnuplot-nox libarchive-tools libbenchmark-dev liblzma-dev linux-perf unzip"
    [package]="dpkg-dev debhelper fakeroot lintian desktop-file-utils appstream git"
    [try]="debootstrap dpkg-dev"
    [lint]="clang clang-format clang-tidy libclang-rt-14-dev"
)

missing=()
for group in "$@"; do
    for package in ${groups[$group]}; do
        dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null |
            grep -qx installed || missing+=("$package")
    done
done
[ "${#missing[@]}" -eq 0 ] && exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null
