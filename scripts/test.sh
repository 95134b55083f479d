#!/usr/bin/env bash
# Builds and runs every test. With --sanitize: the same suite built with AddressSanitizer
# (leak detection on) and UndefinedBehaviorSanitizer; any report fails the run. With --tsan:
# the same suite built with ThreadSanitizer, there above all for the concurrency suites
# (ArpEventsConcurrency); any report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
dir=build
opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
timeout=120
case "${1:-}" in
  --sanitize)
    dir=build-sanitize
    opts=(-DCMAKE_BUILD_TYPE=Debug -DIPCLIENT_SANITIZE=ON -DIPCLIENT_BENCH=OFF)
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export LSAN_OPTIONS=exitcode=23
    ;;
  --tsan)
    dir=build-tsan
    opts=(-DCMAKE_BUILD_TYPE=Debug -DIPCLIENT_TSAN=ON -DIPCLIENT_BENCH=OFF)
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    timeout=300
    ;;
esac
cmake -S . -B "$dir" -G Ninja -DIPCLIENT_WERROR=ON "${opts[@]}" >/dev/null
cmake --build "$dir"
ctest --test-dir "$dir" -j2 --output-on-failure --timeout "$timeout"
