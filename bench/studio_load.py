#!/usr/bin/env python3
"""A bounded load on the studio's server: CLIENTS sessions edit and preview at once for SECONDS.

    python3 bench/studio_load.py [--clients 8] [--seconds 30] [--qvfilter PATH]

Starts `qvfilter serve` on a free loopback port. Each client opens the same picture in a
session of its own, adds a filter of its own, and renders the preview of two settings of one
input once alone (its reference answers). Then all clients at once, until the time is up,
switch between the two settings and ask for the preview after each switch: every answer must
be HTTP 200 and byte for byte the reference of the setting in force (previews are
deterministic), the server must stay up, and its resident memory after the run must stay
within a bound of what it held once every session was warm (the caches are full by then: a
growth beyond the bound is a leak). The working folder must hold no more files than the
sessions' own. Prints one summary line; exits 1 on any failure.
"""
import argparse
import glob
import http.client
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Filter, input key, two values: cheap to moderate steps from several families.
STEPS = [
    ("QVFilterBlur", "inputRadius", "6", "14"),
    ("QVFilterBorder", "inputWidth", "20", "60"),
    ("QVFilterColorControls", "inputSaturation", "0.5", "1.5"),
    ("QVFilterPixellate", "inputScale", "8", "16"),
    ("QVFilterUnsharpMask", "inputIntensity", "0.5", "1.5"),
    ("QVFilterBumpDistortion", "inputRadius", "200", "400"),
    ("QVFilterExposureAdjust", "inputEV", "-0.5", "0.5"),
    ("QVFilterGammaAdjust", "inputPower", "0.7", "1.3"),
]
PREVIEW = "/preview?size=768"
# Resident memory the server may gain between the warm point and the end of the run.
GROWTH_LIMIT_MB = 96


class Client:
    def __init__(self, port):
        self.conn = http.client.HTTPConnection("127.0.0.1", port, timeout=120)

    def request(self, method, path, body=None, content_type="application/json"):
        headers = {"Content-Type": content_type} if body is not None else {}
        self.conn.request(method, path, body=body, headers=headers)
        res = self.conn.getresponse()
        return res.status, res.read()

    def json(self, method, path, body=None, content_type="application/json"):
        status, data = self.request(method, path, body, content_type)
        if status >= 300:
            raise RuntimeError(f"{method} {path}: HTTP {status}: {data[:200]!r}")
        return json.loads(data)


def rss_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--qvfilter", default=os.environ.get("QVFILTER", os.path.join(ROOT, "build/release/bin/qvfilter")))
    args = parser.parse_args()

    scratch = tempfile.mkdtemp(prefix="qvfilter-studio-load-")
    picture = os.path.join(scratch, "picture.jpg")
    subprocess.run([args.qvfilter, "sample", picture, "--width", "3000", "--height", "2000"], check=True,
                   stdout=subprocess.DEVNULL)
    with open(picture, "rb") as f:
        picture_bytes = f.read()

    server = subprocess.Popen([args.qvfilter, "serve", "--port", "0"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True)
    failures = []
    try:
        line = server.stdout.readline()
        m = re.search(r"http://127\.0\.0\.1:(\d+)/", line)
        if not m:
            print(f"FAIL: qvfilter serve printed no address: {line!r}", file=sys.stderr)
            return 1
        port = int(m.group(1))

        # Each client's session, step and reference previews, made one client at a time.
        clients = []
        for i in range(args.clients):
            filter_name, key, a, b = STEPS[i % len(STEPS)]
            c = Client(port)
            sid = c.json("POST", "/api/sessions", b"")["session"]
            base = f"/api/sessions/{sid}"
            c.json("POST", f"{base}/image?name=picture.jpg", picture_bytes, "application/octet-stream")
            step = c.json("POST", f"{base}/steps", json.dumps({"filter": filter_name}))["step"]
            refs = {}
            for v in (a, b):
                c.json("POST", f"{base}/steps/{step}/edit", json.dumps({"key": key, "value": v}))
                status, data = c.request("GET", base + PREVIEW)
                if status != 200:
                    raise RuntimeError(f"{filter_name}: reference preview: HTTP {status}")
                refs[v] = data
            if refs[a] == refs[b]:
                failures.append(f"{filter_name}: {key} {a} and {b} give the same preview")
            clients.append((c, base, step, filter_name, key, (a, b), refs))
        warm = rss_mb(server.pid)

        counts = {"requests": 0, "previews": 0, "superseded": 0}
        lock = threading.Lock()
        deadline = time.monotonic() + args.seconds
        latencies = []

        def run(client):
            c, base, step, filter_name, key, values, refs = client
            i = 0
            try:
                while time.monotonic() < deadline:
                    v = values[i % 2]
                    i += 1
                    c.json("POST", f"{base}/steps/{step}/edit", json.dumps({"key": key, "value": v}))
                    t = time.monotonic()
                    status, data = c.request("GET", base + PREVIEW)
                    elapsed = time.monotonic() - t
                    with lock:
                        counts["requests"] += 2
                        if status == 204:
                            counts["superseded"] += 1
                            continue
                        counts["previews"] += 1
                        latencies.append(elapsed)
                    if status != 200:
                        raise RuntimeError(f"{filter_name}: preview HTTP {status}: {data[:200]!r}")
                    if data != refs[v]:
                        raise RuntimeError(f"{filter_name}: the preview of {key}={v} differs from its reference")
            except Exception as e:  # noqa: BLE001 - every failure is reported
                with lock:
                    failures.append(str(e))

        threads = [threading.Thread(target=run, args=(c,)) for c in clients]
        start = time.monotonic()
        for t in threads:
            t.start()
        peak = warm
        while any(t.is_alive() for t in threads):
            time.sleep(0.25)
            if server.poll() is not None:
                failures.append(f"the server exited with {server.returncode} during the load")
                break
            peak = max(peak, rss_mb(server.pid))
        for t in threads:
            t.join()
        duration = time.monotonic() - start
        end = rss_mb(server.pid) if server.poll() is None else 0.0
        if server.poll() is None and end > warm + GROWTH_LIMIT_MB:
            failures.append(f"resident memory grew from {warm:.0f} MB to {end:.0f} MB (limit +{GROWTH_LIMIT_MB} MB)")

        # The working folder (found by the sessions' ids): each session's picture and nothing
        # left behind by previews.
        sid = clients[0][1].rsplit("/", 1)[1] if clients else ""
        found = glob.glob(f"/tmp/qvfilter-studio-*/sessions/{sid}")
        if found:
            folder = os.path.dirname(found[0])
            sessions = os.listdir(folder)
            files = sum(len(f) for _, _, f in os.walk(folder))
            if files > len(sessions):
                failures.append(f"{files} files in the working folder for {len(sessions)} sessions of one picture each")
        else:
            failures.append("the sessions' working folder was not found")

        # Still answering.
        status, _ = Client(port).request("GET", "/api/filters")
        if status != 200:
            failures.append(f"the server answers HTTP {status} after the load")

        latencies.sort()
        p50 = latencies[len(latencies) // 2] * 1000 if latencies else float("nan")
        p95 = latencies[int(len(latencies) * 0.95)] * 1000 if latencies else float("nan")
        print(f"studio load: {args.clients} clients x {duration:.0f} s: {counts['requests']} requests, "
              f"{counts['previews']} previews checked ({counts['previews'] / max(duration, 1e-9):.1f}/s), "
              f"{counts['superseded']} superseded, preview latency median {p50:.0f} ms, 95% {p95:.0f} ms; "
              f"server memory warm {warm:.0f} MB, peak {peak:.0f} MB, end {end:.0f} MB; "
              f"load average {' '.join(f'{v:.2f}' for v in os.getloadavg())}")
    finally:
        if server.poll() is None:
            server.send_signal(2)
            try:
                server.wait(timeout=30)
            except subprocess.TimeoutExpired:
                server.kill()
                failures.append("the server did not stop on SIGINT")
        subprocess.run(["rm", "-rf", scratch])
    for f in failures:
        print(f"FAIL: {f}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
