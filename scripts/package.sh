#!/usr/bin/env bash
# Builds the Debian package from what is committed, and checks it: package.sh. It comes to build/package.
# It is built twice, in two places, and both have to be the same to the byte.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build package
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt)
head -n 1 packaging/debian/changelog | grep -qF "($version)" ||
    { echo "packaging/debian/changelog is not about version $version" >&2; exit 1; }
revision=$(git rev-parse HEAD)
rm -rf build/package
mkdir -p build/package

# build PLACE
build() {
    local tree=$1/vorlanfactorytool-$version
    mkdir -p "$tree"
    git archive "$revision" | tar -x -C "$tree"
    cp -R "$tree/packaging/debian" "$tree/debian"
    (cd "$tree" && dpkg-buildpackage --build=binary --no-sign) >"$1/build.log" 2>&1 ||
        { tail -n 50 "$1/build.log"; exit 1; }
}
first=build/package/first
second=build/package/second/elsewhere
build "$first"
build "$second"
for package in "$first"/*.deb; do
    cmp "$package" "$second/${package##*/}"
done

lintian --fail-on error,warning,info --display-info --tag-display-limit 0 "$first"/*.changes
desktop-file-validate packaging/*.desktop demo/*.desktop
appstreamcli validate --no-net "$first"/*/obj-*/packaging/*.metainfo.xml
mv "$first"/*.deb build/package/
rm -rf "$first" build/package/second
ls build/package/*.deb
