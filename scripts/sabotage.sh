#!/usr/bin/env bash
# Plants durability bugs into the library, one at a time, and holds that the reliability rows catch
# each of them: a row that lets a planted bug pass would let a real one pass.
#
#   scripts/sabotage.sh [NAME...]     (default: every bug of tests/reliability/planted_bugs.txt)
#
# Nothing in the work tree changes: the mutated source is compiled beside it and linked into a
# program of its own. Exit status: 0 when every bug was caught, 1 when one was missed, 2 when one
# could not be planted (its lines are no longer in the source).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "" "$@"

preset=release
tree="$root/build/$preset"
bugs="$root/tests/reliability/planted_bugs.txt"
cases="${K9EREPL_SABOTAGE_CASES:-3000}"

# plant <name> <work folder>: the file named by the bug, with its lines exchanged, as mutated.cpp;
# file, rows and cases as three lines of the file "about".
plant() {
    perl - "$bugs" "$1" "$root" "$2" "$cases" <<'PERL'
use strict;
use warnings;
my ($bugs, $name, $root, $work, $cases) = @ARGV;
open my $in, '<', $bugs or die "$bugs: $!\n";
my ($here, $file, $rows, @old, @new) = (0);
while (<$in>) {
    chomp;
    if (/^== (\S+)/) { $here = $1 eq $name; next; }
    next unless $here;
    if (/^file (\S+)/) { $file = $1; }
    elsif (/^rows (.+)/) { $rows = $1; }
    elsif (/^cases (\d+)/) { $cases = $1; }
    elsif (/^- ?(.*)/) { push @old, $1; }
    elsif (/^\+ ?(.*)/) { push @new, $1; }
}
die "no planted bug '$name'\n" unless defined $file && defined $rows && @old;
open my $source, '<', "$root/$file" or die "$file: $!\n";
my $text = do { local $/; <$source> };
my $pattern = join '\s+', map { join '\s+', map { quotemeta } split ' ' } @old;
my $found = () = $text =~ /$pattern/g;
die "the lines of '$name' stand $found times in $file, not once\n" unless $found == 1;
my $new = join "\n", @new;
$text =~ s/$pattern/$new/;
open my $out, '>', "$work/mutated.cpp" or die "$work: $!\n";
print $out "#line 1 \"$root/$file\"\n", $text;
open my $about, '>', "$work/about" or die "$work: $!\n";
print $about "$file\n$rows\n$cases\n";
PERL
}

# object_of <source file>: the object that the program links for it, relative to the tree.
object_of() {
    echo "src/CMakeFiles/k9erepl_objects.dir/${1#src/}.o"
}

# make_program <work folder>: compiles the mutated source and links it in place of the real one.
make_program() {
    local work="$1" file object compile link
    file="$(sed -n 1p "$work/about")"
    object="$(object_of "$file")"
    compile="$(cd "$tree" && ninja -t commands "$object" | tail -n 1)"
    compile="${compile//"$root/$file"/"$work/mutated.cpp"}"
    compile="${compile//"$object"/"$work/mutated.o"}"
    # A planted bug may leave something unused.
    (cd "$tree" && eval "${compile//-Werror/}" 2>"$work/compiler.txt") || {
        cat "$work/compiler.txt" >&2
        return 1
    }
    link="$(cd "$tree" && ninja -t commands bin/reliability_run | tail -n 1)"
    link="${link//"$object"/"$work/mutated.o"}"
    link="${link//"-o bin/reliability_run"/"-o $work/program"}"
    (cd "$tree" && eval "${link%% && cd *}")
}

# check_row <row>: the library itself passes it; otherwise being caught would mean nothing.
# No more cases than a test run has: some are slow.
check_row() {
    local count
    count="$("$tree/bin/reliability_run" --list | sed -n "s/^$1 .*(\([0-9]*\) cases)\$/\1/p")"
    [ "$count" -lt "$cases" ] || count="$cases"
    timeout 300 "$tree/bin/reliability_run" --row "$1" --count "$count" >"$folder/row-$1" 2>&1 || {
        tail -n 5 "$folder/row-$1" >&2
        echo "sabotage.sh: the library itself does not pass the row '$1'" >&2
        return 1
    }
}

# try <name>: one line that says what became of the bug; leaves a file "missed" or "broken".
try() {
    local work="$folder/$1" row rows count
    mkdir "$work"
    if ! plant "$1" "$work" 2>"$work/why" || ! make_program "$work" 2>"$work/why"; then
        echo "NOT PLANTED  $1: $(head -n 3 "$work/why")"
        touch "$work/broken"
        return 0
    fi
    rows="$(sed -n 2p "$work/about")"
    count="$(sed -n 3p "$work/about")"
    for row in $rows; do
        if ! timeout 120 "$work/program" --row "$row" --count "$count" >"$work/$row.txt" 2>&1; then
            echo "caught       $1 by $row"
            rm "$work/program"
            return 0
        fi
    done
    echo "MISSED       $1, in $rows"
    touch "$work/missed"
}

"$root/scripts/setup.sh" test
configure "$preset" "${with_tests[@]}" >/dev/null
build "$preset" reliability_run >/dev/null

folder="$(mktemp -d "$(memory_folder)/k9erepl-sabotage.XXXXXX")"
trap 'rm -rf "$folder"' EXIT
names=("$@")
[ "$#" -gt 0 ] || mapfile -t names < <(sed -n 's/^== //p' "$bugs")

sed -n 's/^rows //p' "$bugs" | tr ' ' '\n' | sort -u >"$folder/rows"
export -f plant object_of make_program check_row try
export root tree bugs cases folder
xargs -a "$folder/rows" -P "$jobs" -I{} bash -c 'set -euo pipefail; check_row "$1"' _ {} || exit 2

printf '%s\n' "${names[@]}" | xargs -P "$jobs" -I{} bash -c 'set -euo pipefail; try "$1"' _ {}

missed="$(find "$folder" -name missed | wc -l)"
broken="$(find "$folder" -name broken | wc -l)"
echo "planted bugs: $((${#names[@]} - missed - broken)) caught, $missed missed," \
    "$broken not planted"
[ "$broken" -eq 0 ] || exit 2
[ "$missed" -eq 0 ]
