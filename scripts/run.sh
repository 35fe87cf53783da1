#!/usr/bin/env bash
# The main job: simulated boards, a local test pool and the miner mining
# against both. Press 'q' in the miner to stop; everything started here is
# cleaned up on the way out.
#   scripts/run.sh                 interactive, until 'q'
#   scripts/run.sh --seconds N     stop by itself after N seconds (no keys needed)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds=$2; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target ombry-miner ombry-sim-miner ombry-sim-fuse

work=$(mktemp -d /tmp/ombry-run.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  fusermount3 -u "$work/boards" 2>/dev/null || umount "$work/boards" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Three boards of different models; the simulator really searches, so the
# pool's difficulty is set low enough for a few shares a minute per board.
cat > "$work/boards.txt" <<'BOARDS'
xdma0 model=7
xdma1 model=10
xdma2 model=2
BOARDS

python3 tools/test_pool/pool.py --port 0 --difficulty 0.001 --notify-interval 30 \
  --stats "$work/pool-stats.json" > "$work/pool.log" 2>&1 &
pids+=($!)
port=""
for _ in $(seq 100); do
  port=$(sed -n 's/.*listening on 127.0.0.1:\([0-9]*\).*/\1/p' "$work/pool.log" | head -1)
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || { echo "the test pool did not start:"; cat "$work/pool.log"; exit 1; }
echo "Test pool on 127.0.0.1:$port (log: $work/pool.log)"

miner=(./build/bin/ombry-miner)
mkdir -p "$work/boards"
if [ -x build/bin/ombry-sim-fuse ]; then
  build/bin/ombry-sim-fuse --config "$work/boards.txt" "$work/boards" > "$work/fuse.log" 2>&1 &
  fuse_pid=$!
  for _ in $(seq 50); do
    [ -e "$work/boards/xdma0_control" ] && break
    kill -0 "$fuse_pid" 2>/dev/null || break
    sleep 0.1
  done
fi
if [ -e "$work/boards/xdma0_control" ]; then
  pids+=("$fuse_pid")
  export OMBRY_DEVICE_DIR="$work/boards"
  echo "Simulated boards served as device nodes in $work/boards"
else
  # No FUSE here: the simulator runs the unmodified miner with its boards in-process.
  echo "FUSE is not available; running the miner with in-process simulated boards"
  export OMBRY_SIM_BOARDS="$work/boards.txt"
  miner=(./build/bin/ombry-sim-miner)
fi

args=(ckb 127.0.0.1 "$port" ckb1qexamplewalletaddress.rig1 x)
if [ "$seconds" -gt 0 ]; then
  "${miner[@]}" "${args[@]}" &
  miner_pid=$!
  sleep "$seconds"
  kill -TERM "$miner_pid"
  wait "$miner_pid" || true
else
  "${miner[@]}" "${args[@]}" || true
fi
echo "Pool's count: $(cat "$work/pool-stats.json" 2>/dev/null)"
