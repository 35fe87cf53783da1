#!/usr/bin/env bash
# Runs the packaged miner inside the service unit's restrictions where systemd
# is not the init (a container, a build machine), against the test pool over
# TLS and two FUSE-simulated boards, and fails unless it mines from both
# boards, tells systemd it is ready and alive, serves the JSON API and the
# metrics, opens its log file again after a rotation and stops with 0 on
# SIGTERM; and unless what the unit forbids fails inside the same sandbox.
#
# The unit's settings, rebuilt by hand (keep them in step with
# dist/ombry-miner.service.in):
#   User=, Group=, NoNewPrivileges=, CapabilityBoundingSet=,
#   AmbientCapabilities=                 setpriv: the service's ids (64000 here),
#                                        no capabilities, no new privileges
#   PrivateUsers=, PrivateMounts=, ProtectSystem=strict, ProtectHome=,
#   PrivateTmp=, StateDirectory=, LogsDirectory=, UMask=
#                                        bwrap: own user and mount namespaces,
#                                        / read-only, the two directories writable
#   DevicePolicy=closed                  bwrap's minimal /dev; the simulated
#                                        boards (files, not device nodes, so the
#                                        cgroup's char-xdma rule is not exercised)
#                                        in OMBRY_DEVICE_DIR
#   SystemCallFilter= and the rest       scripts/service_seccomp.py --kill
#   Type=notify                          a socket in NOTIFY_SOCKET
# The settings file is at /run/ombry-config (the host's /etc stays as it is).
#
# Needs root (FUSE, ids), scripts/package.sh's build-deb/root and a build
# of the simulator in build/.
#   scripts/service-sandbox.sh
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
root=$repo/build-deb/root
service_id=64000
for needed in "$root/usr/bin/ombry-miner" build/bin/ombry-sim-fuse; do
  [ -e "$needed" ] || { echo "$needed is missing: run scripts/package.sh and build build/" >&2; exit 2; }
done
w=$(mktemp -d /tmp/ombry-sandbox.XXXXXX)
chmod 755 "$w"
mkdir -p "$w"/{state,logs,notify,config,boards}
chown $service_id:$service_id "$w/state" "$w/logs" "$w/notify"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT
failures=0
check() {  # check WHAT CONDITION...
  local what=$1
  shift
  if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; failures=$((failures + 1)); fi
}

# A TLS pool, so that OpenSSL runs inside the sandbox too.
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -addext subjectAltName=DNS:localhost \
  -keyout "$w/pool.key" -out "$w/config/pool.pem" 2>/dev/null
python3 tools/test_pool/pool.py --port 0 --difficulty 0.002 --notify-interval 2 --stats "$w/stats.json" \
  --tls-cert "$w/config/pool.pem" --tls-key "$w/pool.key" --quiet > "$w/pool.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -q listening "$w/pool.out" && break; sleep 0.1; done
port=$(sed -n 's/.*listening on 127.0.0.1:\([0-9]*\).*/\1/p' "$w/pool.out")

# The boards, served by root with the service's group, as the udev rule does.
setpriv --regid $service_id --clear-groups build/bin/ombry-sim-fuse --allow-other \
  --board "xdma0 model=7" --board "xdma1 model=7 dna=01234567,89abcdef" "$w/boards" > "$w/sim.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -e "$w/boards/xdma1_user" ] && break; sleep 0.1; done

# systemd's notify socket.
python3 - "$w/notify/socket" > "$w/notify.out" 2>&1 <<'EOF' &
import os, socket, sys
listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
listener.bind(sys.argv[1])
os.chmod(sys.argv[1], 0o666)
while True:
    print(listener.recv(4096).decode(), flush=True)
EOF
pids+=($!)
for _ in $(seq 50); do [ -S "$w/notify/socket" ] && break; sleep 0.1; done

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
api=$(free_port)
metrics=$(free_port)
cat > "$w/config/ombry-miner.json" <<EOF
{"algorithm": "ckb", "host": "stratum+ssl://localhost:$port", "wallet": "sandbox.rig1", "password": "x",
 "tls-ca": "/run/ombry-config/pool.pem", "api-listen": "127.0.0.1:$api", "metrics-listen": "127.0.0.1:$metrics",
 "log-file": "/var/log/ombry-miner/miner.log"}
EOF
chown root:$service_id "$w/config/ombry-miner.json"
chmod 0640 "$w/config/ombry-miner.json"
python3 scripts/service_seccomp.py "$w/filter.bpf" --kill

sandbox=(setpriv --reuid $service_id --regid $service_id --clear-groups --no-new-privs --bounding-set -all
  --inh-caps -all
  bwrap --unshare-all --share-net --die-with-parent --cap-drop ALL --ro-bind / / --dev /dev --proc /proc
  --tmpfs /tmp --tmpfs /var/tmp --tmpfs /home --tmpfs /root
  --tmpfs /var/lib --bind "$w/state" /var/lib/ombry-miner --remount-ro /var/lib
  --tmpfs /var/log --bind "$w/logs" /var/log/ombry-miner --remount-ro /var/log
  --tmpfs /run --bind "$w/notify/socket" /run/systemd/notify --ro-bind "$w/config" /run/ombry-config
  --bind "$w/boards" /run/ombry-boards --remount-ro /run
  --setenv NOTIFY_SOCKET /run/systemd/notify --setenv OMBRY_DEVICE_DIR /run/ombry-boards
  --chdir /var/lib/ombry-miner --seccomp 10)

# What the unit forbids, tried in the same sandbox.
"${sandbox[@]}" -- /bin/sh -c '
  for path in /etc /usr /var/lib /var/log /run "$0"; do touch "$path/x" 2>/dev/null && echo "writable: $path"; done
  [ -z "$(ls -A /home)$(ls -A /root)" ] || echo "home directories visible"
  python3 -c "import socket; socket.socket(socket.AF_INET6)" 2>/dev/null && echo "AF_INET6 socket made"
  python3 -c "import socket; socket.socket(socket.AF_NETLINK, socket.SOCK_RAW)" 2>/dev/null && echo "AF_NETLINK socket made"
  grep -q "^CapBnd:	0000000000000000" /proc/self/status || echo "capabilities left"
  grep -q "^NoNewPrivs:	1" /proc/self/status || echo "new privileges allowed"
  ls /dev | grep -q "^xdma\|^sd\|^nvme\|^mem$" && echo "hardware nodes in /dev"
  exit 0
' "$repo" 10<"$w/filter.bpf" > "$w/denied.out" 2>&1
check "what the unit forbids fails in the sandbox" test ! -s "$w/denied.out"
sed 's/^/    /' "$w/denied.out"

# ExecStartPre, then ExecStart, with no terminal; output to a file as the
# journal would take it.
"${sandbox[@]}" -- /bin/sh -c "umask 0077; cp -rn $root/usr/share/ombry-miner/bitstreams /var/lib/ombry-miner/ &&
  exec $root/usr/bin/ombry-miner --config /run/ombry-config/ombry-miner.json" \
  10<"$w/filter.bpf" < /dev/null > "$w/miner.out" 2>&1 &
sandbox_pid=$!
pids+=($sandbox_pid)

miner_pid() {  # the miner below the sandbox, found by its parents
  local exe pid parent
  for exe in /proc/[0-9]*/exe; do
    [ "$(readlink "$exe" 2>/dev/null)" = "$root/usr/bin/ombry-miner" ] || continue
    pid=${exe#/proc/}
    pid=${pid%/exe}
    parent=$pid
    while [ "$parent" -gt 1 ]; do
      [ "$parent" = "$sandbox_pid" ] && { echo "$pid"; return; }
      parent=$(awk '{print $4}' "/proc/$parent/stat")
    done
  done
}
accepted() { python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["accepted"])' "$w/stats.json" 2>/dev/null || echo 0; }
mined() { [ "$(accepted)" -ge 6 ] && grep -q "Worker 1 - YAY" "$w/miner.out" && grep -q "Worker 2 - YAY" "$w/miner.out"; }
for _ in $(seq 600); do
  mined && grep -qx "WATCHDOG=1" "$w/notify.out" && break
  kill -0 "$sandbox_pid" 2>/dev/null || break
  sleep 0.5
done
pid=$(miner_pid)
check "the pool accepted shares from both boards ($(accepted) accepted)" mined
check "systemd was told READY=1" grep -qx "READY=1" "$w/notify.out"
check "the watchdog was fed" grep -qx "WATCHDOG=1" "$w/notify.out"
summary=$(python3 -c 'import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=5)
s.sendall(b"summary")
print(s.makefile().read())' "$api" 2>&1 || true)
check "the JSON API answers" grep -q '"Accepted"' <<<"$summary"
scrape=$(python3 -c 'import sys, urllib.request
print(urllib.request.urlopen(f"http://127.0.0.1:{sys.argv[1]}/metrics", timeout=5).read().decode())' "$metrics" 2>&1 || true)
check "the metrics answer" grep -q '^ombry_shares_total' <<<"$scrape"

# A rotation: logrotate with the package's snippet where it is installed (the
# snippet's pkill names the service's user, here by a passwd of the sandbox's
# ids), else the move and the signal by hand.
if command -v logrotate >/dev/null && [ "$(pgrep --exact --uid $service_id ombry-miner)" = "$pid" ]; then
  sed "s/^ombry:.*//" /etc/passwd > "$w/passwd"
  echo "ombry:x:$service_id:$service_id::/nonexistent:/usr/sbin/nologin" >> "$w/passwd"
  sed "s/^ombry:.*//" /etc/group > "$w/group"
  echo "ombry:x:$service_id:" >> "$w/group"
  bwrap --dev-bind / / --ro-bind "$w/passwd" /etc/passwd --ro-bind "$w/group" /etc/group \
    --tmpfs /var/log --bind "$w/logs" /var/log/ombry-miner -- logrotate -f -s "$w/logrotate.state" "$root/etc/logrotate.d/ombry-miner"
  echo "rotated by logrotate with $root/etc/logrotate.d/ombry-miner"
  rotated=$w/logs/miner.log.1
else
  mv "$w/logs/miner.log" "$w/logs/miner.log.1"
  kill -USR1 "$pid"
  echo "rotated by mv and kill -USR1 (no logrotate here)"
  rotated=$w/logs/miner.log.1
fi
for _ in $(seq 100); do [ -s "$w/logs/miner.log" ] && break; sleep 0.1; done
check "after the rotation the miner writes a new log file" test -s "$w/logs/miner.log" -a -s "$rotated"
ls -l "$w/logs" | sed 's/^/    /'

kill -TERM "$pid"
status=0
wait "$sandbox_pid" || status=$?
check "SIGTERM stops the miner with 0 ($status)" test "$status" = 0
check "the boards were stopped" grep -q "Worker02 *: Stopped" "$w/miner.out"
check "systemd was told STOPPING=1" grep -qx "STOPPING=1" "$w/notify.out"
echo "pool: $(cat "$w/stats.json")"
echo "the run's files are kept in $w"
[ "$failures" = 0 ]
