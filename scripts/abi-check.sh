#!/usr/bin/env bash
# Compares the ABI of the built libipclient.so with the committed baseline (abi/libipclient.abi)
# and fails on any change to an exported function, global or record: an added, removed or
# changed symbol, or a changed layout. After a change made on purpose, record the new ABI
# with --update and commit the baseline with the change.
#   scripts/abi-check.sh [--update] [BUILD_DIR]   (default build; needs debug information)
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
if [ "${1:-}" = --update ]; then update=1; shift; fi
dir=${1:-build}
lib=$(readlink -f "$dir/src/libipclient.so")
baseline=abi/libipclient.abi
dump() {
  abidw --headers-dir include/ipclient --headers-dir platform/include/ipplat --no-corpus-path \
    --drop-undefined-syms --exported-interfaces-only --short-locs --out-file "$1" "$lib"
}
if ((update)); then
  dump "$baseline"
  echo "abi: baseline recorded from $lib"
  exit 0
fi
rc=0
abidiff --headers-dir1 include/ipclient --headers-dir2 include/ipclient "$baseline" "$lib" || rc=$?
if ((rc != 0)); then
  echo "abi: libipclient.so differs from $baseline (abidiff status $rc);" \
    "if the change is intended: scripts/abi-check.sh --update $dir" >&2
  exit 1
fi
echo "abi: libipclient.so matches $baseline"
