#!/usr/bin/env bash
# The lab example, end to end (as root): three devices in a line (line3.yaml), then
#   1. route_to on r1: the route toward r3's network, and r1's neighbour on it resolved
#      through the library;
#   2. ping from r1 to r3, through r2;
#   3. r2's link events while its link toward r3 goes down and comes back;
# and the lab taken down again.
#
#   sudo examples/lab/run.sh
#
# The programs are found on PATH, or given by IPSIMD, IPCTL and ROUTE_TO; TOPOLOGY, LAB,
# R1, R2 and R3 name another line of three.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
ipsimd=${IPSIMD:-ipsimd}
ipctl=${IPCTL:-ipctl}
route_to=${ROUTE_TO:-route_to}
topology=${TOPOLOGY:-$here/line3.yaml}
lab=${LAB:-line3}
r1=${R1:-r1} r2=${R2:-r2} r3=${R3:-r3}

"$ipsimd" lab up "$topology"
monitor=""
trap '[ -n "$monitor" ] && kill "$monitor" 2>/dev/null; "$ipsimd" lab down "$lab"' EXIT

echo "== $r1: the route to $r3's network, and the neighbour it goes through"
"$ipsimd" lab exec "$lab" "$r1" -- "$route_to" 10.0.23.0/24

echo "== $r1: ping $r3"
"$ipsimd" lab exec "$lab" "$r1" -- ping -c 2 -W 2 10.0.23.3

echo "== $r2: link events while its link to $r3 goes down and up"
events=$(mktemp)
timeout 10 "$ipctl" -i "$r2" monitor link --count 2 >"$events" 2>/dev/null &
monitor=$!
sleep 0.5  # the monitor subscribes
"$ipsimd" lab link "$lab" "$r2:eth2" down
sleep 0.5
"$ipsimd" lab link "$lab" "$r2:eth2" up
wait "$monitor" || true
monitor=""
cat "$events"
rm -f "$events"
