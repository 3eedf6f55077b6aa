#!/usr/bin/env bash
# Plants durability bugs into the library, one at a time, and holds that the reliability families
# catch each of them: a family that lets a planted bug pass would let a real one pass.
#
#   scripts/sabotage.sh [--minutes N] [NAME...]
#                                 (default: every bug of tests/reliability/planted_bugs.txt)
#
# Nothing in the work tree changes: the mutated source is compiled beside it and linked into a
# program of its own. With --minutes everything but these builds ends in that time; a bug that was
# not caught in its share counts as not decided. Exit status: 0 when no bug was missed, 1 when one
# was, 2 when one could not be planted (its lines are no longer in the source).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
check_options "--minutes" "$@"

minutes=""  # no limit
if [ "${1:-}" = --minutes ]; then
    minutes="${2:?--minutes wants a number}"
    shift 2
fi
if ! [[ "${minutes:-1}" =~ ^[0-9]+([.][0-9]+)?$ ]]; then
    echo "sabotage.sh: --minutes wants a number, such as 5 or 2.5" >&2
    exit 2
fi

preset=release
tree="$root/build/$preset"
bugs="$root/tests/reliability/planted_bugs.txt"
cases="${K9EREPL_SABOTAGE_CASES:-3000}"

# plant <name> <work folder>: the file named by the bug, with its lines exchanged, as mutated.cpp;
# file, families and cases as three lines of the file "about".
plant() {
    perl - "$bugs" "$1" "$root" "$2" "$cases" <<'PERL'
use strict;
use warnings;
my ($bugs, $name, $root, $work, $cases) = @ARGV;
open my $in, '<', $bugs or die "$bugs: $!\n";
my ($here, $file, $families, @old, @new) = (0);
while (<$in>) {
    chomp;
    if (/^== (\S+)(?: cases (\d+))?$/) {
        $here = $1 eq $name;
        $cases = $2 if $here && defined $2;
        next;
    }
    next unless $here;
    if (/^in (\S+) by (.+)/) { ($file, $families) = ($1, $2); }
    elsif (/^- ?(.*)/) { push @old, $1; }
    elsif (/^\+ ?(.*)/) { push @new, $1; }
}
die "no planted bug '$name'\n" unless defined $file && defined $families && @old;
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
print $about "$file\n$families\n$cases\n";
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

# prepare <name>: the bug's program; leaves a file "broken" when there can be none.
prepare() {
    local work="$folder/$1"
    mkdir "$work"
    if ! plant "$1" "$work" 2>"$work/why" || ! make_program "$work" 2>"$work/why"; then
        echo "NOT PLANTED  $1: $(head -n 3 "$work/why")"
        touch "$work/broken"
    fi
}

# seconds_for <phase> <place> <most>: how long piece <place> of the phase may take, without a limit
# <most>. The phase's file holds its end and its number of pieces.
seconds_for() {
    local end pieces
    [ -n "$minutes" ] || { echo "$3"; return; }
    read -r end pieces <"$folder/$1"
    share_of "$end" $((pieces - $2 + 1))
}

# check_family <place> <family>: the library itself passes it; otherwise being caught would mean
# nothing. No more cases than a test run has: some are slow.
check_family() {
    local seconds count status=0
    seconds="$(seconds_for checks "$1" 300)"
    count="$("$tree/bin/reliability_run" --list | sed -n "s/^$2 .*(\([0-9]*\) cases)\$/\1/p")"
    [ "$count" -lt "$cases" ] || count="$cases"
    timeout "$seconds" "$tree/bin/reliability_run" --family "$2" --count "$count" \
        >"$folder/family-$2" 2>&1 || status=$?
    # Out of time is no failure where there is a limit.
    if [ "$status" -ne 0 ] && { [ -z "$minutes" ] || [ "$status" -ne 124 ]; }; then
        tail -n 5 "$folder/family-$2" >&2
        echo "sabotage.sh: the library itself does not pass the family '$2'" >&2
        return 1
    fi
}

# try <place> <name>: one line that says what became of the bug; leaves a file "missed" or
# "undecided". Its families share its time.
try() {
    local work="$folder/$2" families family count seconds end status undecided=""
    families="$(sed -n 2p "$work/about")"
    count="$(sed -n 3p "$work/about")"
    local -i left
    left="$(wc -w <<<"$families")"
    seconds="$(seconds_for tries "$1" $((120 * left)))"
    end=$(($(date +%s) + ${seconds%.*}))
    for family in $families; do
        status=0
        timeout "$(jobs=1 share_of "$end" "$left")" \
            "$work/program" --family "$family" --count "$count" --stop-at-failure \
                >"$work/$family.txt" 2>&1 || status=$?
        left=$((left - 1))
        if [ "$status" -eq 124 ] && ! grep -q '^FAILED' "$work/$family.txt"; then
            undecided=yes
        elif [ "$status" -ne 0 ]; then
            echo "caught       $2 by $family"
            rm "$work/program"
            return 0
        fi
    done
    if [ -n "$undecided" ]; then
        echo "NOT DECIDED  $2, in $families"
        touch "$work/undecided"
    else
        echo "MISSED       $2, in $families"
        touch "$work/missed"
    fi
}

# each <function> [phase]: calls it with every line of standard input, as many at once as there are
# cores; for a phase with the line's place in front.
each() {
    local -a numbered=(cat)
    [ -z "${2:-}" ] || numbered=(awk '{ print NR, $0 }')
    "${numbered[@]}" | xargs -P "$jobs" -L 1 bash -c 'set -euo pipefail; "$@"' _ "$1"
}

# begin <phase> <pieces> <part>: the phase has this part of the time, from now on.
begin() {
    [ -n "$minutes" ] || return 0
    awk -v now="$(date +%s)" -v m="$minutes" -v part="$3" -v pieces="$2" \
        'BEGIN { printf "%d %d\n", now + m * 60 * part, pieces }' >"$folder/$1"
}

"$root/scripts/setup.sh" test
configure "$preset" "${with_tests[@]}" >/dev/null
build "$preset" reliability_run >/dev/null

folder="$(mktemp -d "$(memory_folder)/k9erepl-sabotage.XXXXXX")"
trap 'rm -rf "$folder"' EXIT
names=("$@")
[ "$#" -gt 0 ] || mapfile -t names < <(sed -n 's/^== \(\S*\).*/\1/p' "$bugs")
export -f plant object_of make_program prepare seconds_for share_of check_family try
export root tree bugs cases folder minutes jobs
printf '%s\n' "${names[@]}" | each prepare

count_of() { find "$folder" -name "$1" | wc -l; }

# Only the families that are asked.
find "$folder" -name about -exec sed -n 2p {} \; | tr ' ' '\n' | sort -u >"$folder/families"
begin checks "$(wc -l <"$folder/families")" 0.25
each check_family checks <"$folder/families" || exit 2

# Last come those that are known to need many cases: they get what time the others leave.
for name in "${names[@]}"; do
    [ -e "$folder/$name/broken" ] || echo "$(sed -n 3p "$folder/$name/about") $name"
done | sort -s -n -k 1,1 | cut -d ' ' -f 2 >"$folder/names"
begin tries "$(wc -l <"$folder/names")" 0.75
each try tries <"$folder/names"

missed="$(count_of missed)"
broken="$(count_of broken)"
undecided="$(count_of undecided)"
echo "planted bugs: $((${#names[@]} - missed - broken - undecided)) caught, $missed missed," \
    "$broken not planted, $undecided not decided"
[ "$broken" -eq 0 ] || exit 2
[ "$missed" -eq 0 ] && { [ "$undecided" -eq 0 ] || [ -n "$minutes" ]; }
