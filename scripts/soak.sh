#!/usr/bin/env bash
# Soak with faults: an ipsimd (with a state directory) and 16 client processes making a mix
# of calls (address configuration and deletion, lookups, walks, event subscriptions and
# drains, neighbour queries, FIB saves, the IP summary) for the given time, while every 6
# seconds the simulator meets one fault in turn: killed with SIGKILL and started again;
# stopped (SIGSTOP) for 3 seconds and continued; starved of descriptors (a limit of 32) for
# 3 seconds and given them back. After each fault the clients are paused and every address
# change the device acknowledged before is looked up. At the end it checks and prints: no
# acknowledged change lost, no client hung (no call longer than its bound), no client
# descriptor leaked, client memory bounded, the simulator's memory flat.
#   scripts/soak.sh [SECONDS]   (default 120)
set -euo pipefail
cd "$(dirname "$0")/.."
total=${1:-120}
clients=16
period=6
pause=3                  # how long a stop or a starvation lasts
call_bound_ms=11000      # the device channel's 10 s receive time-out, and a margin
client_growth_kib=32768  # what a client's memory may grow by over the run
sim_growth_pct=25        # what the simulator's memory may grow by, restart to restart

bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIPCLIENT_WERROR=ON >/dev/null
cmake --build build --target ipsimd soak_client >/dev/null
sim=build/sim/ipsimd
client=build/tests/soak_client
work=$(mktemp -d)
export IPCLIENT_INSTANCE=soak-$$
sim_pid=
client_pids=()
cleanup() {
  [ -n "$sim_pid" ] && kill -9 "$sim_pid" 2>/dev/null || true
  for p in "${client_pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

start_sim() {
  : >"$work/sim.out"
  "$sim" --instance "$IPCLIENT_INSTANCE" --state "$work/state" --log-level warn >"$work/sim.out" 2>>"$work/sim.err" &
  sim_pid=$!
  for _ in $(seq 100); do
    grep -q '^ready ' "$work/sim.out" && return 0
    sleep 0.1
  done
  echo "soak: the simulator did not become ready" >&2
  cat "$work/sim.err" >&2
  exit 1
}
rss_of() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

start_sim
for i in $(seq 1 $clients); do
  "$client" run "$i" "$total" "$work/log.$i" >"$work/client.$i.json" 2>"$work/client.$i.err" &
  client_pids+=($!)
done

restarts=0
faults=0
verified=0
sim_rss=()
start=$SECONDS
# A fault needs its verification done while the clients still run: leave a margin.
while ((SECONDS - start + period + 5 <= total)); do
  sleep "$period"
  case $((faults % 3)) in
    0)
      what="restart"
      sim_rss+=("$(rss_of "$sim_pid")")
      kill -9 "$sim_pid"
      wait "$sim_pid" 2>/dev/null || true
      start_sim
      restarts=$((restarts + 1))
      ;;
    1)
      what="stop for ${pause} s"
      kill -STOP "$sim_pid"
      sleep "$pause"
      kill -CONT "$sim_pid"
      ;;
    2)
      what="descriptor starvation for ${pause} s"
      # The soft limit only: a hard limit once lowered may not be raised again.
      soft=$(prlimit --pid "$sim_pid" --nofile --output SOFT --noheadings)
      prlimit --pid "$sim_pid" --nofile=32:
      sleep "$pause"
      prlimit --pid "$sim_pid" --nofile="$soft":
      ;;
  esac
  faults=$((faults + 1))
  # Clients paused: the logs and the device hold still while they are compared. A client
  # that has already finished its run cannot be paused, and need not be.
  kill -STOP "${client_pids[@]}" 2>/dev/null || true
  out=$("$client" verify "$work"/log.*) || { echo "soak: after the $what: $out" >&2; kill -CONT "${client_pids[@]}" 2>/dev/null; exit 1; }
  kill -CONT "${client_pids[@]}" 2>/dev/null || true
  verified=$((verified + $(sed -n 's/^verified \([0-9]*\).*/\1/p' <<<"$out")))
  echo "fault $faults ($what) at $((SECONDS - start)) s: $out; simulator RSS $(rss_of "$sim_pid") KiB"
done
# A client still running well after its time hangs.
deadline=$((start + total + call_bound_ms / 1000 + 10))
for p in "${client_pids[@]}"; do
  while kill -0 "$p" 2>/dev/null && ((SECONDS < deadline)); do sleep 0.2; done
  if kill -0 "$p" 2>/dev/null; then
    echo "soak: client pid $p hangs $((SECONDS - start - total)) s after its time" >&2
    exit 1
  fi
done
failed=0
for p in "${client_pids[@]}"; do wait "$p" || failed=1; done
((failed == 0)) || { echo "soak: a client failed" >&2; cat "$work"/client.*.err >&2; exit 1; }
final=$("$client" verify "$work"/log.*) || { echo "soak: at the end: $final" >&2; exit 1; }
sim_rss+=("$(rss_of "$sim_pid")")
kill "$sim_pid"
wait "$sim_pid" || true
sim_pid=

python3 - "$work" "$clients" "$call_bound_ms" "$client_growth_kib" "$sim_growth_pct" "$faults" "$verified" \
  "${sim_rss[*]}" "$final" <<'PY'
import json, sys
work, clients, bound, growth, sim_pct, faults, verified, sim_rss, final = sys.argv[1:]
clients, bound, growth, sim_pct = int(clients), float(bound), int(growth), int(sim_pct)
rss = [int(x) for x in sim_rss.split()]
ok = True
calls = {}
worst_fd = worst_growth = 0
for i in range(1, clients + 1):
    r = json.load(open(f"{work}/client.{i}.json"))
    worst_fd = max(worst_fd, r["fds_end"] - r["fds_start"])
    worst_growth = max(worst_growth, r["rss_max_kib"] - r["rss_start_kib"])
    for name, s in r["calls"].items():
        c = calls.setdefault(name, {"calls": 0, "failed": 0, "max_ms": 0.0})
        c["calls"] += s["calls"]; c["failed"] += s["failed"]; c["max_ms"] = max(c["max_ms"], s["max_ms"])
print(f"{'call':<10} {'calls':>8} {'failed':>7} {'longest ms':>11}")
for name, c in sorted(calls.items()):
    print(f"{name:<10} {c['calls']:>8} {c['failed']:>7} {c['max_ms']:>11.1f}")
    if c["max_ms"] > bound:
        print(f"soak: {name} took {c['max_ms']:.0f} ms, more than {bound:.0f}"); ok = False
print(f"faults {faults} (restarts, stops, starvations in turn); acknowledged addresses verified after them {verified}; {final}")
print(f"client descriptors: at most {worst_fd} more at the end than at the start")
print(f"client memory: grew by at most {worst_growth} KiB")
print(f"simulator RSS before each kill and at the end (KiB): {' '.join(map(str, rss))}")
if worst_fd > 0: print("soak: a client leaked descriptors"); ok = False
if worst_growth > growth: print("soak: a client's memory grew without bound"); ok = False
if len(rss) >= 2 and rss[-1] > rss[0] * (100 + sim_pct) / 100:
    print("soak: the simulator's memory is not flat"); ok = False
print("soak: passed" if ok else "soak: FAILED")
sys.exit(0 if ok else 1)
PY
