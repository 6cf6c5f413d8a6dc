#!/bin/bash
# qvfilter gallery: every plug-in filter with its defaults on a small generated image, one PNG
# per filter plus the contact sheet; --filters; and the error paths (missing input, unreadable
# input, an output path that is a file, unknown or empty filter names).
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/gallery_render"
rm -rf "$tmp"
mkdir -p "$tmp"
export QV_PLUGIN_PATH=""

png_size() { python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); print(*struct.unpack(">II", d[16:24]))' "$1"; }

in="$tmp/in.png"
"$QVFILTER" sample "$in" --width 96 --height 64 >/dev/null 2>"$tmp/err" || fail "sample: $(cat "$tmp/err")"
[ "$(png_size "$in")" = "96 64" ] || fail "the input is not 96 x 64"

# The filters of the bundle, from the host's own list (every name the bundle registers starts
# with QVFilter).
"$QVFILTER" list > "$tmp/list" 2>"$tmp/err" || fail "list: $(cat "$tmp/err")"
grep '^QVFilter' "$tmp/list" > "$tmp/names"
[ -s "$tmp/names" ] || fail "no plug-in filters listed"
grep -qx QVFilterBlur "$tmp/names" || fail "QVFilterBlur is not listed"

# ---- The whole bundle ----
out="$tmp/all"
"$QVFILTER" gallery "$in" "$out" > "$tmp/stdout" 2>"$tmp/stderr"
status=$?
[ -s "$out/index.html" ] || fail "no index.html (exit $status): $(cat "$tmp/stderr")"
[ "$(png_size "$out/original.png")" = "96 64" ] || fail "original.png is not the 96 x 64 input"
grep -q "filters: .* written, .* failed; contact sheet" "$tmp/stdout" || fail "no summary line: $(cat "$tmp/stdout")"
failed=$(sed -n 's/^[0-9]* filters: [0-9]* written, \([0-9]*\) failed.*/\1/p' "$tmp/stdout")
if [ "$failed" = "0" ]; then
  [ "$status" = 0 ] || fail "exit $status with no failed filter"
else
  [ "$status" = 1 ] || fail "exit $status with $failed failed filters"
  grep -q "filters failed" "$tmp/stderr" || fail "no failure message on stderr"
fi
while read -r name; do
  if grep -q "^$name: FAILED: " "$tmp/stdout"; then
    grep -q "id=\"$name\"" "$out/index.html" || fail "the failed $name is not on the contact sheet"
    continue
  fi
  grep -q "^$name (.*) -> $out/$name.png (" "$tmp/stdout" || fail "no line for $name: $(cat "$tmp/stdout")"
  [ -s "$out/$name.png" ] || fail "no $name.png"
  png_size "$out/$name.png" >/dev/null || fail "$name.png is not a PNG"
  grep -q "<img src=\"$name.png\"" "$out/index.html" || fail "index.html has no thumbnail of $name"
  grep -q "<div class=\"name\">$name</div>" "$out/index.html" || fail "index.html does not name $name"
done < "$tmp/names"
# Display names come from the bundle's description; the original is the first figure.
grep -q '<div class="display">Blur</div>' "$out/index.html" || fail "no display name of QVFilterBlur"
first=$(grep -o '<img src="[^"]*"' "$out/index.html" | head -1)
[ "$first" = '<img src="original.png"' ] || fail "the original is not first: $first"
grep -q '<!DOCTYPE html>' "$out/index.html" || fail "index.html is not an HTML document"
if grep -Eq '<(script|link)|src="https?:' "$out/index.html"; then fail "index.html is not self-contained"; fi
# Colour filters keep the size; the blur differs from the original.
[ "$(png_size "$out/QVFilterBlur.png")" = "96 64" ] || fail "QVFilterBlur.png is not 96 x 64"
cmp -s "$out/QVFilterBlur.png" "$out/original.png" && fail "QVFilterBlur.png equals the original"

# ---- --filters ----
sel="$tmp/selected"
"$QVFILTER" gallery "$in" "$sel" --filters "QVFilterGammaAdjust, QVFilterPixellate" > "$tmp/stdout" 2>"$tmp/err" ||
  fail "gallery --filters: $(cat "$tmp/err")"
[ "$(ls "$sel" | sort | tr '\n' ' ')" = "QVFilterGammaAdjust.png QVFilterPixellate.png index.html original.png " ] ||
  fail "--filters wrote: $(ls "$sel")"
grep -q "^2 filters: 2 written, 0 failed" "$tmp/stdout" || fail "summary: $(cat "$tmp/stdout")"
[ "$(grep -c '<figure' "$sel/index.html")" = 3 ] || fail "the contact sheet does not hold 3 pictures"

# ---- Error paths ----
expect_error() {  # expect_error "MESSAGE PART" ARGS...
  local message="$1"
  shift
  if "$QVFILTER" gallery "$@" >"$tmp/stdout" 2>"$tmp/err"; then fail "gallery $* succeeded"; fi
  grep -q -- "$message" "$tmp/err" || fail "gallery $*: expected \"$message\", got: $(cat "$tmp/err")"
  grep -qi "terminate\|Segmentation\|Aborted" "$tmp/err" && fail "gallery $* crashed"
  return 0
}
expect_error "unknown filter: QVFilterNoSuch" "$in" "$tmp/e1" --filters QVFilterBlur,QVFilterNoSuch
expect_error "empty name" "$in" "$tmp/e2" --filters "QVFilterBlur,,QVFilterGammaAdjust"
expect_error "$tmp/missing.png" "$tmp/missing.png" "$tmp/e3"
echo "not an image" > "$tmp/bad.png"
expect_error "bad.png" "$tmp/bad.png" "$tmp/e4"
touch "$tmp/afile"
expect_error "is not a directory" "$in" "$tmp/afile"
if "$QVFILTER" gallery "$in" >/dev/null 2>&1; then fail "gallery without a directory succeeded"; fi
[ ! -e "$tmp/e1" ] || fail "a refused --filters still wrote $tmp/e1"

echo "gallery: all checks passed"
