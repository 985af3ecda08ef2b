#!/usr/bin/env bash
# Mutation check: how many deliberate faults the project's own suite catches.
#
#   tests/mutants/run.sh [-p PROJECT] [-r REV] [-m MUTANTS] [-b BUILD] [-o OUT] [IDS...]
#
#   -p PROJECT  the checkout to measure (default: the git root of the current
#               folder); its committed state is cloned, so commit first
#   -r REV      clone this revision instead of HEAD (e.g. the commit before a
#               test trim, to compare kills on the same table)
#   -m MUTANTS  the mutant table (default: PROJECT/tests/mutants.tsv)
#   -b BUILD    scratch folder outside the project: the clone goes to
#               BUILD/src, its build to BUILD/build (both wiped first);
#               default /tmp/mutants-build
#   -o OUT      where run.log and results.tsv go (default: BUILD)
#   IDS         only these mutants (default: all of them, in table order)
#
# The clone is built once (RelWithDebInfo, benchmarks off; clang when it is
# installed, so that the libFuzzer targets build and their smoke tests run;
# CC/CXX win) and its suite must pass unmutated. Then, for each mutant: apply
# its one exact replacement, rebuild incrementally, run
#     ctest -LE bench -j2 --timeout 120
# (stress tests included), record the outcome and put the file back. Outcomes:
#   killed          some test failed or timed out (the failed tests are listed)
#   survived        every test passed: no test notices this fault
#   not-applicable  the text is not found exactly once, or the build failed
# One line is printed per mutant; the last line is
#     mutants: K killed, S survived, N not applicable of T
# Exit status: 0 when every mutant was killed; 3 when one survived; 4 when one
# did not apply (its text moved: the table has drifted from the code and that
# fault is no longer injected); 1 or 2 when the run itself could not be made.
# OUT/run.log holds everything the builds and test runs printed; OUT/results.tsv
# holds id, outcome, seconds, detail and the failed tests ("name [status]",
# separated by " | "). Each mutant costs one incremental build and one suite
# run (about 30 s to 2 min on two cores).
#
# The table: a header line, then one mutant a line with five tab-separated
# fields: id, file (relative to the project), original text (found exactly
# once in that file), replacement text, and the fault in words. Tabs, newlines
# and backslashes in a field are written \t, \n and \\. Example:
#     Q01<TAB>service/LogSendThread.cpp<TAB>size() >= limit<TAB>size() > limit<TAB>Off-by-one at the queue cap.
set -u

usage() {
    sed -n '2,/^set -u/p' "$0" | grep '^#' | sed 's/^# \{0,1\}//' >&2
    exit 2
}

project=""
rev=HEAD
scratch=/tmp/mutants-build
mutants=""
out=""
while getopts "p:r:b:m:o:h" opt; do
    case "$opt" in
        p) project=$OPTARG ;;
        r) rev=$OPTARG ;;
        b) scratch=$OPTARG ;;
        m) mutants=$OPTARG ;;
        o) out=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
[ -n "$project" ] || project=$(git rev-parse --show-toplevel 2>/dev/null) || usage
[ -e "$project/.git" ] || { echo "mutants.sh: $project is not a git checkout" >&2; exit 2; }
mutants=${mutants:-$project/tests/mutants.tsv}
[ -f "$mutants" ] || { echo "mutants.sh: no mutant table $mutants" >&2; exit 2; }
project=$(cd "$project" && pwd)
mutants=$(cd "$(dirname "$mutants")" && pwd)/$(basename "$mutants")
mkdir -p "$scratch" || exit 2
scratch=$(cd "$scratch" && pwd)
case "$project/" in "$scratch"/*) echo "mutants.sh: the scratch folder must not hold the project" >&2; exit 2 ;; esac
case "$scratch/" in "$project"/*) echo "mutants.sh: the scratch folder must lie outside the project" >&2; exit 2 ;; esac
out=${out:-$scratch}
mkdir -p "$out" || exit 2
out=$(cd "$out" && pwd)

src="$scratch/src"
build="$scratch/build"
saved="$scratch/saved"
log="$out/run.log"
results="$out/results.tsv"
: >"$log"
printf 'id\toutcome\tseconds\tdetail\tfailed tests\n' >"$results"

say() { echo "$*" | tee -a "$log"; }
logged() { echo "\$ $*" >>"$log"; "$@" >>"$log" 2>&1; }

# The mutant table's ids, in order, or a check that the ids asked for exist.
table() {
    python3 - "$mutants" "$@" <<'PY'
import sys
rows = [l.rstrip("\n").split("\t") for l in open(sys.argv[1], encoding="utf-8")][1:]
rows = [r for r in rows if r and r[0]]
ids = [r[0] for r in rows]
wanted = sys.argv[2:] or ids
unknown = [i for i in wanted if i not in ids]
if unknown:
    sys.exit("mutants.sh: unknown mutant ids: " + " ".join(unknown))
print("\n".join(wanted))
PY
}

# mutate apply|revert ID: applies the mutant to the clone (saving the file) or
# puts the saved file back. apply prints the mutated file's path, or fails
# with the reason.
mutate() {
    python3 - "$mutants" "$src" "$saved" "$@" <<'PY'
import os, shutil, sys
table, src, saved, action, ident = sys.argv[1:6]

def unescape(text):
    out, i = [], 0
    while i < len(text):
        c = text[i]
        if c == "\\" and i + 1 < len(text):
            out.append({"t": "\t", "n": "\n", "\\": "\\"}.get(text[i + 1], "\\" + text[i + 1]))
            i += 2
        else:
            out.append(c)
            i += 1
    return "".join(out)

for line in list(open(table, encoding="utf-8"))[1:]:
    fields = line.rstrip("\n").split("\t")
    if fields[0] == ident:
        break
else:
    sys.exit("unknown mutant " + ident)
path = os.path.join(src, fields[1])
keep = os.path.join(saved, ident)
if action == "revert":
    if os.path.exists(keep):
        shutil.copyfile(keep, path)
        os.remove(keep)
    sys.exit(0)
original, replacement = unescape(fields[2]), unescape(fields[3])
if not os.path.isfile(path):
    sys.exit("no file " + fields[1])
text = open(path, encoding="utf-8").read()
count = text.count(original)
if count != 1:
    sys.exit("text found %d times in %s" % (count, fields[1]))
os.makedirs(saved, exist_ok=True)
shutil.copyfile(path, keep)
with open(path, "w", encoding="utf-8") as f:
    f.write(text.replace(original, replacement, 1))
print(fields[1])
PY
}

# The tests that ctest's output names as failed, one "name [status]" a line.
failed_tests() {
    python3 - "$1" <<'PY'
import re, sys
lines = open(sys.argv[1], encoding="utf-8", errors="replace").read().splitlines()
inside = False
for line in lines:
    if line.startswith("The following tests FAILED:"):
        inside = True
        continue
    if inside:
        m = re.match(r"^\s*\d+ - (.*) \(([^()]+)\)\s*$", line)
        if not m:
            break
        print("%s [%s]" % (m.group(1), m.group(2)))
PY
}

# Kills what a test run left behind: the rest of its process group, and any
# process still running a program of the build folder.
reap() {
    local group=$1 pid exe
    kill -KILL -- "-$group" 2>/dev/null
    for pid in $(ls /proc | grep -E '^[0-9]+$'); do
        [ "$pid" = "$$" ] && continue
        exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || continue
        case "$exe" in "$build"/*) kill -KILL "$pid" 2>/dev/null ;; esac
    done
}

# Runs the suite; its output goes to $1 and the log. Returns ctest's status.
run_suite() {
    local output=$1 status
    (cd "$build" && exec setsid timeout --kill-after=30 3600 \
        ctest -LE bench -j2 --timeout 120) >"$output" 2>&1 &
    local pid=$!
    wait "$pid"
    status=$?
    reap "$pid"
    cat "$output" >>"$log"
    return "$status"
}

build_tree() { logged cmake --build "$build" -j2; }

current=""
cleanup() {
    if [ -n "$current" ]; then
        mutate revert "$current"
    fi
}
trap 'cleanup; exit 130' INT TERM

ids=$(table "$@") || exit 2

# The clone and its first build.
rm -rf "$src" "$build" "$saved"
say "mutants.sh: $(wc -l <<<"$ids") mutants of $mutants on $project ($(git -C "$project" rev-parse --short "$rev"))"
logged git clone --quiet --no-hardlinks "$project" "$src" || { say "mutants.sh: clone failed"; exit 1; }
logged git -C "$src" checkout --quiet "$rev" || { say "mutants.sh: no revision $rev"; exit 1; }
if [ -z "${CC:-}" ] && [ -z "${CXX:-}" ] && command -v clang >/dev/null && command -v clang++ >/dev/null; then
    export CC=clang CXX=clang++
fi
say "mutants.sh: building once in $build (RelWithDebInfo, ${CXX:-default compiler})"
logged cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYMM_BUILD_BENCH=OFF \
    || { say "mutants.sh: configure failed (see $log)"; exit 1; }
build_tree || { say "mutants.sh: the unmutated project does not build (see $log)"; exit 1; }
if ! run_suite "$scratch/ctest-baseline.out"; then
    say "mutants.sh: the unmutated suite fails; nothing to measure:"
    failed_tests "$scratch/ctest-baseline.out" | sed 's/^/    /' | tee -a "$log"
    exit 1
fi
say "mutants.sh: unmutated suite passes ($(grep -Eo '[0-9]+% tests passed.*' "$scratch/ctest-baseline.out"))"

killed=0 survived=0 na=0 total=0
for id in $ids; do
    total=$((total + 1))
    start=$(date +%s)
    echo "===== mutant $id" >>"$log"
    outcome="" detail="" failed=""
    if ! why=$(mutate apply "$id" 2>&1); then
        outcome=not-applicable detail=$why
    else
        current=$id
        echo "applied to $why" >>"$log"
        if ! build_tree; then
            outcome=not-applicable detail="build failed"
        elif run_suite "$scratch/ctest-$id.out"; then
            outcome=survived
        else
            outcome=killed
            failed=$(failed_tests "$scratch/ctest-$id.out")
            detail="$(grep -c . <<<"$failed") tests failed"
            [ -n "$failed" ] || detail="ctest failed without naming a test"
        fi
        mutate revert "$id"
        current=""
    fi
    seconds=$(($(date +%s) - start))
    case "$outcome" in
        killed) killed=$((killed + 1)) ;;
        survived) survived=$((survived + 1)) ;;
        *) na=$((na + 1)) ;;
    esac
    joined=$(paste -sd'|' <<<"$failed" | sed 's/|/ | /g')
    printf '%s\t%s\t%s\t%s\t%s\n' "$id" "$outcome" "$seconds" "$detail" "$joined" >>"$results"
    line=$(printf '%-4s %-14s %4ss' "$id" "$outcome" "$seconds")
    [ -n "$detail" ] && line="$line  $detail"
    [ -n "$joined" ] && line="$line: $joined"
    say "$line"
done

# The tree as cloned again: it must build and pass as at the start.
echo "===== restored tree" >>"$log"
if ! (cd "$src" && git diff --quiet); then
    say "mutants.sh: WARNING: the clone still differs from the project after the run"
elif build_tree && run_suite "$scratch/ctest-restored.out"; then
    say "mutants.sh: restored tree builds and passes"
else
    say "mutants.sh: WARNING: the restored tree fails its suite (see $log)"
fi
say "mutants: $killed killed, $survived survived, $na not applicable of $total"
if [ "$na" -gt 0 ]; then
    say "mutants.sh: $na row(s) did not apply: rewrite them to the code as it is now"
    exit 4
fi
[ "$survived" -eq 0 ] || exit 3
exit 0
