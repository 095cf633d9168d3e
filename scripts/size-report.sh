#!/usr/bin/env bash
# What libqevr adds to an app: builds the shared library with the `minsize`
# preset (and, for comparison, reads the `release` one when it is built),
# prints its stripped and gzip -9 sizes, its sections, and how its code and
# data split between the modules, by the symbols `nm --size-sort` lists.
#
#   scripts/size-report.sh [--no-build]
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" != --no-build ]; then
  cmake --preset minsize >/dev/null
  cmake --build --preset minsize --target qevr_shared -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

report() {  # report NAME LIBRARY
  local name="$1" library="$2"
  [ -f "$library" ] || return 0
  cp "$library" "$work/$name.so"
  strip --strip-all "$work/$name.so"
  printf '%-8s stripped %9d bytes   gzip -9 %9d bytes\n' "$name" \
    "$(stat -c %s "$work/$name.so")" "$(gzip -9c "$work/$name.so" | wc -c)"
}

echo "== libqevr.so"
report minsize build/minsize/QEVR/libqevr.so
report release build/release/QEVR/libqevr.so

echo "== sections of the minsize build (size -A)"
size -A "$work/minsize.so" | awk 'NR > 2 && $2 > 4096 { printf "  %-20s %9d\n", $1, $2 }'

# Each defined symbol's size goes to the module its name belongs to. The
# standard library's templates instantiated for us, simdjson's inlined
# parser and file-local helpers (anonymous namespaces, which link-time
# optimisation no longer ties to a source file) are counted apart.
echo "== code and data by module (nm --size-sort, minsize build)"
nm --size-sort -t d -C --defined-only build/minsize/QEVR/libqevr.so | awk '
  {
    size = $1 + 0; name = $0; sub(/^[0-9]+ [A-Za-z] /, "", name)
    if (name ~ /lzfse|Lzvn|Lzfse/) module = "QEVRLZFSE"
    else if (name ~ /QEVMemory|QEVFileMemoryStore|QEVSessionGraph|QEVUserGraph|QEVStored|QEVLZFSECompression|QEVCompression/) module = "QEVMemory"
    else if (name ~ /QEVRecommendation|QEVPersonalization|QEVNavigationRecommendation|QEVUIRecommendation|QEVFeatureRecommendation|QEVGameplayRecommendation|QEVExperienceDomain/) module = "QEVRecommendations"
    else if (name ~ /QEVIntelligence|QEVBehavior|QEVIntent|QEVFrustration|QEVSkill|QEVPrompt|QEVLLM/) module = "QEVIntelligence"
    else if (name ~ /QEVObserver|QEVGesture|QEVSession|QEVScreen|QEVNavigation|QEVComponent/) module = "QEVObserver"
    else if (name ~ /^qevr_|QEVRCApi/) module = "C-API"
    else if (name ~ /QEVR|qevr::json|qevr::text|qevr::|QEVRDate|QEVRUUID/) module = (name ~ /^qevr::|QEVRDate|QEVRUUID/ ? "QEVRPlatform" : "QEVRCore")
    else if (name ~ /^std::|^void std::|^bool std::|__gnu_cxx|^typeinfo|^vtable|^VTT/) module = "std-templates"
    else if (name ~ /simdjson/) module = "simdjson-inlined"
    else module = "file-local"
    total[module] += size; all += size
  }
  END {
    for (m in total) printf "  %-20s %9d  %4.1f%%\n", m, total[m], 100 * total[m] / all | "sort -k2 -nr"
    close("sort -k2 -nr")
    printf "  %-20s %9d\n", "all-symbols", all
  }'
