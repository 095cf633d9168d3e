#!/usr/bin/env bash
# Builds QEVR as a host would install it, static and shared, and proves the
# installed package works from outside the source tree:
#   - `cmake --install` into a prefix for each linkage;
#   - examples/consumer built against each prefix with find_package, and
#     against the shared one with pkg-config, and run;
#   - libqevr.so exports only the C API and the public C++ API;
#   - the Python and .NET bindings' tests against the installed library;
#   - a Debian package through CPack.
#
#   scripts/package-check.sh [BUILD_DIR]   (default: build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"
build="${1:-build/package}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac
jobs="$(nproc 2>/dev/null || echo 2)"
work="$build/check"
rm -rf "$work"
mkdir -p "$work"

configure() {
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DQEVR_BUILD_TESTS=OFF -DQEVR_BUILD_BENCHMARKS=OFF -DQEVR_BUILD_FUZZERS=OFF \
    -DQEVR_SANITIZER= -DBUILD_SHARED_LIBS="$1" >/dev/null
}

consumer_with_cmake() {
  local prefix="$1" name="$2"
  echo "== consumer ($name): find_package against $prefix"
  cmake -S "$root/examples/consumer" -B "$work/consumer-$name" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/consumer-$name" >/dev/null
  "$work/consumer-$name/qevr_consumer" "$work/data-$name"
}

for linkage in static shared; do
  flag=OFF
  [ "$linkage" = shared ] && flag=ON
  echo "== build ($linkage)"
  configure "$flag"
  cmake --build "$build" -j "$jobs" >/dev/null
  echo "== install ($linkage)"
  cmake --install "$build" --prefix "$work/prefix-$linkage" >/dev/null
  consumer_with_cmake "$work/prefix-$linkage" "$linkage"
done

prefix="$work/prefix-shared"
libdir="$(find "$prefix" -name 'libqevr.so' -printf '%h\n' -quit)"
# Read whole before matching: under pipefail, `grep -q` quitting early can
# fail the pipeline with ldd's SIGPIPE although the line was there.
loaded="$(ldd "$work/consumer-shared/qevr_consumer")"
if grep -q 'libqevr.so.0' <<<"$loaded"; then
  echo "   the shared consumer loads libqevr.so.0"
else
  echo "the shared consumer does not load libqevr.so.0" >&2
  exit 1
fi
soname="$(objdump -p "$libdir/libqevr.so" | awk '/SONAME/ {print $2}')"
[ "$soname" = libqevr.so.0 ] || { echo "unexpected SONAME '$soname'" >&2; exit 1; }

echo "== exported symbols of libqevr.so"
nm -D --defined-only "$libdir/libqevr.so" | awk '{print $3}' >"$work/exports.txt"
stray="$(c++filt <"$work/exports.txt" | grep -v -E '^qevr_|QEV|qevr::' || true)"
foreign="$(c++filt <"$work/exports.txt" | grep -i -E 'icu_[0-9]|simdjson|u_[a-z]+_[0-9]+$' || true)"
if [ -n "$stray" ] || [ -n "$foreign" ]; then
  echo "libqevr.so exports symbols outside the public API:" >&2
  printf '%s\n%s\n' "$stray" "$foreign" | head -n 40 >&2
  exit 1
fi
# And the other way round: every function the C header declares is there
# (the names without their version, name@@QEVR_0).
sed 's/@.*//' "$work/exports.txt" >"$work/export-names.txt"
missing=""
for name in $(sed -n -E 's/^QEVR_API .*[ *](qevr_[a-z0-9_]+)\(.*/\1/p' "$prefix/include/QEVR/qevr.h"); do
  grep -qx "$name" "$work/export-names.txt" || missing="$missing $name"
done
if [ -n "$missing" ]; then
  echo "libqevr.so lacks functions that qevr.h declares:$missing" >&2
  exit 1
fi
echo "   $(wc -l <"$work/exports.txt") symbols, all qevr_* or public C++ API, every qevr.h function among them"

echo "== ICU imports of libqevr.so"
# Phones ship ICU's C API only, so libqevr.so must not need ICU's C++ one:
# no undefined symbol may be a mangled name in ICU's versioned namespace.
nm -D --undefined-only "$libdir/libqevr.so" | awk '{print $2}' >"$work/imports.txt"
icu_cxx="$(grep -E '^_Z.*icu_[0-9]+' "$work/imports.txt" || true)"
if [ -n "$icu_cxx" ]; then
  echo "libqevr.so imports ICU C++ symbols, which the platforms' ICU does not export:" >&2
  c++filt <<<"$icu_cxx" | head -n 40 >&2
  exit 1
fi
icu_c="$(grep -c -E '^u[a-z0-9]*_[A-Za-z0-9_]+_[0-9]+$' "$work/imports.txt" || true)"
echo "   no ICU C++ symbols; $icu_c ICU C functions"

echo "== consumer (shared): pkg-config"
PKG_CONFIG_PATH="$libdir/pkgconfig" make -s -C "$root/examples/consumer" BUILD="$work"
"$work/qevr_consumer_pc" "$work/data-pc"
if [ -f "$root/examples/consumer/main.c" ]; then
  echo "== C consumer (shared): pkg-config"
  PKG_CONFIG_PATH="$libdir/pkgconfig" make -s -C "$root/examples/consumer" BUILD="$work" c
  "$work/qevr_consumer_c" "$work/data-c"
fi

if [ -d "$root/bindings/python/tests" ]; then
  echo "== Python binding against the installed library"
  # The first python3 that has pytest (setup.sh installs Debian's).
  python=""
  for candidate in python3 /usr/bin/python3; do
    if command -v "$candidate" >/dev/null && "$candidate" -c 'import pytest' 2>/dev/null; then
      python="$candidate"
      break
    fi
  done
  [ -n "$python" ] || { echo "no python3 with pytest: run scripts/setup.sh test first" >&2; exit 1; }
  QEVR_LIBRARY="$libdir/libqevr.so" PYTHONPATH="$root/bindings/python" \
    "$python" -m pytest -q -p no:cacheprovider "$root/bindings/python/tests"
fi

if [ -d "$root/bindings/dotnet/tests" ]; then
  echo "== .NET binding against the installed library"
  for tool in mcs mono nunit-console; do
    command -v "$tool" >/dev/null || { echo "no $tool: run scripts/setup.sh test first" >&2; exit 1; }
  done
  nunit="$(ls /usr/lib/cli/nunit.framework-2.6*/nunit.framework.dll 2>/dev/null | sort | tail -n 1)"
  [ -n "$nunit" ] || { echo "no NUnit 2.6 framework: run scripts/setup.sh test first" >&2; exit 1; }
  dotnet="$work/dotnet"
  mkdir -p "$dotnet"
  mcs=(mcs -langversion:7.2 -nologo -warnaserror+)
  "${mcs[@]}" -target:library -out:"$dotnet/Qevr.dll" "$root"/bindings/dotnet/src/*.cs
  "${mcs[@]}" -target:library -out:"$dotnet/Qevr.Tests.dll" -r:"$dotnet/Qevr.dll" -r:"$nunit" \
    "$root"/bindings/dotnet/tests/*.cs
  "${mcs[@]}" -out:"$dotnet/sample.exe" -r:"$dotnet/Qevr.dll" "$root/bindings/dotnet/sample/Sample.cs"
  # Mono finds libqevr.so through LD_LIBRARY_PATH.
  (cd "$dotnet" && LD_LIBRARY_PATH="$libdir" nunit-console -nologo -noshadow -noresult Qevr.Tests.dll)
  LD_LIBRARY_PATH="$libdir" cmake -DMONO=mono -DSAMPLE="$dotnet/sample.exe" -DDATA_DIR="$dotnet/sample-data" \
    -P "$root/bindings/dotnet/sample/run-twice.cmake"
fi

echo "== Debian package"
(cd "$build" && cpack >/dev/null)
debs=("$build"/packages/*.deb)
deb="${debs[0]}"
dpkg-deb -c "$deb" >"$work/deb-contents.txt"
for wanted in libqevr.so.0 QEVRConfig.cmake qevr.pc QEVR/QEVR.h; do
  grep -q "$wanted" "$work/deb-contents.txt" || { echo "the package lacks $wanted" >&2; exit 1; }
done
echo "   $(basename "$deb")"
echo "== package check passed"
