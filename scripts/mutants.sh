#!/usr/bin/env bash
# Plants the mistakes of tests/mutants/*.txt in the code, one at a time, and tells which of them the tests
# let pass: mutants.sh [-j WORKERS] [PATTERN]. PATTERN, a regular expression, chooses mistakes by name or
# by file. Ends with 1 if one survived or fits the code no more.
#
# A mistake in a list, ended by a blank line:
#   mistake: what it does, in words
#   file: src/...
#   tests: the test programs that should see it
#   why: only if none can, the reason why it does not matter
#   - lines of the code, which have to stand there exactly once
#   + lines in their place
set -euo pipefail
cd "$(dirname "$0")/.."

workers=2
if [ "${1:-}" = -j ]; then
    workers=$2
    shift 2
fi
pattern=${1:-.}
work=$PWD/build/mutants

scripts/install-packages.sh build test
rm -rf "$work/queue" "$work/taken" "$work/results"
mkdir -p "$work/queue" "$work/taken" "$work/results"

# One file for each mistake, in a queue that the workers share.
perl -e '
    my ($queue, $pattern, @lists) = @ARGV;
    my $count = 0;
    for my $list (@lists) {
        open(my $in, "<", $list) or die "$list: $!";
        local $/ = "";
        while (my $mistake = <$in>) {
            $mistake =~ s/^#.*\n//mg;
            my ($name) = $mistake =~ /^mistake: (.+)$/m;
            my ($file) = $mistake =~ /^file: (.+)$/m;
            next if !defined $name || "$name\n$file" !~ /$pattern/;
            open(my $out, ">", sprintf("%s/%04d", $queue, $count++)) or die $!;
            print $out $mistake;
        }
    }
' "$work/queue" "$pattern" tests/mutants/*.txt
total=$(find "$work/queue" -type f | wc -l)
[ "$total" -gt 0 ] || { echo "no mistake fits \"$pattern\"" >&2; exit 2; }

field() { sed -n "s/^$2: //p" "$1"; }
tests_of() { tr ' ' '\n' <<<"$1" | grep . | sort -u | paste -sd'|'; }

# Prints what became of one mistake, planted in the tree that is the current folder.
try_mistake() {
    local mistake=$1 file tests
    file=$(field "$mistake" file)
    tests=$(field "$mistake" tests)
    cp "$file" "$file.sound"
    if ! perl -0777 -e '
        my ($mistake, $file) = @ARGV;
        open(my $in, "<", $mistake) or die $!;
        my ($old, $new) = ("", "");
        for (split /\n/, do { local $/; <$in> }) {
            $old .= "$1\n" if /^- ?(.*)$/;
            $new .= "$1\n" if /^\+ ?(.*)$/;
        }
        open(my $code, "<", $file) or die $!;
        my $text = do { local $/; <$code> };
        # Indentation is the code formatter'"'"'s business, not the list'"'"'s.
        my $search = join "", map { "[ \\t]*" . quotemeta($_ =~ s/^\s+//r) . "\n" } split /\n/, $old;
        my $places = () = $text =~ /^$search/mg;
        exit 1 if $old eq "" || $places != 1;
        $text =~ s/^$search/$new/m;
        open(my $out, ">", $file) or die $!;
        print $out $text;
    ' "$mistake" "$file"; then
        rm "$file.sound"
        echo "misfit (the lines do not stand there once)"
        return
    fi
    local verdict
    # shellcheck disable=SC2086
    if ! cmake --build --preset dev --target $tests >build.log 2>&1; then
        verdict="misfit (does not build)"
    elif ctest --preset dev --label-regex "^($(tests_of "$tests"))\$" --parallel 2 --stop-on-failure \
        --timeout 60 >ctest.log 2>&1; then
        verdict=survived
    else
        verdict=killed
    fi
    mv "$file.sound" "$file"
    touch "$file"
    echo "$verdict"
}

# Makes the folder a copy of this one. What is the same stays untouched, what differs gets a new time:
# the last mistake of an earlier run has left its objects there.
copy_tree() {
    local tree=$1 file
    git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
        [ ! -e "$file" ] || cmp -s "$file" "$tree/$file" || cp --parents "$file" "$tree"
    done
    find "$tree" -path "$tree/build" -prune -o -type f -printf '%P\0' |
        while IFS= read -r -d '' file; do
            [ -e "$file" ] || rm "$tree/$file"
        done
}

# Takes mistakes from the queue until none is left.
worker() {
    local tree=$work/tree$1 tests=$2 mistake taken name verdict
    mkdir -p "$tree"
    copy_tree "$tree"
    cd "$tree"
    # shellcheck disable=SC2086
    scripts/build.sh dev $tests
    if ! ctest --preset dev --label-regex "^($(tests_of "$tests"))\$" --parallel 2 >ctest.log 2>&1; then
        echo "the tests fail without any mistake: $tree/ctest.log" >&2
        exit 1
    fi
    for mistake in "$work"/queue/*; do
        taken=$work/taken/$(basename "$mistake")
        mv -n "$mistake" "$taken" 2>/dev/null || continue
        name=$(field "$taken" mistake)
        verdict=$(try_mistake "$taken")
        if [ "$verdict" = survived ] && [ -n "$(field "$taken" why)" ]; then
            verdict="harmless"
        fi
        echo "$verdict: $name ($(field "$taken" file))" | tee "$work/results/$(basename "$taken")"
    done
}

tests=$(sed -n 's/^tests: //p' "$work"/queue/* | tr ' ' '\n' | sort -u | paste -sd' ')
for ((i = 1; i <= workers; ++i)); do
    (worker "$i" "$tests") &
done
wait

count() { cat "$work"/results/* 2>/dev/null | grep -c "^$1" || true; }
echo
cat "$work"/results/* | grep -E '^(survived|misfit)' || true
echo "$(count killed) killed, $(count survived) survived, $(count harmless) harmless, $(count misfit) misfit, of $total"
[ "$(count survived)" -eq 0 ] && [ "$(count misfit)" -eq 0 ] &&
    [ "$(find "$work/results" -type f | wc -l)" -eq "$total" ]
