#!/bin/sh
# pictures_test.sh DOCS FLOOR: the documents show just the pictures that lie in DOCS/pictures, and
# the demo, which has run in FLOOR, takes all of them but the one of its own window and curves.
set -eu

docs=$1
floor=$2
shown=$(cat "$docs"/*.md "$docs"/../README.md | grep -oE 'pictures/[A-Za-z-]+\.(png|svg)' | sort -u)
there=$(cd "$docs" && find pictures -type f | sort)
if [ "$shown" != "$there" ]; then
    printf 'the documents show:\n%s\nthere are:\n%s\n' "$shown" "$there"
    exit 1
fi
for picture in $shown; do
    case $picture in
        pictures/floor.png | *.svg) continue ;;
    esac
    [ -s "$floor/${picture#pictures/}" ] ||
        { echo "the demo does not take $picture any more" && exit 1; }
done
