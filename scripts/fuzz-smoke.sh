#!/usr/bin/env bash
# Runs every fuzz target in BUILD_DIR/fuzz a fixed number of times, from its
# checked-in corpus when there is one. Usage: scripts/fuzz-smoke.sh BUILD_DIR [RUNS]
set -euo pipefail
build="${1:?usage: fuzz-smoke.sh BUILD_DIR [RUNS]}"
runs="${2:-20000}"
root="$(cd "$(dirname "$0")/.." && pwd)"
found=0
for f in "$build"/fuzz/*_fuzzer; do
  [ -x "$f" ] || continue
  found=1
  name="$(basename "$f" _fuzzer)"
  corpus=()
  [ -d "$root/fuzz/corpus/$name" ] && corpus=("$root/fuzz/corpus/$name")
  work="$(mktemp -d)"
  echo "-- $name ($runs runs)"
  "$f" -runs="$runs" -max_len=65536 -timeout=10 -rss_limit_mb=2048 "$work" "${corpus[@]}" \
    2>"$work/log" || { tail -n 40 "$work/log"; exit 1; }
  rm -rf "$work"
done
[ "$found" = 1 ] || { echo "no fuzz targets in $build/fuzz" >&2; exit 1; }
