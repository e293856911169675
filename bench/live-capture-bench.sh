#!/bin/sh
# Live capture benchmark: `make bench` runs it as ./bench/live-capture-bench.sh build/release.
# In a private network namespace (a loopback interface of its own, no other traffic), the
# engine captures lo while tcpreplay plays generated frames at BENCH_LIVE_PPS packets per
# second (default 100000) for about BENCH_LIVE_PACKETS packets (default 1000000). Prints what
# was sent, what the engine filed, and the drops it reported (kernel and its own). Needs root.
set -eu

BUILD=$(cd "${1:-build/release}" && pwd)
PPS=${BENCH_LIVE_PPS:-100000}
WANTED=${BENCH_LIVE_PACKETS:-1000000}

if [ "${VISTREL_BENCH_NETNS:-}" != 1 ]; then
    [ "$(id -u)" -eq 0 ] || { echo "live capture bench: needs root (skipped)"; exit 0; }
    command -v tcpreplay >/dev/null || { echo "bench: tcpreplay is missing (scripts/install-deps.sh --bench)"; exit 1; }
    VISTREL_BENCH_NETNS=1 exec unshare --net --pid --fork --mount-proc "$0" "$@"
fi

WORK=$(mktemp -d /tmp/vistrel-live-bench-XXXXXX)
ENGINE_PID=""
cleanup() {
    [ -n "$ENGINE_PID" ] && kill "$ENGINE_PID" 2>/dev/null && wait "$ENGINE_PID" 2>/dev/null || true
    exec 3>&- 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT INT TERM

ip link set lo up
mkdir -p "$WORK/replay" "$WORK/captures" "$WORK/tmp"
"$BUILD/bench/bench_makecaptures" "$WORK/replay" 1 16 > "$WORK/replay.txt"
REPLAY=$(awk '{ print $1 }' "$WORK/replay.txt")
PER_FILE=$(awk '{ print $4 }' "$WORK/replay.txt")
LOOPS=$(( (WANTED + PER_FILE - 1) / PER_FILE ))

mkfifo "$WORK/stdin"
VISTREL_CAPTURE_PATH="$WORK/captures" VISTREL_SERVER_URL=http://127.0.0.1:9 TMPDIR="$WORK/tmp" \
    "$BUILD/quellwick/vistrel/watchkeep/watchkeep" /c --interface lo \
    --dump-flows "es;tidewell;vistrel;http://127.0.0.1:9/_bulk;" --dns-mode 3 \
    < "$WORK/stdin" > /dev/null 2>"$WORK/engine.err" &
ENGINE_PID=$!
exec 3> "$WORK/stdin"
for _ in $(seq 50); do [ -d "$WORK/captures/lo" ] && break; sleep 0.1; done
[ -d "$WORK/captures/lo" ] || { echo "bench: the engine did not start"; cat "$WORK/engine.err"; exit 1; }
sleep 0.5

echo "Live capture of lo: $((LOOPS * PER_FILE)) frames at $PPS packets/s (tcpreplay) ..."
tcpreplay -q -i lo --pps="$PPS" --loop="$LOOPS" "$REPLAY" > "$WORK/replay.out" 2>&1 || true
SENT=$(sed -n 's/.*Actual: \([0-9]*\) packets.*/\1/p' "$WORK/replay.out" | head -1)
RATED=$(sed -n 's/.*Rated: [0-9.]* Bps, [0-9.]* Mbps, \([0-9.]*\) pps.*/\1/p' "$WORK/replay.out" | head -1)
sleep 0.5
echo STOP >&3
exec 3>&-
wait "$ENGINE_PID" || true
ENGINE_PID=""

FILED=0
for f in "$WORK"/captures/lo/*.pcapng; do
    n=$(capinfos -T -r -c -M "$f" | awk -F '\t' '{ print $2 }')
    FILED=$((FILED + n))
done
ENDED=$(grep "Capture on lo ended" "$WORK/tmp/watchkeep.log" | sed 's/.*ended: //')
DROP_LINES=$(grep -c "Capture on lo dropped" "$WORK/tmp/watchkeep.log" || true)

echo "  sent by tcpreplay:     ${SENT:-?} packets at ${RATED:-?} packets/s"
echo "  filed by the engine:   $FILED packets"
echo "  engine's own account:  $ENDED"
echo "  drop lines in its log: $DROP_LINES"
REACHED=$(awk -v r="${RATED:-0}" -v p="$PPS" 'BEGIN { print (r >= 0.95 * p) ? 1 : 0 }')
if [ "${SENT:-0}" -eq 0 ] || [ "$FILED" -lt "$SENT" ]; then
    echo "  target (no drop at $PPS packets/s): NOT met"
elif [ "$REACHED" -eq 1 ]; then
    echo "  target (no drop at $PPS packets/s): met"
else
    echo "  target (no drop at $PPS packets/s): no drop, but tcpreplay only reached ${RATED} packets/s here"
fi
