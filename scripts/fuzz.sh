#!/usr/bin/env bash
# Builds the libFuzzer targets (Clang 14, AddressSanitizer and UndefinedBehaviorSanitizer) in
# build-sanitize/ and runs each for the given time, two at a time, from its seed corpus in
# fuzz/corpus/<target>/. Prints the executions of each target; fails on any finding (crash,
# sanitizer report, leak, time-out of one input), whose input is kept as
# build-sanitize/findings/<target>-<kind>-<hash>.
#   scripts/fuzz.sh [--update-corpus] [--runs N] [SECONDS] [TARGET ...]
#   (default 30 s, every target; targets are named as built, e.g. fuzz_lib_genl)
# --update-corpus merges what the run found into the seed corpora (for a commit).
# --runs N ends each target after N executions instead (SECONDS is then ignored): the long
# runs, e.g. --runs 10000000.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
update=0
runs=0
while (($#)); do
  case $1 in
    --update-corpus) update=1; shift ;;
    --runs) runs=$2; shift 2 ;;
    *) break ;;
  esac
done
seconds=30
if [[ ${1:-} =~ ^[0-9]+$ ]]; then seconds=$1; shift; fi
# The targets are built in the sanitizer tree of scripts/test.sh --sanitize, beside its tests.
source scripts/sanitize-options.sh
dir=$sanitize_dir
cmake -S . -B "$dir" -G Ninja "${sanitize_opts[@]}" >/dev/null
cmake --build "$dir" --target fuzz_targets
targets=("$@")
if ((${#targets[@]} == 0)); then
  for t in "$dir"/fuzz/fuzz_*; do [ -x "$t" ] && targets+=("$(basename "$t")"); done
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$dir/findings"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

run_one() {
  local t=$1
  mkdir -p "$work/$t" "fuzz/corpus/$t"
  local rc=0
  local limit=(-max_total_time="$seconds")
  ((runs > 0)) && limit=(-runs="$runs")
  "$dir/fuzz/$t" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$dir/findings/$t-" "$work/$t" "fuzz/corpus/$t" >"$work/$t.log" 2>&1 || rc=$?
  local execs rate
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$t.log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work/$t.log")
  if ((rc != 0)); then
    echo "$t: FINDING after ${execs:-?} executions (status $rc)"
    grep -m5 -E 'ERROR|SUMMARY|runtime error|Test unit written' "$work/$t.log" || tail -20 "$work/$t.log"
    return 1
  fi
  echo "$t: ${execs} executions, ${rate}/s, no finding"
  if ((update)); then
    "$dir/fuzz/$t" -merge=1 "fuzz/corpus/$t" "$work/$t" >/dev/null 2>&1
  fi
}

# Two targets at a time: a new one starts as soon as either running one ends.
failed=0
running=0
for t in "${targets[@]}"; do
  if ((running == 2)); then
    wait -n || failed=1
    running=$((running - 1))
  fi
  run_one "$t" &
  running=$((running + 1))
done
while ((running > 0)); do
  wait -n || failed=1
  running=$((running - 1))
done
if ((failed)); then
  echo "fuzz: findings kept in $dir/findings" >&2
  exit 1
fi
if ((runs > 0)); then
  echo "fuzz: ${#targets[@]} targets, ${runs} executions each, no finding"
else
  echo "fuzz: ${#targets[@]} targets, ${seconds} s each, no finding"
fi
