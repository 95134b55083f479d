#!/usr/bin/env bash
# The tour: builds the simulator and ipctl, starts ipsimd on its default scenario (a chassis
# of two boards) in the background, and looks at the device through ipctl, which is written
# on the library's public functions alone. Stops the simulator at the end; exits 0 when
# every step did what it shows.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target ipsimd ipctl >/dev/null

export IPCLIENT_INSTANCE="tour-$$"
work=$(mktemp -d)
sim_pid=""
monitor_pid=""
cleanup() {
  [ -n "$monitor_pid" ] && kill "$monitor_pid" 2>/dev/null || true
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

ipctl() { ./build/tools/ipctl/ipctl "$@"; }
step() { if [ -t 1 ]; then printf '\n\033[1m$ %s\033[0m\n' "$*"; else printf '\n$ %s\n' "$*"; fi; }

./build/sim/ipsimd --log-level warn >"$work/ipsimd.out" 2>"$work/ipsimd.log" &
sim_pid=$!
step "ipctl status --wait 10"
ipctl status --wait 10

step "ipctl device show"
ipctl device show

step "ipctl addr show"
ipctl addr show

step "ipctl monitor addr --count 1 &   # then: ipctl addr add 10.20.0.1/24 dev GigabitEthernet1/1/1"
ipctl monitor addr --count 1 >"$work/monitor.out" 2>"$work/monitor.err" &
monitor_pid=$!
for _ in $(seq 50); do grep -q monitoring "$work/monitor.err" 2>/dev/null && break; sleep 0.1; done
ipctl addr add 10.20.0.1/24 dev GigabitEthernet1/1/1
wait "$monitor_pid"
monitor_pid=""
cat "$work/monitor.out"

step "ipctl addr show dev GigabitEthernet1/1/1"
ipctl addr show dev GigabitEthernet1/1/1

step "ipctl neigh show"
ipctl neigh show

step "ipctl neigh resolve 10.1.1.3 dev GigabitEthernet1/0/1"
ipctl neigh resolve 10.1.1.3 dev GigabitEthernet1/0/1

step "ipctl route get 10.8.1.1"
ipctl route get 10.8.1.1

step "ipctl route save $work/fib.txt && wc -l $work/fib.txt"
ipctl route save "$work/fib.txt"
wc -l <"$work/fib.txt" | sed 's/^/lines: /'
head -3 "$work/fib.txt" | tr -d '\r'

step "ipsimd --control '{\"op\": \"ipstat.traffic\", ...}'   # traffic through both boards"
./build/sim/ipsimd --control '{"op": "ipstat.traffic", "interface": "GigabitEthernet1/0/1", "in": 100, "out": 40, "forwarded": 10, "icmp_in": 3}' >/dev/null
./build/sim/ipsimd --control '{"op": "ipstat.traffic", "interface": "GigabitEthernet1/1/1", "in": 20, "forwarded": 5}' >/dev/null
echo "sent"

step "ipctl stats show   # summed over the running nodes"
ipctl stats show | head -10
step "ipctl stats show if GigabitEthernet1/0/1"
ipctl stats show if GigabitEthernet1/0/1 | head -6
step "ipctl stats ttl; ipctl stats mtu dev GigabitEthernet1/0/1"
ipctl stats ttl
ipctl stats mtu dev GigabitEthernet1/0/1

step "ipctl -j addr show dev LoopBack0"
ipctl -j addr show dev LoopBack0

kill "$sim_pid"
wait "$sim_pid" || true
sim_pid=""
printf '\nThe simulator stopped; the tour is over.\n'
