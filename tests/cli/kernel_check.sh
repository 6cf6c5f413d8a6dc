#!/bin/bash
# qvfilter kernel check: lists kernel routines in order, reports diagnostics with file, line
# and column, and refuses unreadable and oversized files with a clear message.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/kernel_check"
mkdir -p "$tmp"

# The shipped pass-through kernel.
out=$("$QVFILTER" kernel check "$QV_SOURCE_DIR/Resources/NoOp.cikernel") || fail "NoOp.cikernel does not check"
[ "$out" = "kernel vec4 noOp(sampler image)" ] || fail "unexpected listing: $out"

# Several kernels, in source order, with every parameter kind.
out=$("$QVFILTER" kernel check "$QV_SOURCE_DIR/tests/kernels/ok/multiple_kernels.cikernel") || fail "multiple_kernels does not check"
expected="kernel vec4 first(sampler image, __table sampler lut)
kernel vec4 second(__sample c, __color tint, float amount)
kernel vec4 third(vec2 a, vec3 b, vec4 c)"
[ "$out" = "$expected" ] || fail "unexpected listing: $out"

# A compile error: FILE:LINE:COLUMN: error: MESSAGE on stderr, non-zero exit, nothing on stdout.
bad="$QV_SOURCE_DIR/tests/kernels/errors/swizzle_out_of_range.cikernel"
if out=$("$QVFILTER" kernel check "$bad" 2>"$tmp/err"); then fail "a broken kernel checked"; fi
[ -z "$out" ] || fail "stdout not empty on error: $out"
grep -qF "$bad:3:19: error: swizzle component 'z' is out of range for vec2" "$tmp/err" || fail "diagnostic missing: $(cat "$tmp/err")"

# Missing file.
if "$QVFILTER" kernel check "$tmp/does-not-exist.cikernel" 2>"$tmp/err"; then fail "missing file accepted"; fi
grep -q "cannot read .*does-not-exist.cikernel" "$tmp/err" || fail "no clear message for a missing file: $(cat "$tmp/err")"

# A directory.
if "$QVFILTER" kernel check "$tmp" 2>"$tmp/err"; then fail "directory accepted"; fi
grep -q "directory" "$tmp/err" || fail "no clear message for a directory: $(cat "$tmp/err")"

# Oversized file (more than 1 MB).
head -c 1100000 /dev/zero | tr '\0' ' ' > "$tmp/big.cikernel"
if "$QVFILTER" kernel check "$tmp/big.cikernel" 2>"$tmp/err"; then fail "oversized file accepted"; fi
grep -q "larger than 1 MB" "$tmp/err" || fail "no clear message for an oversized file: $(cat "$tmp/err")"

# Text without kernels, and binary junk.
printf 'float helper(float x) { return x; }\n' > "$tmp/nokernel.cikernel"
if "$QVFILTER" kernel check "$tmp/nokernel.cikernel" 2>"$tmp/err"; then fail "file without kernels accepted"; fi
grep -q "no kernel routine" "$tmp/err" || fail "no clear message for a file without kernels"
head -c 4096 /dev/urandom > "$tmp/junk.cikernel"
"$QVFILTER" kernel check "$tmp/junk.cikernel" 2>"$tmp/err"
rc=$?
[ $rc -eq 1 ] || fail "junk input gave exit code $rc"
grep -q "error:" "$tmp/err" || fail "no diagnostic for junk input"

# No arguments: usage error.
if "$QVFILTER" kernel check 2>/dev/null; then fail "missing FILE accepted"; fi
echo "ok"
