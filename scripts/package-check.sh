#!/usr/bin/env bash
# Checks the library as others receive it, on the build of scripts/test.sh (build/):
#   - the API reference builds without a warning (docs target);
#   - the ABI matches the committed baseline (scripts/abi-check.sh);
#   - an install into a temporary prefix serves an out-of-tree consumer built twice, once
#     with pkg-config and once with find_package(ipclient);
#   - the Debian packages hold the files and dependencies they should.
# (Clang 14 builds the tree with warnings as errors in scripts/test.sh --tsan and
# scripts/fuzz.sh; scripts/build-matrix.sh builds every build type with both compilers.)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
root=$PWD
dir=build
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The consumer runs without a simulator: a name of its own keeps any running one away.
consumer_instance=package-check-$$

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIPCLIENT_WERROR=ON >/dev/null
cmake --build "$dir"

echo "== API reference"
cmake --build "$dir" --target docs
test -s "$dir/docs/html/index.html"

echo "== ABI"
bash scripts/abi-check.sh "$dir"

echo "== install and out-of-tree consumer"
prefix=$work/prefix
# ipctl's man pages and bash completion, besides its binary.
ipctl_files="share/bash-completion/completions/ipctl"
for page in ipctl ipctl-device ipctl-addr ipctl-neigh ipctl-route ipctl-stats ipctl-monitor ipctl-status; do
  ipctl_files+=" share/man/man8/$page.8.gz"
done
cmake --install "$dir" --prefix "$prefix" >/dev/null
for f in lib/libipclient.so.0 lib/libipclient-platform.so.0 include/ipclient/ipaddr.h include/ipplat/platform.h \
  include/ipsim/harness.hpp lib/python3/dist-packages/ipsim/__init__.py lib/python3/dist-packages/ipsim/pytest_plugin.py \
  lib/pkgconfig/ipclient.pc lib/cmake/ipclient/ipclientConfig.cmake bin/ipsimd share/man/man1/ipsimd.1.gz \
  share/ipsimd/default.yaml lib/ipsimd/libl2vpn.so lib/ipsimd/libl3vpn.so bin/ipctl $ipctl_files; do
  test -e "$prefix/$f" || { echo "not installed: $f" >&2; exit 1; }
done
# The installed ipctl runs, and its man pages render without a warning.
LD_LIBRARY_PATH="$prefix/lib" "$prefix/bin/ipctl" --help >/dev/null || { echo "installed ipctl --help failed" >&2; exit 1; }
if command -v man >/dev/null; then
  for page in "$prefix"/share/man/man8/ipctl*.8.gz; do
    warnings=$(man --warnings -l -Tutf8 "$page" 2>&1 >/dev/null) || warnings="man failed: $warnings"
    [ -z "$warnings" ] || { echo "$(basename "$page"): $warnings" >&2; exit 1; }
  done
fi
soname=$(readelf -d "$prefix/lib/libipclient.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = libipclient.so.0 ] || { echo "SONAME is '$soname'" >&2; exit 1; }
unversioned=$(nm -D --defined-only "$prefix/lib/libipclient.so" | grep -v ' A ' | grep -vc '@@IPCLIENT_0' || true)
[ "$unversioned" = 0 ] || { echo "$unversioned exported symbols outside IPCLIENT_0" >&2; exit 1; }

cp -r examples/consumer "$work/pc"
make -s -C "$work/pc" PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
IPCLIENT_INSTANCE=$consumer_instance LD_LIBRARY_PATH="$prefix/lib" "$work/pc/consumer"
cp -r examples/consumer "$work/cm"
cmake -S "$work/cm" -B "$work/cm/b" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/b" >/dev/null
IPCLIENT_INSTANCE=$consumer_instance "$work/cm/b/consumer"

echo "== Debian packages"
(cd "$dir" && cpack -G DEB -B "$work/deb" >/dev/null)
version=$(sed -n 's/^project(ipclient VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
major=${version%%.*}
check_deb() { # package, then the paths it must hold
  local deb
  deb=$(ls "$work"/deb/"$1"_*.deb)
  shift
  local contents
  contents=$(dpkg-deb --contents "$deb")
  for p in "$@"; do
    grep -q " \./usr/$p\( \|$\)" <<<"$contents" || { echo "$(basename "$deb") lacks /usr/$p" >&2; exit 1; }
  done
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
}
check_deb "libipclient$major" "lib/libipclient.so.$version" "lib/libipclient.so.$major ->" \
  "lib/libipclient-platform.so.$version"
check_deb libipclient-dev include/ipclient/ipaddr.h include/ipplat/testctl.h "lib/libipclient.so ->" \
  lib/pkgconfig/ipclient.pc lib/cmake/ipclient/ipclientConfig.cmake include/ipsim/harness.hpp
# shellcheck disable=SC2086  # ipctl_files is a list of paths
check_deb ipclient-tools bin/ipsimd share/man/man1/ipsimd.1.gz share/ipsimd/default.yaml \
  lib/ipsimd/libl2vpn.so lib/ipsimd/libl3vpn.so bin/ipctl lib/python3/dist-packages/ipsim/pytest_plugin.py $ipctl_files
for lib in libl2vpn.so libl3vpn.so; do
  extra=$(nm -D --defined-only "$prefix/lib/ipsimd/$lib" | grep -v ' A ' | grep -vc ' L[23]VPN_' || true)
  [ "$extra" = 0 ] || { echo "$lib exports $extra symbols besides its entry points" >&2; exit 1; }
done
dev_deb=$(ls "$work"/deb/libipclient-dev_*.deb)
dpkg-deb -f "$dev_deb" Depends | grep -q "libipclient$major (= $version)" ||
  { echo "libipclient-dev does not depend on libipclient$major (= $version)" >&2; exit 1; }
tools_deb=$(ls "$work"/deb/ipclient-tools_*.deb)
dpkg-deb -f "$tools_deb" Depends | grep -q libyaml-cpp ||
  { echo "ipclient-tools lacks its shared-library dependencies" >&2; exit 1; }
# ipctl links the runtime package's libraries.
dpkg-deb -f "$tools_deb" Depends | grep -q "libipclient$major (= $version)" ||
  { echo "ipclient-tools does not depend on libipclient$major (= $version)" >&2; exit 1; }
if dpkg-deb --contents "$(ls "$work"/deb/libipclient"$major"_*.deb)" | grep -q '\.h$'; then
  echo "the runtime package holds headers" >&2; exit 1
fi

echo "package check: all passed"
