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
log="$build/clang-tidy.log"
status=0
run-clang-tidy -p "$build" -quiet -j "$(nproc)" "${sources[@]/#/$PWD/}" >"$log" 2>&1 || status=$?
findings="$(grep -E "(warning|error):" "$log" | sort -u || true)"
if [ "$status" -ne 0 ] || [ -n "$findings" ]; then
  if [ -n "$findings" ]; then echo "$findings" >&2; else tail -n 20 "$log" >&2; fi
  echo "clang-tidy is not clean (the whole output: $log)" >&2
  exit 1
fi
echo "== clang-tidy clean"
