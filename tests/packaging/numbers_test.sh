#!/bin/sh
# numbers_test.sh TOOL: a list of numbers is shared out to three stations, which mark theirs, and
# put together again.
set -eu

tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0

same() {
    [ "$2" = "$3" ] && return
    printf 'FAILED: %s\n  expected: %s\n  got:      %s\n' "$1" "$2" "$3"
    failed=1
}
run() {
    status=0
    said=$("$tool" "$@" 2>&1) || status=$?
    printf '%s: %s' "$status" "$said"
}

# The fourth row has the first one's number; the last one has no line end; one is no UTF-8.
printf '\357\273\277A1,0\r\nA2,1\r\nA3,0\r\nA1,0\r\nB\377,0\r\n"C,1",0\r\nC2,0' >list.csv
cp list.csv before.csv
same "split" "0: 4 rows: list-1.csv
1 rows: list-2.csv
2 rows: list-3.csv" "$(run split list.csv 3)"
cmp list.csv before.csv || failed=1
printf 'A1,0\r\nA2,1\r\nA3,0\r\nA1,0\r\n' | cmp - list-1.csv || failed=1
printf 'B\377,0\r\n' | cmp - list-2.csv || failed=1
printf '"C,1",0\r\nC2,0\r\n' | cmp - list-3.csv || failed=1
same "nothing is written over" "1: list-1.csv is there already" "$(run split list.csv 3)"

printf 'B\377,1\r\n' >list-2.csv
same "join" "0: 7 rows: all.csv" "$(run join all.csv list-1.csv list-2.csv list-3.csv)"
printf 'A1,0\r\nA2,1\r\nA3,0\r\nA1,0\r\nB\377,1\r\n"C,1",0\r\nC2,0\r\n' | cmp - all.csv || failed=1

# fails WHAT MESSAGE ARGUMENTS...
fails() {
    what=$1 message=$2
    shift 2
    case $(run "$@") in
        "1: $message") ;;
        *) same "$what" "$message" "$(run "$@")" ;;
    esac
}
printf 'A1,1\r\n' >other.csv
fails "one number twice" "A1 is in list-1.csv and in other.csv" join new.csv list-1.csv other.csv
printf 'A9,2\r\n' >other.csv
fails "no flag" "other.csv, row 1: not a number and 0 or 1" split other.csv 1
: >other.csv
fails "no rows" "other.csv: no rows" split other.csv 1
fails "more stations than rows" "list-2.csv has 1 rows only" split list-2.csv 2
for wrong in "split list.csv" "split list.csv 0" "split list.csv x" "share list.csv 2" ""; do
    # shellcheck disable=SC2086
    fails "$wrong" "usage: share-numbers split LIST COUNT, or share-numbers join LIST PART..." $wrong
done
[ ! -e new.csv ] || same "a failed join" "no file" "one"
exit "$failed"
