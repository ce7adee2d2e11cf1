#!/usr/bin/env bash
# Kills the program at random moments of burns, marks, saves and unpacking, starts it again on its files,
# and holds the rules of the serial numbers and of the record against what it leaves:
# kills.sh [COUNT [SEED]]. Works in build/kills.
set -euo pipefail
cd "$(dirname "$0")/.."

count=${1:-500}
seed=${2:-1}
scripts/install-packages.sh build test
scripts/build.sh dev campaign

program=$PWD/build/dev/bin/campaign
export QT_QPA_PLATFORM=offscreen
rm -rf build/kills
mkdir -p build/kills
cd build/kills
seq --format 'VRL%08.0f,0' 1 200000 | sed 's/$/\r/' >numbers.csv
cp numbers.csv before.csv

# Compares the list with the one before the last start, and both with what the program has told.
check() {
    perl -e '
        my ($told, %before, %now, %good) = (shift);
        sub rows {
            my ($path, $rows) = @_;
            open(my $in, "<", $path) or die "$path: $!";
            while (<$in>) {
                /^(VRL\d{8}),([01])\r\n$/ && !exists $rows->{$1} or die "$path: not a row: $_";
                $rows->{$1} = $2;
            }
            keys %$rows == 200000 or die "$path has lost rows\n";
        }
        my %recorded;
        for my $path (glob "log/record*.csv") {
            open(my $record, "<", $path) or die "$path: $!";
            <$record>;
            while (<$record>) {
                /^"[^"]+"(,"[^"]*"){10}\r\n$/ or eof $record or die "$path: not a row: $_";
                $recorded{$1}++ if /,"(VRL\d{8})","0x[0-9a-f]+","成功",/;
            }
        }
        rows("before.csv", \%before);
        rows("numbers.csv", \%now);
        $now{$_} || !$before{$_} or die "the mark of $_ is gone\n" for keys %now;
        open(my $witness, "<", "witness.txt") or die "witness.txt: $!";
        my $ends = 0;
        while (<$witness>) {
            die $_ if /^finding/;
            my ($end, $number) = /^(good|failed) (VRL\d{8})$/ or next;
            die "$number is told good twice\n" if $end eq "good" && $good{$number}++;
            die "$number is told good and not marked\n" if $end eq "good" && !$now{$number};
            die "$number is told good and not in the record\n" if $end eq "good" && !$recorded{$number};
            next if $. <= $told;
            die "$number was marked, and handed out again\n" if $before{$number};
            ++$ends;
        }
        $now{$_} && $recorded{$_} == 1 or die "$_ is in the record, but not marked, or twice\n" for keys %recorded;
        my $marked = grep { $now{$_} } keys %now;
        my $good = keys %good;
        # Marked, and killed before the tile could tell.
        my $open = $marked - $good;
        print "$ends ends, $marked marked, $open of them not told any more\n";
    ' "$1"
}

RANDOM=$seed
for ((i = 1; i <= count; ++i)); do
    told=$([ -f witness.txt ] && wc -l <witness.txt || echo 0)
    road=usb
    ((i % 2)) || road=serial
    "$program" witness.txt --until-killed "$PWD/numbers.csv" --seed $((seed + i)) --road $road \
        >stdout.txt 2>trace.txt &
    sleep "$((RANDOM % 4)).$(printf '%03d' $((RANDOM % 1000)))"
    kill -0 $! || { echo "it ended by itself:"; tail -n 3 witness.txt trace.txt; exit 1; }
    kill -KILL $!
    wait $! 2>/dev/null || true
    touch witness.txt
    echo "kill $i on the $road road: $(check "$told")"
    cp numbers.csv before.csv
done
