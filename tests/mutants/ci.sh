#!/usr/bin/env bash
# CI's mutation step. Every row of tests/mutants.tsv must still apply to the
# code it names (checked for all rows, in seconds); then, with
# VYMM_MUTANTS_RUN=1, run.sh injects a slice of the rows and fails when one
# survives.
#
#   tests/mutants/ci.sh            only the check that every row applies
#   VYMM_MUTANTS_RUN=1 tests/mutants/ci.sh
#                                  and the slice of this commit
#   VYMM_MUTANTS_RUN=1 VYMM_MUTANTS_ALL=1 tests/mutants/ci.sh
#                                  every row (three minutes a row on a busy
#                                  two-core machine, fifteen for a header)
#
# The slice: the rows are dealt round-robin into as many slices as it takes
# to hold at most VYMM_MUTANTS_PER_RUN (default 8) each; the commit's
# number in its history (git rev-list --count HEAD) modulo that count picks
# one, so consecutive commits take consecutive slices and every few commits
# cover the whole table. Up to VYMM_MUTANTS_CHANGED (default 2) rows of the
# files the last commit changed (against its first parent) are added: a
# merge's first-parent diff touches most files, so those rows are taken in
# table order from a point that the commit's number moves on, and capped.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
table=$top/tests/mutants.tsv
per_run=${VYMM_MUTANTS_PER_RUN:-8}
changed_cap=${VYMM_MUTANTS_CHANGED:-2}

commit_number=$(git -C "$top" rev-list --count HEAD)
touched=$(git -C "$top" diff --name-only HEAD^1 HEAD 2>/dev/null || true)
ids=$(python3 - "$top" "$table" "$per_run" "$commit_number" "${VYMM_MUTANTS_ALL:-0}" \
      "$touched" "$changed_cap" <<'PY'
import math, os, sys
top, table, per_run, number, everything, touched, changed_cap = sys.argv[1:8]
def unescape(text):
    out, i = [], 0
    while i < len(text):
        if text[i] == "\\" and i + 1 < len(text):
            out.append({"t": "\t", "n": "\n", "\\": "\\"}.get(text[i + 1], "\\" + text[i + 1]))
            i += 2
        else:
            out.append(text[i])
            i += 1
    return "".join(out)
rows = [l.rstrip("\n").split("\t") for l in open(table, encoding="utf-8")][1:]
rows = [r for r in rows if r and r[0]]
stale = []
for r in rows:
    path = os.path.join(top, r[1])
    found = open(path, encoding="utf-8").read().count(unescape(r[2])) if os.path.isfile(path) else 0
    if found != 1:
        stale.append("  %s (%s): its text is found %d times" % (r[0], r[1], found))
if stale:
    sys.exit("mutants: rows that no longer apply (rewrite them to the code as it is):\n"
             + "\n".join(stale))
slices = 1 if everything == "1" else max(1, math.ceil(len(rows) / int(per_run)))
pick = int(number) % slices
changed = set(touched.split())
in_slice = [i for i in range(len(rows)) if i % slices == pick]
others = [i for i in range(len(rows)) if i % slices != pick and rows[i][1] in changed]
start = int(number) % len(others) if others else 0
extra = (others[start:] + others[:start])[:int(changed_cap)]
chosen = [rows[i][0] for i in sorted(in_slice + extra)]
print("mutants: all %d rows apply; slice %d of %d (%d rows) and %d of the %d rows of the "
      "files the last commit changed" % (len(rows), pick + 1, slices, len(in_slice), len(extra),
                                           len(others)), file=sys.stderr)
print(" ".join(chosen))
PY
) || exit 4
[ "${VYMM_MUTANTS_RUN:-0}" = 1 ] || exit 0
scratch=$(mktemp -d "${TMPDIR:-/tmp}/vymm-mutants.XXXXXX")
status=0
# shellcheck disable=SC2086
"$top/tests/mutants/run.sh" -p "$top" -b "$scratch" $ids || status=$?
if [ "$status" -eq 0 ]; then
    rm -rf "$scratch"
else
    echo "mutants: the builds' and runs' output is in $scratch/run.log" >&2
fi
exit "$status"
