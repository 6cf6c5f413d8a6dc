#!/usr/bin/env bash
# A write stopped by a signal (SIGTERM, SIGINT, or SIGXFSZ past the file-size limit) leaves
# neither the target nor its temporary NAME.partial-PID behind.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh" || exit 1
tmp=$(scratch write_interrupted)
cd "$tmp" || exit 1

# Past the file-size limit (4 KiB): the 100 KB photo cannot be written.
( ulimit -f 4; exec "$QVFILTER" convert "$QV_SOURCE_DIR/tests/data/photo.png" "$tmp/limited.png" ) 2>/dev/null
status=$?
[ "$status" -eq $((128 + 25)) ] || fail "SIGXFSZ: exit status $status, expected $((128 + 25))"
leftovers=$(ls "$tmp" | grep -c '^limited\.png')
[ "$leftovers" -eq 0 ] || fail "SIGXFSZ left $(ls "$tmp")"

# A slow write (a large blurred picture), stopped once its temporary file exists.
cat > big.json <<'JSON'
{
  "images": {"plain": {"color": [0.2, 0.4, 0.6, 1], "extent": [0, 0, 6000, 6000]},
             "dot": {"color": [1, 0, 0, 1], "extent": [100, 100, 50, 50]}},
  "chain": [
    {"filter": "CISourceOverCompositing", "inputs": {"inputImage": "@dot", "inputBackgroundImage": "@plain"}},
    {"filter": "CIGaussianBlur", "inputs": {"inputRadius": 30}},
    {"filter": "CICrop", "inputs": {"inputRectangle": {"vector": [0, 0, 6000, 6000]}}}
  ],
  "output": {"file": "big.png"}
}
JSON
for sig in TERM INT; do
  rm -f big.png big.png.partial-*
  # A non-interactive shell starts background jobs with SIGINT ignored; restore the default.
  python3 -c 'import os, signal, sys; signal.signal(signal.SIGINT, signal.SIG_DFL); os.execv(sys.argv[1], sys.argv[1:])' \
    "$QVFILTER" run big.json >/dev/null 2>&1 &
  pid=$!
  for _ in $(seq 1 400); do
    compgen -G "big.png.partial-$pid" >/dev/null && break
    sleep 0.05
  done
  compgen -G "big.png.partial-$pid" >/dev/null || fail "SIG$sig: the write never started"
  kill -s "$sig" "$pid"
  wait "$pid"
  status=$?
  [ "$status" -ne 0 ] || fail "SIG$sig: the write finished before the signal; make the picture larger"
  [ -z "$(ls "$tmp" | grep '^big\.png')" ] || fail "SIG$sig left $(ls "$tmp" | grep '^big\.png')"
done

finish write_interrupted
