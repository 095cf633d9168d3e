#!/usr/bin/env bash
# What QEVR costs the app that embeds it, every figure in one run: CPU per
# event into an empty and into a full store, resident memory and start time
# added to a C host, and the library's size. With --baseline, each figure is
# measured the same way on another build (for example of the last release)
# and printed beside this one's, so that a change can be compared.
#
#   scripts/footprint.sh [--no-build] [--baseline BUILD_DIR] [BUILD_DIR]
#
# BUILD_DIR is a release build (default build/release); a baseline build
# needs tools/qevr/qevr and QEVR/libqevr.so only (this build's probe runs
# against its library). The full store is made once with `qevr simulate`
# and copied for each run, so every run starts from the same files. The
# scratch directory is in $TMPDIR: on ext4, a directory whose files were just
# deleted makes new files slower to create, which bends the later runs;
# TMPDIR=/dev/shm leaves the disk out of the figures.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/release baseline="" rebuild=1
while [ $# -gt 0 ]; do
  case "$1" in
    --no-build) rebuild=0; shift ;;
    --baseline) baseline="${2:?--baseline needs a build directory}"; shift 2 ;;
    *) build="$1"; shift ;;
  esac
done
if [ "$rebuild" = 1 ]; then
  [ -f "$build/CMakeCache.txt" ] || cmake --preset release >/dev/null
  cmake --build "$build" --target qevr qevr_shared footprint_probe >/dev/null
fi
probe="$build/bench/footprint_probe"
for needed in "$build/tools/qevr/qevr" "$probe" ${baseline:+"$baseline/tools/qevr/qevr"}; do
  [ -x "$needed" ] || { echo "footprint.sh: $needed is not built" >&2; exit 1; }
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# CPU seconds (user + system, all threads) of a command's children.
cpu_of() {
  local line
  line="$({ "$@" >/dev/null; times; } | tail -1)"
  awk -v t="$line" 'BEGIN {
    split(t, f, " "); s = 0
    for (i = 1; i <= 2; i++) { split(f[i], p, "m"); s += p[1] * 60 + substr(p[2], 1, length(p[2]) - 1) }
    printf "%.3f", s }'
}

median3() { printf '%s\n' "$@" | sort -g | sed -n 2p; }

echo "== making a full default store (about 5,000 chunk files)"
full="$work/full"
seed=1
while [ "$(find "$full/QEVR/Memory/events" -name '*.json' 2>/dev/null | wc -l)" -lt 5000 ] &&
      [ "$seed" -le 12 ]; do
  "$build/tools/qevr/qevr" simulate --data-dir "$full" --events 100000 --seed "$seed" >/dev/null
  seed=$((seed + 1))
done
echo "   $(find "$full/QEVR/Memory/events" -name '*.json' | wc -l) chunk files," \
     "$(du -sm "$full" | cut -f1) MB"

fresh() {  # fresh NAME full|empty: a new data directory
  rm -rf "$work/$1"
  if [ "$2" = full ]; then cp -a "$full" "$work/$1"; else mkdir -p "$work/$1"; fi
  echo "$work/$1"
}

# probe_medians NAME KEY LINE...: the medians of the probe's fields
probe_medians() {
  local name="$1" key="$2" field line
  shift 2
  for field in start_ms rss_added_kb peak_added_kb; do
    local values=()
    for line in "$@"; do
      values+=("$(sed -n "s/.*$field=\([-0-9.]*\).*/\1/p" <<<"$line")")
    done
    figures[$name.$field.$key]="$(median3 "${values[@]}")"
  done
}

# second_launch NAME LIBDIR: the probe's figures on a full store's second
# launch. The first launch of a copied store reads every file once; an app's
# later starts do not.
second_launch() {
  local lines=() again
  for _ in 1 2 3; do
    again="$(fresh run full)"
    LD_LIBRARY_PATH="$2" "$probe" "$again" 1000 >/dev/null
    lines+=("$(LD_LIBRARY_PATH="$2" "$probe" "$again" 1000)")
  done
  probe_medians "$1" second.1000 "${lines[@]}"
}

# measure NAME BUILD: sets figures[NAME.*]
declare -A figures
measure() {
  local name="$1" dir="$2" lib="$2/QEVR" store events runs field
  for store in empty full; do
    runs=()
    for _ in 1 2 3; do
      runs+=("$(cpu_of "$dir/tools/qevr/qevr" simulate --data-dir "$(fresh run "$store")" \
        --events 100000 --seed 99)")
    done
    figures[$name.cpu.$store]="$(awk -v s="$(median3 "${runs[@]}")" 'BEGIN { printf "%.1f", s * 10 }')"
    if [ "$store" = full ]; then
      # A second launch on the same files, as an app's next start: what the
      # first one learnt about the store and kept beside it counts here.
      runs=()
      for _ in 1 2 3; do
        local again
        again="$(fresh run full)"
        "$dir/tools/qevr/qevr" simulate --data-dir "$again" --events 100000 --seed 98 >/dev/null
        runs+=("$(cpu_of "$dir/tools/qevr/qevr" simulate --data-dir "$again" --events 100000 --seed 99)")
      done
      figures[$name.cpu.second]="$(awk -v s="$(median3 "${runs[@]}")" 'BEGIN { printf "%.1f", s * 10 }')"
    fi
    for events in 1000 100000; do
      [ "$store" = empty ] && [ "$events" = 100000 ] && continue
      local lines=()
      for _ in 1 2 3; do
        lines+=("$(LD_LIBRARY_PATH="$lib" "$probe" "$(fresh run "$store")" "$events")")
      done
      probe_medians "$name" "$store.$events" "${lines[@]}"
    done
  done
  second_launch "$name" "$lib"
  local stripped="$work/libqevr.so"
  cp "$lib/libqevr.so" "$stripped" && strip --strip-all "$stripped"
  figures[$name.size]="$(stat -c %s "$stripped")"
}

echo "== measuring $build"
measure this "$build"
if [ -n "$baseline" ]; then
  echo "== measuring the baseline, $baseline"
  measure base "$baseline"
fi

row() {  # row LABEL KEY UNIT TARGET
  local this="${figures[this.$2]}" base="${figures[base.$2]:-}"
  if [ -n "$base" ]; then
    printf '%-52s %10s %10s %6s   %s\n' "$1" "$this" "$base" \
      "$(awk -v a="$this" -v b="$base" 'BEGIN { if (b + 0 != 0) printf "%.2fx", a / b; else print "-" }')" "$4"
  else
    printf '%-52s %10s   %s\n' "$1" "$this" "$4"
  fi
}
echo
if [ -n "$baseline" ]; then
  printf '%-52s %10s %10s %6s   %s\n' "figure (medians of 3)" "this" "baseline" "ratio" "target"
else
  printf '%-52s %10s   %s\n' "figure (medians of 3)" "this" "target"
fi
row "CPU us/event, simulate 100,000, empty store" cpu.empty us ""
row "CPU us/event, simulate 100,000, full store" cpu.full us "<= 6, <= 1.5x empty"
row "CPU us/event, the same, second launch" cpu.second us "<= 6, <= 1.5x empty"
row "qevr_start ms, empty store" start_ms.empty.1000 ms ""
row "qevr_start ms, full store" start_ms.full.1000 ms "<= 1"
row "RSS added kB, start + 1,000 events, empty store" rss_added_kb.empty.1000 kB ""
row "RSS peak added kB, start + 1,000 events, empty" peak_added_kb.empty.1000 kB ""
row "RSS added kB, start + 1,000 events, full store" rss_added_kb.full.1000 kB "<= 1536"
row "RSS peak added kB, start + 1,000 events, full" peak_added_kb.full.1000 kB "<= 3072"
row "RSS added kB, the same, second launch" rss_added_kb.second.1000 kB "<= 1536"
row "RSS peak added kB, the same, second launch" peak_added_kb.second.1000 kB "<= 3072"
row "RSS peak added kB, start + 100,000 events, full" peak_added_kb.full.100000 kB "<= 5120"
row "libqevr.so stripped bytes" size B "<= 1,000,000 (minsize)"
empty_cpu="${figures[this.cpu.empty]}"
echo
for launch in full second; do
  echo "$launch / empty store CPU: $(awk -v a="${figures[this.cpu.$launch]}" -v b="$empty_cpu" 'BEGIN { printf "%.2fx", a / b }')"
done
if [ -f build/minsize/QEVR/libqevr.so ]; then
  cp build/minsize/QEVR/libqevr.so "$work/min.so" && strip --strip-all "$work/min.so"
  echo "libqevr.so stripped, minsize build: $(stat -c %s "$work/min.so") bytes"
  # The library a phone ships: its code pages are most of what release adds.
  second_launch min build/minsize/QEVR
  echo "RSS added / peak kB, start + 1,000 events, second launch, minsize library:" \
       "${figures[min.rss_added_kb.second.1000]} / ${figures[min.peak_added_kb.second.1000]}"
fi
