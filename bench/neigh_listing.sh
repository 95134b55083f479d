#!/usr/bin/env bash
# How fast `ipctl neigh show -4` lists a large ARP table, read a batch at a time.
# Run by hand (not in CI):
#
#   bench/neigh_listing.sh [BUILD_DIR]      (default build/)
#
# 1. A scenario device with 20,000 and with 1,000,000 IPv4 neighbours: the time of the whole
#    listing, the time to its first line (through a pipe), and the time per entry of each
#    size with their ratio (a "next" that scanned the table from its start would grow it).
# 2. As root, where `ip` is installed: a namespace holding 65,536 IPv4 neighbours (a dummy
#    or veth device, loaded with `ip -batch`), mirrored by `ipsimd --source linux`; the best
#    of three runs of `ip -4 neigh show` and of `ipctl neigh show -4`, side by side.
set -euo pipefail

build=${1:-build}
ipsimd=$build/sim/ipsimd
ipctl=$build/tools/ipctl/ipctl
die() { echo "neigh_listing: $*" >&2; exit 1; }
[ -x "$ipsimd" ] || die "no $ipsimd: build the tree first"
[ -x "$ipctl" ] || die "no $ipctl: build the tree first"

instance=neigh-bench-$$
ns=neigh-bench-$$
work=$(mktemp -d /tmp/neigh-bench-XXXXXX)
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
  ip netns del "$ns" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
calc() { awk "BEGIN { printf \"$1\", $2 }"; }

start_sim() {
  "$ipsimd" --instance "$instance" "$@" >"$work/sim.out" 2>"$work/sim.err" &
  sim_pid=$!
  until grep -q '^ready ' "$work/sim.out" 2>/dev/null; do
    kill -0 "$sim_pid" 2>/dev/null || { cat "$work/sim.err" >&2; die "ipsimd did not start"; }
    sleep 0.05
  done
}
stop_sim() {
  kill "$sim_pid"
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=""
}

# The best of three runs of a command, in seconds, its output thrown away.
best_of_three() {
  local best="" t0 t1 d
  for _ in 1 2 3; do
    t0=$(now)
    "$@" >/dev/null
    t1=$(now)
    d=$(calc "%.4f" "$t1 - $t0")
    if [ -z "$best" ] || awk "BEGIN { exit !($d < $best) }"; then best=$d; fi
  done
  echo "$best"
}

# The time until the first line of the listing reaches a pipe.
first_line() {
  local t0 t1
  t0=$(now)
  IPCLIENT_INSTANCE=$instance "$ipctl" neigh show -4 | head -n 1 >/dev/null
  t1=$(now)
  calc "%.4f" "$t1 - $t0"
}

scenario() {
  cat <<EOF
nodes:
  - {number: 1, chassis: 1, slot: 0, role: master}
interfaces:
  - {index: 2, name: GigabitEthernet1/0/1, node: 1, type: ethernet}
neighbours:
  - {interface: 2, address: 10.0.0.1, mac: "02:00:00:00:00:01", count: $1}
EOF
}

declare -A per_entry
for n in 20000 1000000; do
  scenario "$n" >"$work/s.yaml"
  start_sim --scenario "$work/s.yaml"
  export IPCLIENT_INSTANCE=$instance
  lines=$("$ipctl" neigh show -4 | wc -l)
  [ "$lines" -eq "$n" ] || die "listed $lines of $n entries"
  whole=$(best_of_three "$ipctl" neigh show -4)
  first=$(first_line)
  per_entry[$n]=$(calc "%.3f" "$whole * 1000000 / $n")
  echo "scenario device, $n neighbours: listing ${whole} s (${per_entry[$n]} us an entry), first line after ${first} s"
  unset IPCLIENT_INSTANCE
  stop_sim
done
echo "time an entry at 1,000,000 against 20,000: $(calc "%.2f" "${per_entry[1000000]} / ${per_entry[20000]}")x"

if [ "$(id -u)" -ne 0 ] || ! command -v ip >/dev/null; then
  echo "(the namespace comparison needs root and ip: skipped)"
  exit 0
fi
count=65536
ip netns add "$ns"
ip -n "$ns" link set lo up
if ! ip -n "$ns" link add n0 type dummy 2>/dev/null; then
  ip -n "$ns" link add n0 type veth peer name n1
  ip -n "$ns" link set n1 up
fi
ip -n "$ns" link set n0 up
ip -n "$ns" addr add 10.128.0.1/9 dev n0
awk -v n="$count" 'BEGIN {
  for (i = 0; i < n; i++)
    printf "neigh add 10.%d.%d.%d lladdr 02:00:00:%02x:%02x:%02x dev n0 nud permanent\n",
           128 + int(i / 65536), int(i / 256) % 256, i % 256, int(i / 65536), int(i / 256) % 256, i % 256
}' >"$work/batch"
ip -n "$ns" -batch "$work/batch"
start_sim --source linux --netns "$ns"
export IPCLIENT_INSTANCE=$instance
lines=$("$ipctl" neigh show -4 | wc -l)
[ "$lines" -ge "$count" ] || die "ipctl listed $lines of $count neighbours"
ip_s=$(best_of_three ip -n "$ns" -4 neigh show)
ipctl_s=$(best_of_three "$ipctl" neigh show -4)
echo "namespace, $count neighbours: ip -4 neigh show ${ip_s} s, ipctl neigh show -4 ${ipctl_s} s ($(calc "%.2f" "$ipctl_s / $ip_s")x the time of ip)"
