#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing.
set -euo pipefail
needed=(cmake ninja-build g++ gcc pkg-config libgtest-dev libgmock-dev libbenchmark-dev
  libyaml-cpp-dev libsqlite3-dev nlohmann-json3-dev libcli11-dev util-linux libmnl-dev iproute2 iputils-ping python3 python3-pytest
  clang-14 libclang-rt-14-dev doxygen abigail-tools dpkg-dev file)
missing=()
for p in "${needed[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
