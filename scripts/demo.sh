#!/usr/bin/env bash
# Builds the library and runs the example program against its toy address module.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target address_demo
./build/examples/address_demo
