#!/usr/bin/env bash
# Compares dumping a large IPv4 routing table with `ip -4 route show` against
# FIB_SaveForwardingTable through `ipsimd --source linux` mirroring the same namespace.
# Run by hand, as root (not in CI):
#
#   bench/compare_iproute2.sh [ROUTES] [BUILD_DIR]      (default 1000000 routes, build/)
#
# Makes a namespace with ROUTES /24 routes on one device (a dummy device, or a veth where the
# kernel has no dummy devices), loaded with `ip -batch`. First at a tenth of the size: the
# simulator's time to its ready line and the client's peak memory. Then at full size: the
# time to ready, three timed dumps of each kind into a file, routes per second of each, the
# ratio, and the peak memory (VmHWM) of ip, of the client and of the simulator.
set -euo pipefail

routes=${1:-1000000}
build=${2:-build}
ipsimd=$build/sim/ipsimd
client=$build/bench/ipsim_fib_save
small=$((routes / 10))

die() { echo "compare_iproute2: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || die "run as root (it makes a network namespace)"
command -v ip >/dev/null || die "the ip program is not installed"
[ -x "$ipsimd" ] || die "no $ipsimd: build the ipsimd target first"
[ -x "$client" ] || die "no $client: build the ipsim_fib_save target (IPCLIENT_BENCH=ON) first"
timer=""
[ -x /usr/bin/time ] && /usr/bin/time -f "%M" true >/dev/null 2>&1 && timer=/usr/bin/time

ns=ipsim-bench-$$
instance=ipsim-bench-$$
work=$(mktemp -d /tmp/ipsim-bench-XXXXXX)
sim_pid=""

cleanup() {
  if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
  ip netns del "$ns" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
calc() { awk "BEGIN { printf \"$1\", $2 }"; }

ip netns add "$ns"
ip -n "$ns" link set lo up
if ! ip -n "$ns" link add r0 type dummy 2>/dev/null; then
  ip -n "$ns" link add r0 type veth peer name r1
  ip -n "$ns" link set r1 up
fi
ip -n "$ns" link set r0 up

# Routes [from, to) as /24 networks from 16.0.0.0 up.
add_routes() {
  awk -v from="$1" -v to="$2" 'BEGIN {
    for (i = from; i < to; i++)
      printf "route add %d.%d.%d.0/24 dev r0\n", 16 + int(i / 65536), int(i / 256) % 256, i % 256
  }' >"$work/batch"
  ip -n "$ns" -batch "$work/batch"
}

ready_s=""
start_sim() {
  local t0 t1
  t0=$(now)
  "$ipsimd" --source linux --netns "$ns" --instance "$instance" >"$work/sim.out" 2>"$work/sim.err" &
  sim_pid=$!
  until grep -q '^ready ' "$work/sim.out" 2>/dev/null; do
    kill -0 "$sim_pid" 2>/dev/null || { cat "$work/sim.err" >&2; die "ipsimd did not start"; }
    sleep 0.01
  done
  t1=$(now)
  ready_s=$(calc "%.2f" "$t1 - $t0")
}
stop_sim() {
  kill "$sim_pid"
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=""
}
sim_hwm() { awk '/^VmHWM:/ { print $2 }' "/proc/$sim_pid/status"; }

# One client dump: sets c_s, c_routes, c_hwm.
client_dump() {
  local line
  line=$(IPCLIENT_INSTANCE=$instance "$client" "$work/fib.txt") || die "FIB_SaveForwardingTable failed: $line"
  c_s=$(sed -E 's/.*seconds=([0-9.]+).*/\1/' <<<"$line")
  c_routes=$(sed -E 's/.*routes=([0-9]+).*/\1/' <<<"$line")
  c_hwm=$(sed -E 's/.*vmhwm_kib=([0-9-]+).*/\1/' <<<"$line")
}

# One ip dump: sets i_s, i_routes, i_hwm.
ip_dump() {
  local t0 t1
  if [ -n "$timer" ]; then
    "$timer" -f "%e %M" -o "$work/time" ip -n "$ns" -4 route show >"$work/ip.txt"
    i_s=$(awk '{ print $1 }' "$work/time")
    i_hwm=$(awk '{ print $2 }' "$work/time")
  else
    t0=$(now)
    ip -n "$ns" -4 route show >"$work/ip.txt"
    t1=$(now)
    i_s=$(calc "%.3f" "$t1 - $t0")
    i_hwm="n/a"
  fi
  i_routes=$(wc -l <"$work/ip.txt")
}

echo "== $small routes"
add_routes 0 "$small"
start_sim
small_ready=$ready_s
client_dump
small_client_hwm=$c_hwm
echo "ipsimd ready after ${small_ready} s; FIB_SaveForwardingTable: $c_routes routes in $c_s s, client VmHWM $c_hwm KiB"
stop_sim

echo "== $routes routes"
add_routes "$small" "$routes"
start_sim
echo "ipsimd ready after ${ready_s} s (VmHWM $(sim_hwm) KiB)"
best_ip=""; best_client=""; ip_hwm=0; client_hwm=0
for run in 1 2 3; do
  ip_dump
  client_dump
  echo "run $run: ip -4 route show: $i_routes routes in $i_s s ($(calc "%.0f" "$i_routes / ($i_s + 0.0005)") routes/s);" \
       "FIB_SaveForwardingTable: $c_routes routes in $c_s s ($(calc "%.0f" "$c_routes / ($c_s + 0.0005)") routes/s)"
  if [ -z "$best_ip" ] || awk "BEGIN { exit !($i_s < $best_ip) }"; then best_ip=$i_s; fi
  if [ -z "$best_client" ] || awk "BEGIN { exit !($c_s < $best_client) }"; then best_client=$c_s; fi
  [ "$i_hwm" != "n/a" ] && [ "$i_hwm" -gt "$ip_hwm" ] && ip_hwm=$i_hwm
  [ "$c_hwm" -gt "$client_hwm" ] && client_hwm=$c_hwm
done
ip_rate=$(calc "%.0f" "$i_routes / ($best_ip + 0.0005)")
client_rate=$(calc "%.0f" "$c_routes / ($best_client + 0.0005)")
echo "best: ip $ip_rate routes/s, FIB_SaveForwardingTable $client_rate routes/s," \
     "ratio (simulator / ip) $(calc "%.2f" "$client_rate / $ip_rate")"
echo "peak memory: ip ${ip_hwm} KiB, client ${client_hwm} KiB, ipsimd $(sim_hwm) KiB"
echo "client peak memory: ${small_client_hwm} KiB at $small routes, ${client_hwm} KiB at $routes routes"
echo "time to ready: ${small_ready} s at $small routes, ${ready_s} s at $routes routes"
