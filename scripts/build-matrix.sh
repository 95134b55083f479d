#!/usr/bin/env bash
# Builds the whole tree (library, platform, simulator, examples, tests) in every standard
# build type with GCC and with Clang 14, warnings as errors. Build trees go under
# ${MATRIX_DIR:-/tmp/ipclient-matrix}. Prints one line per build; fails if any build fails.
#   scripts/build-matrix.sh [BUILD_TYPE ...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
root=${MATRIX_DIR:-/tmp/ipclient-matrix}
types=("$@")
((${#types[@]})) || types=(Debug Release RelWithDebInfo MinSizeRel)
failed=0
mkdir -p "$root"
for compiler in gcc clang; do
  case $compiler in
    gcc) cc=gcc cxx=g++ ;;
    clang) cc=clang-14 cxx=clang++-14 ;;
  esac
  for type in "${types[@]}"; do
    dir=$root/$compiler-$type
    start=$SECONDS
    if cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DIPCLIENT_WERROR=ON -DIPCLIENT_BENCH=OFF \
         -DCMAKE_C_COMPILER=$cc -DCMAKE_CXX_COMPILER=$cxx >"$dir.log" 2>&1 &&
       cmake --build "$dir" >>"$dir.log" 2>&1; then
      echo "$compiler $type: built in $((SECONDS - start)) s"
    else
      echo "$compiler $type: FAILED (see $dir.log)"
      failed=1
    fi
  done
done
exit $failed
