#!/usr/bin/env bash
# Builds and runs every test. With --sanitize: the same suite built by Clang 14 with
# AddressSanitizer (leak detection on) and UndefinedBehaviorSanitizer, in the tree that also
# builds the fuzz targets (scripts/sanitize-options.sh); any report fails the run. With --tsan:
# the same suite built by Clang 14 with ThreadSanitizer, there above all for the concurrency
# suites (ArpEventsConcurrency); any report fails the run. The plain build holds the tree to
# GCC's warnings, the sanitizer builds to Clang's (as errors). The sanitizer builds keep line
# tables and function names (-g1), which is all their reports print.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
dir=build
opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
timeout=120
case "${1:-}" in
  --sanitize)
    source scripts/sanitize-options.sh
    dir=$sanitize_dir
    opts=("${sanitize_opts[@]}")
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export LSAN_OPTIONS=exitcode=23
    ;;
  --tsan)
    dir=build-tsan
    opts=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14
      -DCMAKE_C_FLAGS_DEBUG=-g1 -DCMAKE_CXX_FLAGS_DEBUG=-g1 -DIPCLIENT_TSAN=ON -DIPCLIENT_BENCH=OFF)
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    timeout=300
    ;;
esac
cmake -S . -B "$dir" -G Ninja -DIPCLIENT_WERROR=ON "${opts[@]}" >/dev/null
cmake --build "$dir"
ctest --test-dir "$dir" -j2 --output-on-failure --timeout "$timeout"
