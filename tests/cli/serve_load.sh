#!/usr/bin/env bash
# qvfilter serve under a short bounded load: 8 sessions edit and preview at once on loopback
# for a few seconds; every preview is the right one, the server stays up, its memory stays
# within its caches and its working folder holds only the sessions' pictures. The full run
# (8 clients x 30 s) is `python3 bench/studio_load.py`; QV_LOAD_SECONDS lengthens this one.
: "${QVFILTER:?QVFILTER must name the qvfilter binary}"
: "${QV_SOURCE_DIR:?QV_SOURCE_DIR must name the source tree}"
exec /usr/bin/python3 "$QV_SOURCE_DIR/bench/studio_load.py" --clients 8 --seconds "${QV_LOAD_SECONDS:-5}" --qvfilter "$QVFILTER"
