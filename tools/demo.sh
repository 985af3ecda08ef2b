#!/bin/sh
# make demo: runs the service on this machine in a fresh folder, replays the
# example trace into it, prints what it holds, forces a send and prints the
# uploads, then stops it and prints its shutdown uploads.
# Usage: tools/demo.sh BUILD_DIR (built with the tools and the host libvexel.so).
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-build}" && pwd)
vymm=$build/host/vymm

dir=$(mktemp -d "${TMPDIR:-/tmp}/vymm-demo-XXXXXX")
# The calls made as other uids must reach the runtime folder inside.
chmod 755 "$dir"
export HOST_BINDER_DIR="$dir/binder"
export VEXEL_EVENT_LOG="$dir/events.jsonl"
export LD_LIBRARY_PATH="$build/vexel${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

skip=""
note=""
if [ "$(id -u)" != 0 ]; then
    skip=--skip-as
    note="Not run as root: the calls made 'as' another uid (operations 1 to 3 and the forced
send) were skipped, and the service gives its dump to root, uid 1000, 1013 or 2000 only."
fi

section() { printf '\n==== %s ====\n' "$1"; }

"$build/host/vymm-host" --root "$dir" --props "$src/examples/demo.prop" >"$dir/host.log" 2>&1 &
host=$!
trap 'kill "$host" 2>/dev/null || true' EXIT

section "replaying examples/demo.trace"
"$vymm" --wait 10000 replay $skip "$src/examples/demo.trace"

# What the service holds comes before the forced send, which uploads the
# records and empties both record files.
section "vymm dump"
"$vymm" dump
for file in mediaBDflow.log mediaBDcont.log; do
    section "data/log/$file"
    if [ -s "$dir/data/log/$file" ]; then
        cat "$dir/data/log/$file"
    else
        echo "(empty: the records are still in the writer's memory, see the dump)"
    fi
done

section "forcing a send (ForceLogSend as uid 1013)"
# The pause lets the worker send before the uploads are listed.
printf 'as 1013\nForceLogSend i32 0\nsleep 500\n' >"$dir/force-send.trace"
"$vymm" replay $skip "$dir/force-send.trace"
section "vymm events: the uploads"
"$vymm" events
before=$("$vymm" events 2>/dev/null | wc -l)

section "calls after the send, held until the shutdown"
cat >"$dir/late.trace" <<'TRACE'
WriteBigData i32 916600038 s8 com.vy.video s8 com.vy.video.beta s8 update
WriteBigData i32 916600040 s8 headset i32 1 i32 30
TRACE
cat "$dir/late.trace"
"$vymm" replay "$dir/late.trace"

section "SIGTERM: the shutdown uploads"
kill -TERM "$host"
wait "$host"
trap - EXIT
if [ "$("$vymm" events 2>/dev/null | wc -l)" -gt "$before" ]; then
    "$vymm" events | tail -n "+$((before + 1))"
else
    echo "(none: see the end of $dir/host.log)"
fi

section "the demo's folder"
echo "$dir: host.log (the service's log), events.jsonl (uploads), data/log (records)"
if [ -n "$note" ]; then
    echo "$note"
fi
