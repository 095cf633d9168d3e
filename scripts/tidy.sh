#!/usr/bin/env bash
# clang-tidy, with the project's .clang-tidy, over the library and tool
# sources; any finding fails. Needs a build directory with
# compile_commands.json (every preset writes one).
#
#   scripts/tidy.sh [BUILD_DIR]      (default: build/tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/tsan}"
mapfile -t sources < <(git ls-files '*.cpp' | grep -E '^(QEV[A-Za-z]*/src|tools)/')
echo "== clang-tidy: ${#sources[@]} files"
run-clang-tidy -p "$build" -quiet -j "$(nproc)" -warnings-as-errors='*' "${sources[@]/#/$PWD/}" \
  >"$build/clang-tidy.log" 2>&1 || {
  grep -E "(warning|error):" "$build/clang-tidy.log" | sort -u >&2
  echo "clang-tidy found the above" >&2
  exit 1
}
echo "== clang-tidy clean"
