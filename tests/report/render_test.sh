#!/usr/bin/env bash
# Renders `qevr report` pages in headless Chromium: the page of a demo store
# and the page of a store whose names try to inject script. Each page's
# script must finish (it marks <body data-report-ready="yes">) with nothing
# in its error box and no uncaught error on the browser's log. The demo
# page's screenshot is kept as <build>/report-screenshot.png.
#
#   render_test.sh QEVR_TOOL BUILD_DIR
#
# Exit 77 (skipped) when Chromium is not installed.
set -euo pipefail

qevr="${1:?usage: render_test.sh QEVR_TOOL BUILD_DIR}"
build="${2:?usage: render_test.sh QEVR_TOOL BUILD_DIR}"

browser=""
for candidate in chromium chromium-browser; do
  if command -v "$candidate" >/dev/null 2>&1; then
    browser="$candidate"
    break
  fi
done
if [ -z "$browser" ]; then
  echo "SKIPPED: chromium is not installed (scripts/setup.sh installs it)"
  exit 77
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/qevr-render-XXXXXX")"
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

milliseconds() { date +%s%3N; }

# render PAGE NAME [chromium options]: the DOM after load in $work/NAME.dom,
# the browser's log in $work/NAME.log.
render() {
  local page="$1" name="$2"
  shift 2
  # Containers often give /dev/shm only a few MB: keep shared memory in /tmp.
  timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run \
    --user-data-dir="$work/profile-$name" --enable-logging=stderr --v=0 "$@" \
    "file://$page" >"$work/$name.dom" 2>"$work/$name.log" ||
    fail "$browser exited with status $? on $page"
}

check_page() {
  local name="$1"
  grep -q 'data-report-ready="yes"' "$work/$name.dom" ||
    fail "$name: the page's script did not finish"
  grep -q '<pre id="report-errors"></pre>' "$work/$name.dom" ||
    fail "$name: errors on the page: $(grep -A3 'id="report-errors"' "$work/$name.dom")"
  if grep -q 'Uncaught' "$work/$name.log"; then
    fail "$name: $(grep 'Uncaught' "$work/$name.log" | head -3)"
  fi
}

# The demo: three stores; the player's has the game recommendations.
"$qevr" demo --data-dir "$work/demo" >"$work/demo.out" 2>&1 || fail "qevr demo: $(tail -3 "$work/demo.out")"
page="$build/report.html"
"$qevr" report --data-dir "$work/demo/player" --domain game -o "$page" >/dev/null ||
  fail "qevr report on the demo store"

started="$(milliseconds)"
render "$page" demo --dump-dom
finished="$(milliseconds)"
check_page demo
grep -q 'data-node="0"' "$work/demo.dom" || fail "demo: no flow graph on the page"
grep -q 'class="card"' "$work/demo.dom" || fail "demo: no recommendation on the page"
in_page_ms="$(sed -n 's/.*data-report-ms="\([0-9]*\)".*/\1/p' "$work/demo.dom" | head -1)"

rm -f "$build/report-screenshot.png"
render "$page" screenshot --screenshot="$build/report-screenshot.png" --window-size=1280,2000 \
  --hide-scrollbars
[ -s "$build/report-screenshot.png" ] || fail "no screenshot written"

# A store whose screen and component names are markup. The page must show
# them as text: the injected script would mark the body.
hostile="$work/hostile/QEVR/Memory"
mkdir -p "$hostile/sessions" "$hostile/user"
cat >"$hostile/user/graph.json" <<'JSON'
{"userId":"0B7E4C55-2D7C-4C55-A1C6-6F7D1E2A9B01","createdAt":"2026-11-20T10:00:00Z",
 "updatedAt":"2026-11-20T10:01:00Z","totalSessions":1,"totalEvents":5,
 "frequentlyVisitedScreens":{"Home":1,"</script><script>document.body.dataset.pwned=1</script>":1},
 "frequentComponents":{"<img src=x onerror=document.body.dataset.pwned=2>":3},
 "frequentCustomEvents":{"<svg onload=document.body.dataset.pwned=3>":1}}
JSON
cat >"$hostile/sessions/7D1F1E0C-5B7A-4E43-9C31-1C8E0A6F2B11.json" <<'JSON'
{"sessionId":"7D1F1E0C-5B7A-4E43-9C31-1C8E0A6F2B11","startedAt":"2026-11-20T10:00:00Z",
 "endedAt":"2026-11-20T10:01:00Z","duration":60,"eventCount":5,
 "screenSequence":["Home","</script><script>document.body.dataset.pwned=1</script>"],
 "navigationEdges":[{"from":"Home","to":"</script><script>document.body.dataset.pwned=1</script>","count":2}],
 "componentInteractions":[{"componentId":"<img src=x onerror=document.body.dataset.pwned=2>","screenName":"Home","tapCount":3,"gestureCount":0}],
 "customEventCounts":{"<svg onload=document.body.dataset.pwned=3>":1}}
JSON
"$qevr" report --data-dir "$work/hostile" -o "$work/hostile.html" >/dev/null ||
  fail "qevr report on the hostile store"
render "$work/hostile.html" hostile --dump-dom
check_page hostile
if grep -o '<body[^>]*>' "$work/hostile.dom" | grep -q 'data-pwned'; then
  fail "hostile: a name from the store ran as script"
fi
grep -q '&lt;/script&gt;&lt;script&gt;' "$work/hostile.dom" ||
  fail "hostile: the screen name is not shown as text"

size="$(stat -c %s "$page")"
{
  echo "page: $page ($size bytes)"
  echo "chromium --dump-dom wall time: $((finished - started)) ms (browser start included)"
  echo "in-page time to script end: ${in_page_ms:-?} ms"
  echo "screenshot: $build/report-screenshot.png"
} | tee "$build/report-render.txt"
