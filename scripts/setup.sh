#!/usr/bin/env bash
# Sets up a QEVR checkout on Debian and runs one job.
#
#   scripts/setup.sh demo [--preset NAME]   build and run `qevr demo` (preset: release)
#   scripts/setup.sh test [--preset NAME]   build and run the whole test suite (preset: debug)
#
# Presets: debug, release, minsize (built for size), asan (clang, ASan+UBSan,
# fuzzers), tsan (clang, TSan).
# Installs the Debian packages the build needs, only those that are missing.
set -euo pipefail

job="${1:-}"
shift || true
preset=""
while [ $# -gt 0 ]; do
  case "$1" in
    --preset) preset="${2:?--preset needs a name}"; shift 2 ;;
    *) echo "setup.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
case "$job" in
  demo) preset="${preset:-release}" ;;
  test) preset="${preset:-debug}" ;;
  *) echo "usage: scripts/setup.sh demo|test [--preset debug|release|minsize|asan|tsan]" >&2; exit 2 ;;
esac

cd "$(dirname "$0")/.."

packages=(build-essential cmake ninja-build pkg-config ccache clang clang-format libclang-rt-dev
          libicu-dev libsimdjson-dev libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev)
# The tests also drive the Python binding and the .NET one (Mono and
# NUnit), render qevr report's page in a headless browser and lay its graph
# out with dot; CI adds clang-tidy.
if [ "$job" = test ]; then
  packages+=(python3 python3-pytest mono-devel nunit-console chromium graphviz clang-tidy)
fi
. scripts/install-missing.sh
install_missing "${packages[@]}"

jobs="$(nproc 2>/dev/null || echo 2)"
echo "== configure ($preset)"
cmake --preset "$preset" >/dev/null
if [ "$job" = demo ]; then
  echo "== build qevr ($preset)"
  cmake --build --preset "$preset" --target qevr -j "$jobs"
  echo "== qevr demo"
  "build/$preset/tools/qevr/qevr" demo
else
  echo "== build ($preset)"
  cmake --build --preset "$preset" -j "$jobs"
  echo "== test ($preset)"
  ctest --preset "$preset" -j "$jobs"
fi
