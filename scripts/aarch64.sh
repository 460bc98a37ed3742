#!/usr/bin/env bash
# Cross-compiles the library and the whole test suite for AArch64 and runs
# the suite under qemu-user. The output digest test then compares the arm64
# replay with the digests committed from x86_64 (tests/golden/).
#
#   scripts/aarch64.sh            # installs what is missing, builds build-aarch64, runs ctest
#   QVN_AARCH64_BUILD_DIR=dir     # another build directory
set -euo pipefail
cd "$(dirname "$0")/.."
build="${QVN_AARCH64_BUILD_DIR:-build-aarch64}"

# Debian cross compiler, qemu-user, and the arm64 builds of what the library
# and the tests link (multiarch: dpkg --add-architecture arm64).
packages=(g++-aarch64-linux-gnu qemu-user libgtest-dev:arm64 android-liblog:arm64
          android-liblog-dev:arm64 cmake make)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" = 0 ] || sudo_cmd="sudo"
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $sudo_cmd dpkg --add-architecture arm64
  fi
  $sudo_cmd apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y --no-install-recommends "${missing[@]}"
fi

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
  -DQVN_BUILD_TOOLS=OFF -DQVN_BUILD_BENCH=OFF -DQVN_BUILD_FUZZ=OFF
cmake --build "$build" -j"$(nproc)"
# Not fused: the numeric flags must keep a*b+c as two roundings on arm64 too.
if aarch64-linux-gnu-objdump -d "$build"/libqvnlib.so.* | grep -qE '\sf(n)?m(add|sub)\s'; then
  echo "libqvnlib.so for arm64 contains fused multiply-add instructions" >&2
  exit 1
fi
(cd "$build" && ctest --output-on-failure -j"$(nproc)")
echo "aarch64 suite passed under qemu"
