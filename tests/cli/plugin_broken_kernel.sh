#!/bin/bash
# A bundle whose kernel resource does not compile still loads: the plug-in reports nothing, the
# filters that use the kernel yield nothing from the kernel's step, and the host says which
# filter produced no image, exits non-zero and writes no file. The compiler's diagnostic stays
# available to `qvfilter kernel check`.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/plugin_broken_kernel"
rm -rf "$tmp"
mkdir -p "$tmp"
bundle="$(cd "$(dirname "$QVFILTER")/../lib/qvfilter/QVFilterImageUnits.plugin" && pwd)"
"$QVFILTER" sample --width 320 --height 240 "$tmp/in.png" >/dev/null || fail "sample failed"

# A copy of the bundle with one kernel resource cut off in the middle of its text.
broken_bundle() {  # KERNEL -> prints the plug-in folder to use as QV_PLUGIN_PATH
  local dir="$tmp/$1/plugins"
  mkdir -p "$dir"
  cp -r "$bundle" "$dir/"
  local text="$bundle/Resources/$1.cikernel"
  { head -c $(($(stat -c %s "$text") / 2)) "$text"; printf '\n}}\n'; } > "$dir/QVFilterImageUnits.plugin/Resources/$1.cikernel"
  echo "$dir"
}

# The filter whose only image comes from the kernel's step: no image, exit 1, no file left.
expect_no_image() {  # KERNEL FILTER
  local plugins out="$tmp/$1-$2.png"
  plugins=$(broken_bundle "$1")
  if QV_PLUGIN_PATH="$plugins" "$QVFILTER" apply "$tmp/in.png" "$out" -f "$2" >"$tmp/out" 2>"$tmp/err"; then
    fail "$2 with a broken $1 kernel succeeded"
  fi
  [ "$(cat "$tmp/err")" = "qvfilter: $2 produced no image" ] || fail "$2: unexpected stderr: $(cat "$tmp/err")"
  [ ! -s "$tmp/out" ] || fail "$2: unexpected stdout: $(cat "$tmp/out")"
  [ -z "$(ls "$tmp" | grep -F "$1-$2.png")" ] || fail "$2: an output file was left behind"
  # The intact bundle renders the same filter.
  QV_PLUGIN_PATH= "$QVFILTER" apply "$tmp/in.png" "$tmp/intact-$2.png" -f "$2" >/dev/null 2>"$tmp/err" \
    || fail "$2 with the intact bundle failed: $(cat "$tmp/err")"
}
expect_no_image QVFilterTiltLinear QVFilterTilt
expect_no_image NoOp QVFilterBlur

# A kernel the filter loads but never applies with these inputs changes nothing, and nothing
# is reported.
plugins=$(broken_bundle QVFilterStereoscopic)
QV_PLUGIN_PATH="$plugins" "$QVFILTER" apply "$tmp/in.png" "$tmp/stereo-broken.png" -f QVFilterStereoscopic \
  >/dev/null 2>"$tmp/err" || fail "stereoscopic with a broken kernel failed: $(cat "$tmp/err")"
[ ! -s "$tmp/err" ] || fail "stereoscopic: something was reported: $(cat "$tmp/err")"
QV_PLUGIN_PATH= "$QVFILTER" apply "$tmp/in.png" "$tmp/stereo-intact.png" -f QVFilterStereoscopic >/dev/null 2>&1 \
  || fail "stereoscopic with the intact bundle failed"
cmp -s "$tmp/stereo-broken.png" "$tmp/stereo-intact.png" || fail "stereoscopic: the unused kernel changed the picture"

# The diagnostic, with line and column, is what `kernel check` prints for the broken text.
broken="$tmp/QVFilterTiltLinear/plugins/QVFilterImageUnits.plugin/Resources/QVFilterTiltLinear.cikernel"
if "$QVFILTER" kernel check "$broken" >/dev/null 2>"$tmp/err"; then fail "kernel check accepted the broken kernel"; fi
grep -qE "^$broken:[0-9]+:[0-9]+: error: " "$tmp/err" || fail "kernel check gave no located diagnostic: $(cat "$tmp/err")"
echo "plugin_broken_kernel: ok"
