#!/bin/bash
# A bundle that cannot be loaded is reported once, with its path and the reason, and the host
# goes on with the others.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/plugin_load_failures"
rm -rf "$tmp"
mkdir -p "$tmp/plugins"
bundle="$(cd "$(dirname "$QVFILTER")/../lib/qvfilter/QVFilterImageUnits.plugin" && pwd)"

# No Info.plist.
mkdir -p "$tmp/plugins/Empty.plugin"
# A library that is not there.
mkdir -p "$tmp/plugins/NoLibrary.plugin/Resources"
cat > "$tmp/plugins/NoLibrary.plugin/Info.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>org.qvfilter.tests.nolibrary</string>
<key>CFBundleExecutable</key><string>Missing.so</string>
<key>NSPrincipalClass</key><string>QVFilterImageUnitsPlugin</string>
</dict></plist>
PLIST
cp "$bundle/Resources/Description.plist" "$tmp/plugins/NoLibrary.plugin/Resources/"
# A garbled filter description.
mkdir -p "$tmp/plugins/Garbled.plugin/Resources"
sed 's/org.qvfilter.filters.imageunits/org.qvfilter.tests.garbled/' "$bundle/Info.plist" > "$tmp/plugins/Garbled.plugin/Info.plist"
ln -s "$bundle/QVFilterImageUnits.so" "$tmp/plugins/Garbled.plugin/QVFilterImageUnits.so"
printf '<plist><dict><key>QVFilterRotate</key><dict>' > "$tmp/plugins/Garbled.plugin/Resources/Description.plist"
# A library cut in half: refused before it is mapped (mapping it would fault past its end).
mkdir -p "$tmp/plugins/Cut.plugin/Resources"
sed 's/org.qvfilter.filters.imageunits/org.qvfilter.tests.cut/' "$bundle/Info.plist" > "$tmp/plugins/Cut.plugin/Info.plist"
cp "$bundle/Resources/Description.plist" "$tmp/plugins/Cut.plugin/Resources/"
size=$(stat -c %s "$bundle/QVFilterImageUnits.so")
head -c $((size / 2)) "$bundle/QVFilterImageUnits.so" > "$tmp/plugins/Cut.plugin/QVFilterImageUnits.so"

QV_PLUGIN_PATH="$tmp/plugins" "$QVFILTER" list >"$tmp/out" 2>"$tmp/err" || fail "list failed: $(cat "$tmp/err")"
cat "$tmp/err"
grep -qx "qvfilter: cannot load plug-in $tmp/plugins/Empty.plugin: missing Info.plist" "$tmp/err" \
  || fail "no reason for Empty.plugin"
grep -qx "qvfilter: cannot load plug-in $tmp/plugins/NoLibrary.plugin: missing library Missing.so" "$tmp/err" \
  || fail "no reason for NoLibrary.plugin"
grep -q "^qvfilter: cannot load plug-in $tmp/plugins/Garbled.plugin: garbled filter description" "$tmp/err" \
  || fail "no reason for Garbled.plugin"
grep -qx "qvfilter: cannot load plug-in $tmp/plugins/Cut.plugin: cannot open library QVFilterImageUnits.so: truncated ELF file ($((size / 2)) bytes)" "$tmp/err" \
  || fail "no reason for Cut.plugin"
[ "$(wc -l < "$tmp/err")" -eq 4 ] || fail "each failure should be reported exactly once"
# The good bundle beside the host still loads.
grep -qx QVFilterSquareCrop "$tmp/out" || fail "the good bundle was not loaded after the failures"

# The failures are reported once per run, also by the commands that load plug-ins and fail.
QV_PLUGIN_PATH="$tmp/plugins/Empty.plugin" "$QVFILTER" apply "$tmp/none.png" "$tmp/out.png" -f QVFilterRotate 2>"$tmp/err" \
  && fail "apply of a missing file succeeded"
[ "$(grep -c 'cannot load plug-in' "$tmp/err")" -eq 1 ] || fail "apply: the failure was not reported once: $(cat "$tmp/err")"
echo "plugin_load_failures: ok"
