#!/bin/bash
# The host loads the plug-in bundle at run time and lists its filters beside the built-ins:
# found beside the executable, and through QV_PLUGIN_PATH (a bundle or a directory of bundles).
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/plugin_list"
rm -rf "$tmp"
mkdir -p "$tmp"
bundle="$(dirname "$QVFILTER")/../lib/qvfilter/QVFilterImageUnits.plugin"
[ -d "$bundle" ] || fail "no bundle beside the host at $bundle"

filters="QVFilterProportionalCrop QVFilterResize QVFilterRotate QVFilterSquareCrop"

# Beside the executable.
out=$(env -u QV_PLUGIN_PATH "$QVFILTER" list 2>"$tmp/err") || fail "list failed: $(cat "$tmp/err")"
[ -s "$tmp/err" ] && fail "unexpected messages: $(cat "$tmp/err")"
for f in $filters; do echo "$out" | grep -qx "$f" || fail "$f missing from: $out"; done
echo "$out" | grep -q "^CI" || fail "built-ins missing from the list"

# By category, with display names from the bundle's filter description.
out=$(env -u QV_PLUGIN_PATH "$QVFILTER" list --category CICategoryGeometryAdjustment) || fail "list --category failed"
for f in $filters; do echo "$out" | grep -qx "$f" || fail "$f not in CICategoryGeometryAdjustment"; done
env -u QV_PLUGIN_PATH "$QVFILTER" list --json | grep -q '"displayName": "Square Crop"' \
  || fail "display name of QVFilterSquareCrop missing from list --json"

# Through QV_PLUGIN_PATH: the bundle itself, then a directory holding it. The same bundle found
# twice (here and beside the executable) loads once and quietly.
QV_PLUGIN_PATH="$bundle" "$QVFILTER" list >"$tmp/out" 2>"$tmp/err" || fail "list with a bundle path failed"
[ -s "$tmp/err" ] && fail "unexpected messages: $(cat "$tmp/err")"
grep -qx QVFilterRotate "$tmp/out" || fail "QVFilterRotate missing with QV_PLUGIN_PATH=bundle"
mkdir -p "$tmp/dir"
ln -s "$(cd "$bundle" && pwd)" "$tmp/dir/QVFilterImageUnits.plugin"
QV_PLUGIN_PATH="/does/not/exist:$tmp/dir" "$QVFILTER" list >"$tmp/out" 2>"$tmp/err" || fail "list with a directory failed"
[ -s "$tmp/err" ] && fail "unexpected messages: $(cat "$tmp/err")"
grep -qx QVFilterResize "$tmp/out" || fail "QVFilterResize missing with QV_PLUGIN_PATH=dir"

# A copy of the host elsewhere, with the bundle only on QV_PLUGIN_PATH.
mkdir -p "$tmp/elsewhere/bin"
cp "$QVFILTER" "$tmp/elsewhere/bin/qvfilter"
export LD_LIBRARY_PATH="$(dirname "$QVFILTER")/../lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
out=$(env -u QV_PLUGIN_PATH "$tmp/elsewhere/bin/qvfilter" list 2>/dev/null) || fail "copied host does not run"
echo "$out" | grep -q '^QVFilter' && fail "a host without a bundle beside it listed plug-in filters"
out=$(QV_PLUGIN_PATH="$tmp/dir" "$tmp/elsewhere/bin/qvfilter" list) || fail "copied host with QV_PLUGIN_PATH failed"
for f in $filters; do echo "$out" | grep -qx "$f" || fail "QV_PLUGIN_PATH not searched: $f missing"; done
echo "plugin_list: ok"
