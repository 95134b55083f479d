#!/usr/bin/env bash
# A lab of DEVICES devices in a ring, each a namespace with two links (one to each
# neighbour) mirrored by its own simulator: the time `ipsimd lab up` and `lab down` take, the
# memory a device costs, and how long an address change in one device's namespace takes to
# reach a subscriber of that device. Run by hand, as root (not in CI):
#
#   bench/lab_ring.sh [DEVICES] [BUILD_DIR]        (default 100 devices, build/)
#
# Device rN has e0 toward r(N-1) and e1 toward r(N+1); link N is 10.(N/256).(N%256).0/30
# between rN:e1 (.1) and r(N+1):e0 (.2), with 2001:db8:N::/64 beside it. Memory per device
# is the growth of the host's used memory (MemTotal - MemAvailable) from before `lab up` to
# after it, over the devices; of that, the simulator's proportional set size (Pss: its
# private pages and its share of those all simulators share) and what is left (the
# namespace, its links and its kernel state).
set -euo pipefail

devices=${1:-100}
build=${2:-build}
ipsimd=$build/sim/ipsimd
latency=$build/bench/ipsim_addr_latency

die() { echo "lab_ring: $*" >&2; exit 1; }
command -v python3 >/dev/null || die "python3 is needed (to read lab show --json)"
[ "$(id -u)" -eq 0 ] || die "run as root (a lab makes network namespaces)"
[ "$devices" -ge 3 ] || die "a ring needs at least 3 devices"
[ -x "$ipsimd" ] || die "no $ipsimd: build the ipsimd target first"
[ -x "$latency" ] || die "no $latency: build the ipsim_addr_latency target (IPCLIENT_BENCH=ON) first"

lab=ring$$
work=$(mktemp -d /tmp/ipsim-ring-XXXXXX)
export IPSIMD_LAB_DIR=$work/state
topology=$work/ring.yaml

cleanup() {
  "$ipsimd" lab down "$topology" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
calc() { awk "BEGIN { printf \"$1\", $2 }"; }
used_kib() { awk '/^MemTotal:/ { t = $2 } /^MemAvailable:/ { a = $2 } END { print t - a }' /proc/meminfo; }

# The topology.
{
  echo "lab: $lab"
  echo "devices:"
  for ((i = 0; i < devices; i++)); do
    prev=$(((i + devices - 1) % devices))
    echo "  - name: r$i"
    echo "    interfaces:"
    echo "      - {name: e0, addresses: [10.$((prev / 256)).$((prev % 256)).2/30, \"2001:db8:$(printf %x "$prev")::2/64\"]}"
    echo "      - {name: e1, addresses: [10.$((i / 256)).$((i % 256)).1/30, \"2001:db8:$(printf %x "$i")::1/64\"]}"
  done
  echo "links:"
  for ((i = 0; i < devices; i++)); do
    echo "  - {a: \"r$i:e1\", b: \"r$(((i + 1) % devices)):e0\"}"
  done
} >"$topology"

sync
echo 1 >/proc/sys/vm/drop_caches 2>/dev/null || true
used_before=$(used_kib)

t0=$(now)
"$ipsimd" lab up "$topology" >"$work/up.out" 2>"$work/up.err" || { cat "$work/up.err" >&2; die "lab up failed"; }
t1=$(now)
up_s=$(calc "%.2f" "$t1 - $t0")
sleep 1
used_after=$(used_kib)

# The simulators' memory, by the pids the lab recorded: resident size, and their
# proportional share of it (pages shared by the simulators, such as the program's own code
# and its libraries, counted once among them).
rss_total=0
pss_total=0
count=0
for pid in $("$ipsimd" lab show "$lab" --json |
             python3 -c 'import json, sys; print(" ".join(str(d["pid"]) for d in json.load(sys.stdin)["devices"]))'); do
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status" 2>/dev/null || echo 0)
  pss=$(awk '/^Pss:/ { print $2 }' "/proc/$pid/smaps_rollup" 2>/dev/null || echo 0)
  rss_total=$((rss_total + rss))
  pss_total=$((pss_total + pss))
  count=$((count + 1))
done
[ "$count" -eq "$devices" ] || echo "lab_ring: found $count simulators for $devices devices" >&2

per_device=$(calc "%.0f" "($used_after - $used_before) / $devices")
rss_per=$(calc "%.0f" "$rss_total / ($count > 0 ? $count : 1)")
pss_per=$(calc "%.0f" "$pss_total / ($count > 0 ? $count : 1)")
rest_per=$(calc "%.0f" "$per_device - $pss_per")

# Reachability across the ring: r0 pings r1 and r(devices-1) over its two links.
ping_ok=yes
ip netns exec "$lab-r0" ping -c 1 -W 2 10.0.0.2 >/dev/null 2>&1 || ping_ok=no
last=$((devices - 1))
ip netns exec "$lab-r0" ping -c 1 -W 2 "10.$((last / 256)).$((last % 256)).1" >/dev/null 2>&1 || ping_ok=no

# Address change to subscriber, on the middle device.
mid=r$((devices / 2))
lat=$(IPCLIENT_INSTANCE=$mid "$latency" "$lab-$mid" e1 200) || die "latency run failed: $lat"

t0=$(now)
"$ipsimd" lab down "$topology" >"$work/down.out" 2>"$work/down.err" || { cat "$work/down.err" >&2; die "lab down failed"; }
t1=$(now)
down_s=$(calc "%.2f" "$t1 - $t0")
left=$(ip netns list | grep -c "^$lab-" || true)

echo "devices: $devices in a ring, $devices links"
echo "lab up: ${up_s} s; lab down: ${down_s} s (namespaces left: $left)"
echo "memory per device: ${per_device} KiB of the host's (simulator ${pss_per} KiB proportional, ${rss_per} KiB resident;" \
     "namespace, links and kernel state ${rest_per} KiB)"
echo "ping across both links of r0: $ping_ok"
echo "address change to subscriber on $mid: $lat"
