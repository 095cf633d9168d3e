#!/usr/bin/env bash
# Cross-builds QEVR for 64-bit ARM Linux with Debian's cross compiler and the
# arm64 multiarch libraries, and runs the whole test suite under qemu-aarch64.
#
#   scripts/aarch64-check.sh [BUILD_DIR]      (default: build/aarch64)
#
# Installs what it needs. simdjson's -dev package cannot sit beside the
# amd64 one, so it is unpacked into BUILD_DIR-deps, with the system's arm64
# runtime library linked in where its CMake files look for it.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/aarch64}"
deps="$PWD/$build-deps"
jobs="$(nproc 2>/dev/null || echo 2)"

. scripts/install-missing.sh
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  "${SUDO_CMD[@]}" dpkg --add-architecture arm64
fi
install_missing g++-aarch64-linux-gnu qemu-user libicu-dev:arm64 libgtest-dev:arm64 \
  libgmock-dev:arm64 zlib1g-dev:arm64 libsimdjson14:arm64

simdjson_cmake="$deps/usr/lib/aarch64-linux-gnu/cmake/simdjson"
if [ ! -f "$simdjson_cmake/simdjson-config.cmake" ]; then
  echo "== unpacking libsimdjson-dev:arm64 into $deps"
  [ -n "$INSTALL_MISSING_UPDATED" ] || "${SUDO_CMD[@]}" apt-get update -qq
  rm -rf "$deps"
  mkdir -p "$deps/download"
  # apt's sandbox user may not write here; the download itself is the same.
  (cd "$deps/download" && apt-get download -q libsimdjson-dev:arm64 2>&1 | grep -v '^W: Download is performed unsandboxed' || true)
  dpkg-deb -x "$deps"/download/libsimdjson-dev_*_arm64.deb "$deps"
  ln -sf /usr/lib/aarch64-linux-gnu/libsimdjson.so.* "$deps/usr/lib/aarch64-linux-gnu/"
fi

echo "== configure (aarch64, release)"
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DCMAKE_BUILD_TYPE=Release -DQEVR_BUILD_BENCHMARKS=OFF -Dsimdjson_DIR="$simdjson_cmake" >/dev/null
echo "== build (aarch64)"
cmake --build "$build" -j "$jobs"
echo "== test (aarch64, under qemu-aarch64)"
ctest --test-dir "$build" -j "$jobs" --output-on-failure
