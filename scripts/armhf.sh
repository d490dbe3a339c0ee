#!/usr/bin/env bash
# The armhf build: cross-builds the library, both platform libraries, tvxctl and the tests for
# the controller's CPU class (32-bit ARM, hard float) into build/armhf and runs the tests under
# qemu-arm. Tests labelled host-only (they need programs that exist only for the build
# machine: ipmi_sim, ipmitool, the MIB tools, the host compiler) are left out; the ipmi_sim
# module is not built for armhf, as ipmi_sim itself is a build-machine program.
#
# The armhf builds of libfreeipmi, GoogleTest and their dependencies come from Debian's armhf
# packages, downloaded with apt into a private folder (build/armhf-deps) and unpacked there:
# nothing is installed for armhf on the machine, so the native packages stay as they are.
#
# usage: scripts/armhf.sh [ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
start=$(date +%s)

# Build-machine tools: the cross compiler, the emulator, and what the tests run themselves.
packages=(cmake make pkg-config binutils g++-arm-linux-gnueabihf qemu-user i2c-tools)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The armhf libraries, unpacked into build/armhf-deps/root. apt works on its own lists and
# cache there, so the machine's package state is not touched.
deps=$PWD/build/armhf-deps
armhf_packages=(libfreeipmi17 libfreeipmi-dev libgcrypt20 libgpg-error0 libgtest-dev libgmock-dev)
all_packages=("${armhf_packages[@]/%/:armhf}" nlohmann-json3-dev)
if [ "$(cat "$deps/root/.packages" 2>/dev/null)" != "${all_packages[*]}" ]; then
  echo "Fetching the armhf libraries: ${all_packages[*]}"
  rm -rf "$deps"
  mkdir -p "$deps/apt/lists/partial" "$deps/apt/cache/archives/partial" "$deps/debs" "$deps/root"
  apt_opts=(-o APT::Architectures::=armhf -o "Dir::State::Lists=$deps/apt/lists"
            -o "Dir::Cache=$deps/apt/cache" -o Dir::State::status=/dev/null)
  # An index of another architecture or suite that fails to download is no reason to stop:
  # the download below fails by itself if a package cannot be had.
  apt-get "${apt_opts[@]}" update >"$deps/apt.log" 2>&1 || true
  (cd "$deps/debs" && apt-get "${apt_opts[@]}" download "${all_packages[@]}" >>"$deps/apt.log" 2>&1) ||
    { cat "$deps/apt.log" >&2; echo "armhf.sh: could not download ${all_packages[*]}" >&2; exit 1; }
  for d in "$deps/debs"/*.deb; do dpkg-deb -x "$d" "$deps/root"; done
  echo "${all_packages[*]}" >"$deps/root/.packages"
fi

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" \
      -DTVX_ARMHF_DEPS="$deps/root" -DCMAKE_BUILD_TYPE=Release \
      -DTVX_IPMI_SIM=OFF -DTVX_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build/armhf -j"$(nproc)"
built=$(date +%s)

# The library as it would be installed on the controller.
lib=build/armhf/src/libtvx_toipmi.so.1.0.0
arm-linux-gnueabihf-strip -o build/armhf/libtvx_toipmi.stripped.so "$lib"
echo "libtvx_toipmi.so.1 (armhf): $(stat -c %s build/armhf/libtvx_toipmi.stripped.so) bytes stripped;" \
     "$(arm-linux-gnueabihf-size "$lib" | awk 'NR==2 {print "text " $1 ", data " $2 ", bss " $3}');" \
     "needs $(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"

cd build/armhf
status=0
ctest --output-on-failure -j"$(nproc)" --timeout 300 -LE host-only "$@" || status=$?
end=$(date +%s)
echo "armhf: build $((built - start)) s, tests $((end - built)) s, total $((end - start)) s"
exit $status
