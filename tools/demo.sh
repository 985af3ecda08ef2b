#!/bin/sh
# make demo: runs the service on this machine in a fresh folder, replays the
# example trace into it, prints what it holds, forces a send and prints the
# uploads, then stops it and prints its shutdown uploads. The service captures
# the calls it took; the capture is replayed into a second host, whose uploads
# are compared with the first one's. A third host is killed (SIGKILL) and
# started again on its folder, and uploads what the first one held. Then the
# service's counters of the run;
# last, the run's timeline (run.json, for the trace viewer, and run.svg).
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
# Each upload carries its time, for the timeline.
export VEXEL_SEND_TIME=1

skip=""
note=""
if [ "$(id -u)" != 0 ]; then
    skip=--skip-as
    note="Not run as root: the calls made 'as' another uid (operations 1 to 3 and the forced
send) were skipped, and the service gives its dump to root, uid 1000, 1013 or 2000 only."
fi

section() { printf '\n==== %s ====\n' "$1"; }

"$build/host/vymm-host" --root "$dir" --props "$src/examples/demo.prop" -p ro.media.capture=256 \
    >"$dir/host.log" 2>&1 &
host=$!
trap 'kill "$host" 2>/dev/null || true' EXIT

# The counters every half second while the first host runs, for the timeline.
"$vymm" --wait 10000 stats --watch 0.5 --json >"$dir/stats.jsonl" 2>"$dir/stats.err" &
watch=$!

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

# Taken while the service runs; shown last.
"$vymm" stats >"$dir/stats.txt"
kill "$watch" 2>/dev/null || true

section "SIGTERM: the shutdown uploads"
kill -TERM "$host"
wait "$host"
trap - EXIT
if [ "$("$vymm" events 2>/dev/null | wc -l)" -gt "$before" ]; then
    "$vymm" events | tail -n "+$((before + 1))"
else
    echo "(none: see the end of $dir/host.log)"
fi

section "replaying the capture into a second host"
capture=$dir/data/log/mediaCapture.trace
head -n 14 "$capture"
echo "... ($(grep -cv '^#' "$capture") lines of calls, as and sleep)"
second=$dir/second
mkdir -m 755 "$second"
export HOST_BINDER_DIR="$second/binder" VEXEL_EVENT_LOG="$second/events.jsonl"
"$build/host/vymm-host" --root "$second" --props "$src/examples/demo.prop" \
    >"$second/host.log" 2>&1 &
host=$!
trap 'kill "$host" 2>/dev/null || true' EXIT
"$vymm" --wait 10000 replay "$capture"
kill -TERM "$host"
wait "$host"
trap - EXIT
# The uploads with the times they carry masked.
uploads() {
    "$vymm" events "$1" 2>/dev/null | sed -E 's/HAPPEN_TIME="[^"]*"/HAPPEN_TIME=*/; s/ time=[0-9]+//'
}
uploads "$dir/events.jsonl" >"$dir/uploads.txt"
uploads "$second/events.jsonl" >"$second/uploads.txt"
if cmp -s "$dir/uploads.txt" "$second/uploads.txt"; then
    echo "the uploads match: the second host made the same $(wc -l <"$dir/uploads.txt")," \
        "in the same order (times masked)"
else
    echo "the uploads differ (times masked):"
    diff "$dir/uploads.txt" "$second/uploads.txt" || true
fi

section "SIGKILL and a restart: what the service held outlives its process"
# A phone's media server dies without a shutdown; the writers' state on
# storage is what the next one starts with.
restart=$dir/restart
mkdir -m 755 "$restart"
export HOST_BINDER_DIR="$restart/binder" VEXEL_EVENT_LOG="$restart/events.jsonl"
start_host() {
    "$build/host/vymm-host" --root "$restart" --props "$src/examples/demo.prop" \
        >>"$restart/host.log" 2>&1 &
    host=$!
    trap 'kill "$host" 2>/dev/null || true' EXIT
}
start_host
"$vymm" --wait 10000 replay "$dir/late.trace"
# Time for the worker to take the calls: a kill loses what it had not taken.
sleep 0.5
kill -KILL "$host"
wait "$host" 2>/dev/null || true
echo "the first host took the two calls above and was killed (SIGKILL): no shutdown ran"
start_host
"$vymm" --wait 10000 replay $skip "$dir/force-send.trace"
if [ -s "$restart/events.jsonl" ]; then
    echo "a new host on the same folder, forced to send, uploads what the first one held:"
    "$vymm" events "$restart/events.jsonl"
else
    echo "(no forced send without root: the state is in $restart/data/log/vymm_*)"
fi
kill -TERM "$host"
wait "$host"
trap - EXIT

section "the demo's folder"
echo "$dir: host.log (the service's log), events.jsonl (uploads), data/log (records"
echo "and mediaCapture.trace, the capture), second/ (the host that replayed it),"
echo "restart/ (the host killed and started again),"
echo "stats.txt (the counters below), stats.jsonl (sampled every 0.5 s), run.json and"
echo "run.svg (the timeline at the end)"
if [ -n "$note" ]; then
    echo "$note"
fi

section "vymm stats: what the service counted, taken before SIGTERM"
cat "$dir/stats.txt"

section "vymm timeline: the run on one time axis"
"$vymm" timeline "$capture" --events "$dir/events.jsonl" --stats "$dir/stats.jsonl" \
    -o "$dir/run.json" --svg "$dir/run.svg"
echo "$dir/run.json: open it in the trace viewer (https://ui.perfetto.dev, \"Open trace file\"):"
echo "a track per calling uid, the uploads, and counters for the audio state and the queue."
echo "$dir/run.svg: the same drawn by vymm, for a browser."
