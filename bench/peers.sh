#!/usr/bin/env bash
# bench/peers.sh: runs the same image work through qvfilter and its peers (libvips' `vips`,
# ImageMagick's `convert`, Pillow) in one run, and prints a table of wall time (best of N) and
# peak RSS of each, with the ratio peer time / our time (above 1: we are faster).
#
#   bench/peers.sh [--runs N] [--only PATTERN]
#   env: QVFILTER (default: build/release/bin/qvfilter, then build/*/bin/qvfilter),
#        QV_PEERS_TMP (scratch directory, default /tmp/qv-peers)
#
# Inputs, made once in the scratch directory: a smooth 6000x4000 photo-like sample (`qvfilter
# sample`, 2.3 MB at Q90), a camera-like grainy 6000x4000 photo (bench/make_grainy_photo.py: a
# mosaic of the sample photos of Debian's python3-skimage with film-like grain, about 7 MB at
# Q90) and the same mosaic at 12000x8000. Every row of the 24-megapixel cases runs on both the
# smooth and the grainy picture. A case is one line (see "Cases"):
#   case_row NAME "our command" "vips command" "convert command" "pillow python"
# Commands are run by bash; $IN is the input JPEG and $OUT a scratch directory. The Pillow
# column is Python source run by Debian's python3 with `from PIL import Image` already done.
# An empty command leaves that peer's cell as "-". A command that takes more than 10 s on its
# first run is not run again (the slowest peers would otherwise dominate the script's time).
# PATTERN is a grep pattern matched against "NAME (input)".
#
# After the table come two summaries: thread scaling (rows "..., 1 thread" against
# "..., 2 threads": ours with --threads, vips with VIPS_CONCURRENCY) and every effect filter
# against the streamed copy (`qvfilter convert`) of the same input.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

runs=3
only=.
bench_parse_args "$0" runs only -- "$@"

QVFILTER=${QVFILTER:-}
if [ -z "$QVFILTER" ]; then
  for candidate in build/release/bin/qvfilter build/*/bin/qvfilter; do
    if [ -x "$candidate" ]; then QVFILTER=$(realpath "$candidate"); break; fi
  done
fi
[ -n "$QVFILTER" ] && [ -x "$QVFILTER" ] || { echo "peers.sh: build qvfilter first (or set QVFILTER)" >&2; exit 1; }
PY=/usr/bin/python3; [ -x "$PY" ] || PY=python3      # Debian's python3-pil
IM=/usr/bin/convert; [ -x "$IM" ] || IM=convert      # ImageMagick itself, not a wrapper on PATH
TIME=/usr/bin/time
[ -x "$TIME" ] || { echo "peers.sh: GNU time (/usr/bin/time) is needed" >&2; exit 1; }
command -v vips >/dev/null || echo "peers.sh: vips not found; its column will be empty" >&2

WORK=${QV_PEERS_TMP:-/tmp/qv-peers}
mkdir -p "$WORK"
export OUT="$WORK/out"
mkdir -p "$OUT"
SMOOTH="$WORK/photo-6000x4000-q90.jpg" GRAINY="$WORK/grainy-6000x4000-q90.jpg" HUGE="$WORK/grainy-12000x8000-q90.jpg"
if [ ! -s "$SMOOTH" ]; then
  "$QVFILTER" sample "$WORK/photo.png" --width 6000 --height 4000 >/dev/null
  "$QVFILTER" convert "$WORK/photo.png" "$SMOOTH" --quality 90 >/dev/null
  rm -f "$WORK/photo.png"
fi
"$PY" -c 'import skimage' 2>/dev/null || { echo "peers.sh: Debian's python3-skimage is needed (scripts/bootstrap)" >&2; exit 1; }
[ -s "$GRAINY" ] || "$PY" bench/make_grainy_photo.py "$GRAINY" --width 6000 --height 4000
[ -s "$HUGE" ] || "$PY" bench/make_grainy_photo.py "$HUGE" --width 12000 --height 8000

# measure KIND COMMAND -> "seconds megabytes" of the fastest of $runs runs ("- -" if it failed).
measure() {
  local kind=$1 cmd=$2 best_t="" best_m="" t m
  [ -n "$cmd" ] || { echo "- -"; return; }
  for _ in $(seq "$runs"); do
    if [ "$kind" = pillow ]; then
      bench_run_timed "$WORK/time.txt" "$PY" -c "from PIL import Image
import os
IN, OUT = os.environ['IN'], os.environ['OUT']
$cmd" || { echo "- -"; return; }
    else
      bench_run_timed "$WORK/time.txt" bash -c "$cmd" || { echo "- -"; return; }
    fi
    read -r t m <"$WORK/time.txt"
    if [ -z "$best_t" ] || awk "BEGIN{exit !($t < $best_t)}"; then best_t=$t; best_m=$m; fi
    awk "BEGIN{exit !($t > 10)}" && break
  done
  awk -v t="$best_t" -v m="$best_m" 'BEGIN{printf "%.3f %.0f\n", t, m / 1024}'
}

rows=()
# case_row NAME OURS VIPS CONVERT PILLOW: measures one case on $IN and adds its row to the table.
case_row() {
  local name="$1 ($LABEL)"
  grep -q -- "$only" <<<"$name" || return 0
  echo "peers.sh: $name..." >&2
  local ours vips im pil
  ours=$(measure shell "$2"); vips=$(measure shell "$3"); im=$(measure shell "$4"); pil=$(measure pillow "$5")
  rows+=("$name|$ours|$vips|$im|$pil")
}

# Our blur as the plug-in's blur runs it: edge pixels extended, Gaussian, crop back to W x H.
blur_cmd() {  # RADIUS OUTFILE W H [EXTRA ARGS]
  echo "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/$2\" -f CIAffineClamp -s 'inputTransform=1 0 0 1 0 0' -f CIGaussianBlur -s inputRadius=$1 -f CICrop -s 'inputRectangle=0 0 $3 $4' --quality 90 ${5:-}"
}

# The effect filters of the plug-in, run with their defaults.
EFFECTS="QVFilterBorder QVFilterReflection QVFilterShine QVFilterShineStraight QVFilterShineCurved QVFilterTilt QVFilterStereoscopic"

# ---- Cases -------------------------------------------------------------------------------
cat >"$WORK/swap.mat" <<'MAT'
3 3 1 0
0 0 1
0 1 0
1 0 0
MAT

cases_24mp() {
case_row "copy (decode + encode JPEG Q90)" \
  "\"$QVFILTER\" convert \"\$IN\" \"\$OUT/ours.jpg\" --quality 90" \
  "vips copy \"\$IN\" \"\$OUT/vips.jpg[Q=90]\"" \
  "$IM \"\$IN\" -quality 90 \"\$OUT/im.jpg\"" \
  "Image.open(IN).save(OUT + '/pil.jpg', quality=90)"
case_row "thumbnail 1000 (JPEG Q90)" \
  "\"$QVFILTER\" convert \"\$IN\" \"\$OUT/ours_t.jpg\" --max-size 1000 --quality 90" \
  "vips thumbnail \"\$IN\" \"\$OUT/vips_t.jpg[Q=90]\" 1000" \
  "$IM -define jpeg:size=2000x2000 \"\$IN\" -thumbnail 1000x1000 -quality 90 \"\$OUT/im_t.jpg\"" \
  "im = Image.open(IN); im.thumbnail((1000, 1000)); im.save(OUT + '/pil_t.jpg', quality=90)"
case_row "thumbnail 256 (PNG)" \
  "\"$QVFILTER\" convert \"\$IN\" \"\$OUT/ours_s.png\" --max-size 256" \
  "vips thumbnail \"\$IN\" \"\$OUT/vips_s.png\" 256" \
  "$IM -define jpeg:size=512x512 \"\$IN\" -thumbnail 256x256 \"\$OUT/im_s.png\"" \
  "im = Image.open(IN); im.thumbnail((256, 256)); im.save(OUT + '/pil_s.png')"
# Gaussian blur, sigma 20, as the plug-in's blur runs it: edge pixels extended, blurred, cropped
# back to the photo. vips' gaussblur takes sigma; ImageMagick's separable -blur 0x20 (its 2-D
# -gaussian-blur is about ten times slower); Pillow's GaussianBlur takes sigma as its radius.
case_row "gaussian blur 20 (JPEG Q90)" \
  "$(blur_cmd 20 ours_g.jpg 6000 4000)" \
  "vips gaussblur \"\$IN\" \"\$OUT/vips_g.jpg[Q=90]\" 20" \
  "$IM \"\$IN\" -blur 0x20 -quality 90 \"\$OUT/im_g.jpg\"" \
  "from PIL import ImageFilter; Image.open(IN).filter(ImageFilter.GaussianBlur(20)).save(OUT + '/pil_g.jpg', quality=90)"
# Small radii run a direct convolution, large ones three box passes whose cost does not depend
# on the radius. Radius 5 also as the plain filter, unclamped (the output grows by 3 sigma).
for radius in 5 100; do
  case_row "gaussian blur $radius (JPEG Q90)" \
    "$(blur_cmd $radius ours_g$radius.jpg 6000 4000)" \
    "vips gaussblur \"\$IN\" \"\$OUT/vips_g$radius.jpg[Q=90]\" $radius" "" ""
done
case_row "gaussian blur 5, unclamped (JPEG Q90)" \
  "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/ours_g5u.jpg\" -f CIGaussianBlur -s inputRadius=5 --quality 90" \
  "vips gaussblur \"\$IN\" \"\$OUT/vips_g5u.jpg[Q=90]\" 5" "" ""
# Thread scaling: ours with --threads, vips with VIPS_CONCURRENCY (see the scaling summary).
for t in 1 2; do
  s=$([ $t = 1 ] && echo thread || echo threads)
  case_row "gaussian blur 20, $t $s (JPEG Q90)" \
    "$(blur_cmd 20 ours_g_t$t.jpg 6000 4000 "--threads $t")" \
    "VIPS_CONCURRENCY=$t vips gaussblur \"\$IN\" \"\$OUT/vips_g_t$t.jpg[Q=90]\" 20" "" ""
done
# Lanczos reduction to a quarter (1500 x 1000).
case_row "lanczos 0.25 (JPEG Q90)" \
  "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/ours_l.jpg\" -f CILanczosScaleTransform -s inputScale=0.25 --quality 90" \
  "vips resize \"\$IN\" \"\$OUT/vips_l.jpg[Q=90]\" 0.25 --kernel lanczos3" \
  "$IM \"\$IN\" -filter Lanczos -resize 25% -quality 90 \"\$OUT/im_l.jpg\"" \
  "Image.open(IN).resize((1500, 1000), Image.LANCZOS).save(OUT + '/pil_l.jpg', quality=90)"
# A colour matrix that swaps red and blue and makes the picture 80% opaque, then source-over onto
# a constant colour. vips has no constant-colour image in one command, so it runs the algebra
# that the composite reduces to: recomb, then 0.8 * x + 0.2 * background.
cat >"$WORK/matrix_over_$LABEL.json" <<JSON
{"images": {"photo": {"file": "$IN"}, "bg": {"color": [0.2, 0.3, 0.4, 1]}},
 "chain": [{"filter": "CIColorMatrix", "inputs": {"inputImage": "@photo",
             "inputRVector": {"vector": [0, 0, 1, 0]}, "inputBVector": {"vector": [1, 0, 0, 0]},
             "inputAVector": {"vector": [0, 0, 0, 0.8]}}},
           {"filter": "CISourceOverCompositing", "inputs": {"inputBackgroundImage": "@bg"}}],
 "output": {"file": "$OUT/ours_m.jpg", "rect": [0, 0, 6000, 4000], "quality": 0.9}}
JSON
case_row "colour matrix + source-over (JPEG Q90)" \
  "\"$QVFILTER\" run \"$WORK/matrix_over_$LABEL.json\"" \
  "vips recomb \"\$IN\" \"\$OUT/vips_m.v\" \"$WORK/swap.mat\" && vips linear \"\$OUT/vips_m.v\" \"\$OUT/vips_m.jpg[Q=90]\" '0.8 0.8 0.8' '10.2 15.3 20.4'" \
  "$IM \"\$IN\" -color-matrix '0 0 1 0 1 0 1 0 0' -alpha set -channel A -evaluate set 80% +channel -background 'rgb(51,77,102)' -flatten -quality 90 \"\$OUT/im_m.jpg\"" \
  "from PIL import ImageChops; im = Image.open(IN); r, g, b = im.split(); Image.blend(Image.new('RGB', im.size, (51, 77, 102)), Image.merge('RGB', (b, g, r)), 0.8).save(OUT + '/pil_m.jpg', quality=90)"
# Effect filters of the plug-in with their defaults, JPEG to JPEG, on 1 and 2 threads (compare
# with the copy row: see the effects summary). No peer runs the same graph, so their cells stay
# empty; vips' own thread scaling is that of the Gaussian rows above.
for effect in $EFFECTS; do
  for t in 1 2; do
    s=$([ $t = 1 ] && echo thread || echo threads)
    case_row "effect $effect, $t $s (defaults, JPEG Q90)" \
      "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/ours_$effect.jpg\" -f $effect --quality 90 --threads $t" "" "" ""
  done
done
case_row "effect border outside 12 (JPEG Q90)" \
  "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/ours_bo.jpg\" -f QVFilterBorder -s inputBorderType=1 --quality 90" \
  "vips embed \"\$IN\" \"\$OUT/vips_bo.jpg[Q=90]\" 12 12 6024 4024 --extend white" \
  "$IM \"\$IN\" -bordercolor white -border 12 -quality 90 \"\$OUT/im_bo.jpg\"" \
  "from PIL import ImageOps; ImageOps.expand(Image.open(IN), 12, 'white').save(OUT + '/pil_bo.jpg', quality=90)"
# The mask and composite filters with their defaults (compare with the copy row: each should
# stay within 1.4x of it, the texture overlay's peak memory within 1.3x). No peer runs these
# graphs; bench/composite_table.sh measures the same in one program, with CPU times.
for composite in QVFilterColorComposite QVFilterBlurComposite QVFilterNoiseComposite QVFilterTextureComposite \
                 QVFilterTextureTile QVFilterTextureBorder QVFilterGradientComposite QVFilterOffsetComposite \
                 QVFilterScaleComposite; do
  case_row "composite $composite (defaults, JPEG Q90)" \
    "\"$QVFILTER\" apply \"\$IN\" \"\$OUT/ours_$composite.jpg\" -f $composite --quality 90" "" "" ""
done
# (More cases go here: case_row NAME OURS VIPS CONVERT PILLOW.)
}

export IN
for pair in "smooth:$SMOOTH" "grainy:$GRAINY"; do
  LABEL=${pair%%:*} IN=${pair#*:}
  cases_24mp
done
# 96 megapixels: memory and time should grow with the picture, not faster.
LABEL="grainy 12000x8000" IN=$HUGE
case_row "gaussian blur 20 (JPEG Q90)" \
  "$(blur_cmd 20 ours_g12k.jpg 12000 8000)" \
  "vips gaussblur \"\$IN\" \"\$OUT/vips_g12k.jpg[Q=90]\" 20" "" ""

# ---- Table -------------------------------------------------------------------------------
ratio() { awk -v p="$1" -v o="$2" 'BEGIN{ if (p == "-" || o == "-" || o == 0) print "-"; else printf "%.2fx", p / o }'; }
cell() { [ "$1" = "-" ] && echo "-" || echo "$1 s, $2 MB"; }
echo
for f in "$SMOOTH" "$GRAINY" "$HUGE"; do echo "input: $(basename "$f") ($(du -h "$f" | cut -f1))"; done
echo "best of $runs, $(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "vips $(vips --version 2>/dev/null | head -1 | sed 's/^vips-//'), $($IM -version | head -1 | cut -d' ' -f2-3), Pillow $("$PY" -c 'import PIL; print(PIL.__version__)')"
echo
echo "| case | qvfilter | vips | ratio | convert | ratio | Pillow | ratio |"
echo "|---|---|---|---|---|---|---|---|"
declare -A ours_t vips_t
for row in "${rows[@]}"; do
  IFS='|' read -r name ours vips im pil <<<"$row"
  read -r ot om <<<"$ours"; read -r vt vm <<<"$vips"; read -r it imm <<<"$im"; read -r pt pm <<<"$pil"
  ours_t[$name]=$ot; vips_t[$name]=$vt
  echo "| $name | $(cell "$ot" "$om") | $(cell "$vt" "$vm") | $(ratio "$vt" "$ot") | $(cell "$it" "$imm") | $(ratio "$it" "$ot") | $(cell "$pt" "$pm") | $(ratio "$pt" "$ot") |"
done
echo
echo "ratio = peer time / qvfilter time (above 1: qvfilter is faster); MB = peak resident memory"

# Thread scaling: time on 1 thread / time on 2, ours and vips', per pair of rows.
scaling=()
for row in "${rows[@]}"; do
  name=${row%%|*}
  [[ $name == *", 1 thread "* ]] || continue
  two=${name/, 1 thread /, 2 threads }
  [ -n "${ours_t[$two]:-}" ] || continue
  scaling+=("| ${name/, 1 thread / } | $(ratio "${ours_t[$name]}" "${ours_t[$two]}") | $(ratio "${vips_t[$name]}" "${vips_t[$two]}") |")
done
if [ ${#scaling[@]} -gt 0 ]; then
  echo
  echo "| thread scaling (1 thread / 2 threads) | qvfilter | vips |"
  echo "|---|---|---|"
  printf '%s\n' "${scaling[@]}"
fi

# Effect filters against the streamed copy of the same input (2 threads).
effects=()
for row in "${rows[@]}"; do
  name=${row%%|*}
  [[ $name == "effect "* && $name != *", 1 thread "* ]] || continue
  label=${name##* (}
  copy="copy (decode + encode JPEG Q90) (${label}"
  [ -n "${ours_t[$copy]:-}" ] || continue
  effects+=("| $name | ${ours_t[$name]} s | ${ours_t[$copy]} s | $(ratio "${ours_t[$name]}" "${ours_t[$copy]}") |")
done
if [ ${#effects[@]} -gt 0 ]; then
  echo
  echo "| effect (defaults) | qvfilter | streamed copy | effect / copy |"
  echo "|---|---|---|---|"
  printf '%s\n' "${effects[@]}"
fi
