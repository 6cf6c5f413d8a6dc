#!/usr/bin/env bash
# qvfilter apply: chains of -f steps with -s values of every attribute class, --extent,
# --threads, --quality, --progress, and every error path.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch recipes_apply)
export QV_PLUGIN_PATH=""

# Inputs: a 16x8 opaque image, left half red and right half blue; and a 16x8 green background.
"$PIL_PYTHON" - "$tmp/in.png" "$tmp/bg.png" <<'PY' || { echo "cannot write inputs (Pillow missing?)" >&2; exit 1; }
import sys
from PIL import Image
im = Image.new("RGBA", (16, 8))
for y in range(8):
    for x in range(16):
        im.putpixel((x, y), (255, 0, 0, 255) if x < 8 else (0, 0, 255, 255))
im.save(sys.argv[1])
Image.new("RGBA", (16, 8), (0, 255, 0, 255)).save(sys.argv[2])
PY
in="$tmp/in.png"

# --extent without rendering; NSAffineTransform values.
expect_ok "extent of the input" "$QVFILTER" apply "$in" --extent -f CIAffineTransform && \
  { [ "$out" = "0 0 16 8" ] || fail "identity transform extent: $out"; }
expect_ok "extent of a transform" "$QVFILTER" apply "$in" --extent -f CIAffineTransform -s "inputTransform=2 0 0 2 5 -3" && \
  { [ "$out" = "5 -3 32 16" ] || fail "transform extent: $out"; }
[ -e "$tmp/out.png" ] && fail "--extent rendered a file"

# CIVector values; steps run in order, each taking the previous output.
expect_ok "crop then move" "$QVFILTER" apply "$in" --extent -f CICrop -s "inputRectangle=8 0 4 4" \
  -f CIAffineTransform -s "inputTransform=1 0 0 1 -8 0" && { [ "$out" = "0 0 4 4" ] || fail "crop then move: $out"; }
expect_ok "move then crop" "$QVFILTER" apply "$in" --extent -f CIAffineTransform -s "inputTransform=1 0 0 1 -8 0" \
  -f CICrop -s "inputRectangle=[0 0 4 4]" && { [ "$out" = "0 0 4 4" ] || fail "move then crop: $out"; }

# Rendering: the right (blue) half cropped and written.
if expect_ok "crop to file" "$QVFILTER" apply "$in" "$tmp/out.png" -f CICrop -s "inputRectangle=8 0 8 8"; then
  [ "$(png_size "$tmp/out.png")" = "8 8" ] || fail "cropped size: $(png_size "$tmp/out.png")"
  [ "$(png_pixel "$tmp/out.png" 0 0)" = "0 0 255 255" ] || fail "cropped pixel: $(png_pixel "$tmp/out.png" 0 0)"
  case "$out" in *"(8x8)"*) ;; *) fail "apply did not report what it wrote: $out" ;; esac
fi

# CIColor values (3 and 4 numbers) and a generator as the first step (its inputImage unused).
if expect_ok "colour" "$QVFILTER" apply "$in" "$tmp/green.png" -f CIConstantColorGenerator -s "inputColor=0 1 0" \
  -f CICrop -s "inputRectangle=0 0 3 2"; then
  [ "$(png_size "$tmp/green.png")" = "3 2" ] || fail "colour size: $(png_size "$tmp/green.png")"
  [ "$(png_pixel "$tmp/green.png" 1 1)" = "0 255 0 255" ] || fail "colour pixel: $(png_pixel "$tmp/green.png" 1 1)"
fi
if expect_ok "colour with alpha" "$QVFILTER" apply "$in" "$tmp/clear.png" -f CIConstantColorGenerator \
  -s "inputColor=1 1 1 0" -f CICrop -s "inputRectangle=0 0 2 2"; then
  pixel=$(png_pixel "$tmp/clear.png" 0 0)
  [ "${pixel##* }" = "0" ] || fail "transparent colour pixel: $pixel"
fi

# CIImage values: a file path; source over with a half-transparent foreground.
if expect_ok "image value" "$QVFILTER" apply "$in" "$tmp/over.png" -f CIConstantColorGenerator -s "inputColor=1 1 1 0" \
  -f CICrop -s "inputRectangle=0 0 16 8" -f CISourceOverCompositing -s "inputBackgroundImage=$tmp/bg.png"; then
  [ "$(png_pixel "$tmp/over.png" 3 3)" = "0 255 0 255" ] || fail "background through a clear foreground: $(png_pixel "$tmp/over.png" 3 3)"
fi

# NSNumber values: integer and real.
expect_ok "number integer" "$QVFILTER" apply "$in" --extent -f CIGaussianBlur -s inputRadius=3
r3="$out"
expect_ok "number real" "$QVFILTER" apply "$in" --extent -f CIGaussianBlur -s inputRadius=0.5
[ "$r3" != "$out" ] || fail "the blur radius did not change the extent ($r3)"

# --threads, --quality (JPEG), --progress.
expect_ok "threads" "$QVFILTER" apply "$in" "$tmp/t1.png" --threads 1 -f CIAffineTransform
expect_ok "threads many" "$QVFILTER" apply "$in" "$tmp/t2.png" --threads 4 -f CIAffineTransform
cmp -s "$tmp/t1.png" "$tmp/t2.png" || fail "1 thread and 4 threads differ"
expect_ok "quality low" "$QVFILTER" apply "$in" "$tmp/q10.jpg" --quality 10 -f CIAffineTransform
expect_ok "quality high" "$QVFILTER" apply "$in" "$tmp/q100.jpg" --quality 100 -f CIAffineTransform
[ "$(stat -c %s "$tmp/q10.jpg")" -lt "$(stat -c %s "$tmp/q100.jpg")" ] || fail "quality 10 is not smaller than quality 100"
"$QVFILTER" apply "$in" "$tmp/p.png" --progress -f CIAffineTransform >/dev/null 2>"$tmp/progress.txt" || fail "--progress failed"
grep -qx "rendering: 100%" "$tmp/progress.txt" || fail "--progress printed no final line: $(cat "$tmp/progress.txt")"
[ "$(wc -l <"$tmp/progress.txt")" -le 10 ] || fail "--progress printed more than ten lines"
"$QVFILTER" apply "$in" "$tmp/p.png" -f CIAffineTransform >/dev/null 2>"$tmp/quiet.txt" || fail "apply failed"
[ -s "$tmp/quiet.txt" ] && fail "progress printed although stderr is no terminal: $(cat "$tmp/quiet.txt")"

# ---- Errors ----
expect_error "unknown filter" "unknown filter: CINoSuchFilter" "$QVFILTER" apply "$in" "$tmp/e.png" -f CINoSuchFilter
expect_error "unknown key" "CICrop: unknown key inputRadius (input keys: inputImage, inputRectangle)" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CICrop -s inputRadius=3
expect_error "bad number" 'inputRadius expects a number (NSNumber), got "wide"' \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CIGaussianBlur -s inputRadius=wide
expect_error "bad vector" "inputRectangle expects 1 to 4 numbers" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CICrop -s "inputRectangle=0 0 1 2 3"
expect_error "bad colour" "inputColor expects 3 or 4 numbers" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CIConstantColorGenerator -s "inputColor=red"
expect_error "bad transform" "inputTransform expects 6 numbers" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CIAffineTransform -s "inputTransform=1 0 0 1"
expect_error "missing image value" "inputBackgroundImage: cannot read image file $tmp/none.png: no such file" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CISourceOverCompositing -s "inputBackgroundImage=$tmp/none.png"
expect_error "missing input" "cannot read image file $tmp/none.png: no such file" \
  "$QVFILTER" apply "$tmp/none.png" "$tmp/e.png" -f CICrop
printf 'not an image' >"$tmp/corrupt.png"
expect_error "corrupt input" "cannot read image file $tmp/corrupt.png" "$QVFILTER" apply "$tmp/corrupt.png" "$tmp/e.png" -f CICrop
expect_error "no filter" "apply needs at least one -f FILTER" "$QVFILTER" apply "$in" "$tmp/e.png"
expect_error "setting before filter" "-s inputRadius=2 must follow the -f NAME of its filter" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -s inputRadius=2 -f CIGaussianBlur
expect_error "setting without =" '-s expects KEY=VALUE, got "inputRadius"' \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CIGaussianBlur -s inputRadius
expect_error "infinite output" "the output image is infinite; end the chain with a crop" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CIConstantColorGenerator
expect_error "no output file" "apply needs an output file (or --extent)" "$QVFILTER" apply "$in" -f CICrop
expect_error "output type" 'cannot write '"$tmp"'/e.tiff: unknown image type ".tiff"' \
  "$QVFILTER" apply "$in" "$tmp/e.tiff" -f CICrop
# The file is named once: the layers below do not repeat "cannot write X:".
expect_error "unwritable output" "qvfilter: cannot create $tmp/no/dir/e.png: No such file or directory" \
  "$QVFILTER" apply "$in" "$tmp/no/dir/e.png" -f CICrop
expect_error "nil output" "qvfilter: CISourceOverCompositing produced no image: inputBackgroundImage is missing" \
  "$QVFILTER" apply "$in" "$tmp/e.png" -f CISourceOverCompositing
[ -e "$tmp/e.png" ] && fail "a failed apply left an output file"
"$QVFILTER" apply "$in" "$tmp/e.png" --threads -1 -f CICrop >/dev/null 2>&1 && fail "--threads -1 was accepted"
"$QVFILTER" apply "$in" "$tmp/e.png" --quality 101 -f CICrop >/dev/null 2>&1 && fail "--quality 101 was accepted"

finish
