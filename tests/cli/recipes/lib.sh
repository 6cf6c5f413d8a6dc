# Helpers shared by the recipe and apply command-line tests (sourced, not run).
# Environment: QVFILTER (the host), QV_SOURCE_DIR, QV_TEST_TMP.
set -u
: "${QVFILTER:?QVFILTER must name the qvfilter binary}"
: "${QV_SOURCE_DIR:?QV_SOURCE_DIR must name the source tree}"
: "${QV_TEST_TMP:?QV_TEST_TMP must name a scratch directory}"

FIXTURES="$QV_SOURCE_DIR/tests/cli/recipes"
failures=0

# A Python that has Pillow (Debian's python3-pil lives in the system interpreter).
PIL_PYTHON=python3
for candidate in /usr/bin/python3 python3; do
  if "$candidate" -c 'import PIL' 2>/dev/null; then
    PIL_PYTHON=$candidate
    break
  fi
done

fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# A fresh scratch directory for one test script.
scratch() {
  local dir="$QV_TEST_TMP/$1"
  rm -rf "$dir"
  mkdir -p "$dir"
  echo "$dir"
}

# expect_ok DESCRIPTION COMMAND...: the command succeeds; its stdout is left in $out.
expect_ok() {
  local what="$1"
  shift
  out=$("$@" 2>"$QV_TEST_TMP/stderr.txt")
  local rc=$?
  if [ $rc -ne 0 ]; then
    fail "$what: exit $rc: $(cat "$QV_TEST_TMP/stderr.txt")"
    return 1
  fi
  return 0
}

# expect_error DESCRIPTION "MESSAGE SUBSTRING" COMMAND...: the command fails with a non-zero
# exit and exactly one line on stderr, "qvfilter: ..." containing the substring.
expect_error() {
  local what="$1" want="$2"
  shift 2
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  if [ $rc -eq 0 ]; then
    fail "$what: expected a failure, got exit 0"
    return
  fi
  if [ $rc -ge 128 ]; then fail "$what: killed by a signal (exit $rc): $err"; fi
  case "$err" in
    *"$want"*) ;;
    *) fail "$what: stderr lacks \"$want\": $err" ;;
  esac
  case "$err" in
    "qvfilter: "*) ;;
    *) fail "$what: stderr does not start with \"qvfilter: \": $err" ;;
  esac
  if [ "$(printf '%s\n' "$err" | wc -l)" -ne 1 ]; then fail "$what: more than one line on stderr: $err"; fi
}

# check_json DESCRIPTION JSON PYTHON-EXPRESSION: evaluates the expression with the parsed JSON
# bound to r (and math, near(a, b, tol)); fails unless it is true.
check_json() {
  local what="$1" doc="$2" expr="$3"
  if ! python3 - "$doc" "$expr" <<'PY'
import json, math, sys
r = json.loads(sys.argv[1])
def near(a, b, tol=1e-4):
    if isinstance(a, list):
        return len(a) == len(b) and all(near(x, y, tol) for x, y in zip(a, b))
    return abs(a - b) <= tol
def srgb(v):
    return v * 12.92 if v <= 0.0031308 else 1.055 * v ** (1 / 2.4) - 0.055
def lin(v):
    return v / 12.92 if v <= 0.04045 else ((v + 0.055) / 1.055) ** 2.4
ok = eval(sys.argv[2])
if not ok:
    print(json.dumps(r), file=sys.stderr)
sys.exit(0 if ok else 1)
PY
  then
    fail "$what: $expr"
  fi
}

# png_pixel FILE X Y: "r g b a" (0-255) of the pixel at column X, row Y (row 0 = top).
png_pixel() {
  "$PIL_PYTHON" -c "
import sys
from PIL import Image
im = Image.open(sys.argv[1]).convert('RGBA')
print(*im.getpixel((int(sys.argv[2]), int(sys.argv[3]))))" "$1" "$2" "$3"
}

# png_size FILE: "width height".
png_size() {
  "$PIL_PYTHON" -c "
import sys
from PIL import Image
print(*Image.open(sys.argv[1]).size)" "$1"
}

finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)" >&2
    exit 1
  fi
  echo "ok"
  exit 0
}

# start_server: starts `qvfilter serve` on a free loopback port, its output in server.out and
# server.err of the current directory, waits for the address it prints and sets $server (its
# process) and $base (its URL). Ends the test when no address comes.
start_server() {
  "$QVFILTER" serve --port 0 >server.out 2>server.err &
  server=$!
  for _ in $(seq 100); do
    grep -q 'http://' server.out 2>/dev/null && break
    sleep 0.1
  done
  base=$(grep -o 'http://127\.0\.0\.1:[0-9]*' server.out)
  if [ -z "$base" ]; then
    echo "FAIL: qvfilter serve printed no address: $(cat server.out server.err)" >&2
    kill "$server" 2>/dev/null
    exit 1
  fi
}
