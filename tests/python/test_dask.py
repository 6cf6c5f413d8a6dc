"""The batch on Dask: a local cluster of two worker processes runs the same batch as
`qvfilter batch`, reports exactly the broken files, loses no file when a worker is killed
half way, and resumes with skip_existing."""
import json
import os
import signal
import subprocess
import sys

import numpy as np
import pytest

import qvfilter
from qvfilter import batch

distributed = pytest.importorskip("distributed")

BROKEN = {"f07.png", "f23.jpg", "f40.png"}


@pytest.fixture(scope="module")
def cluster():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0") as c, distributed.Client(c) as client:
        yield client


@pytest.fixture(scope="module")
def photos(tmp_path_factory):
    """60 small pictures, three of them broken (garbage, a cut JPEG, an empty file)."""
    d = tmp_path_factory.mktemp("photos")
    rng = np.random.default_rng(7)
    for i in range(60):
        name = f"f{i:02d}." + ("jpg" if i % 3 == 2 else "png")
        a = rng.integers(0, 256, (120, 160, 3), dtype=np.uint8)
        qvfilter.Image.from_array(a).save(str(d / name), quality=90)
    (d / "f07.png").write_bytes(b"not a picture at all")
    whole = (d / "f23.jpg").read_bytes()
    (d / "f23.jpg").write_bytes(whole[: len(whole) // 2])
    (d / "f40.png").write_bytes(b"")
    return d


@pytest.fixture(scope="module")
def recipe(tmp_path_factory):
    path = tmp_path_factory.mktemp("recipe") / "recipe.json"
    path.write_text(json.dumps({"chain": [
        {"filter": "CIGaussianBlur", "inputs": {"inputRadius": 6}},
        {"filter": "CICrop", "inputs": {"inputRectangle": {"vector": [0, 0, 160, 120]}}},
        {"filter": "QVFilterBorder", "inputs": {"inputWidth": 5}}]}))
    return path


def check_report(report, photos, out, untouched=()):
    files = {os.path.basename(f["input"]): f for f in report["files"]}
    assert len(report["files"]) == 60 and len(files) == 60
    assert {n for n, f in files.items() if f["status"] == "failed"} == BROKEN
    assert all(f["error"] for n, f in files.items() if n in BROKEN)
    assert report["summary"]["failed"] == 3 and report["summary"]["written"] + report["summary"]["skipped"] == 57
    written = sorted(os.listdir(out))
    assert len(written) == 57 and not any("partial" in n for n in written)
    for n in set(written) - set(untouched):
        assert qvfilter.Image.open(str(out / n)).extent == (0, 0, 160, 120)


def test_local_cluster_reports_exactly_the_broken_files(cluster, photos, recipe, tmp_path):
    out = tmp_path / "out"
    # Through the scheduler's address, as on a real cluster.
    address = cluster.scheduler_info()["address"]
    report = batch.run(str(recipe), [str(photos)], out, scheduler=address, report=tmp_path / "report.json",
                       progress=False)
    check_report(report, photos, out)
    assert json.loads((tmp_path / "report.json").read_text()) == report
    assert report["recipe"] == str(recipe) and report["interrupted"] is False
    # The same files, the same results as the command line's batch.
    cli = os.environ["QVFILTER"]
    done = subprocess.run([cli, "batch", str(recipe), str(photos), "-o", str(tmp_path / "cli"), "--report",
                           str(tmp_path / "cli.json"), "-q"], capture_output=True, text=True)
    assert done.returncode == 1, done.stderr
    cli_report = json.loads((tmp_path / "cli.json").read_text())
    def outcomes(r, out_dir):
        return [(f["input"], f["status"], f.get("error", "").replace(str(out_dir), "OUT")) for f in r["files"]]

    assert outcomes(cli_report, tmp_path / "cli") == outcomes(report, out)
    for name in os.listdir(out):
        np.testing.assert_array_equal(qvfilter.Image.open(str(out / name)).render(),
                                      qvfilter.Image.open(str(tmp_path / "cli" / name)).render())


def test_a_killed_worker_loses_no_file(cluster, photos, recipe, tmp_path):
    out = tmp_path / "out"
    killed = []

    def kill_a_busy_worker(results):
        if killed:
            return
        busy = [w for w, keys in cluster.processing().items() if keys]
        assert busy, "no worker was busy: the batch finished before the kill"
        pid = cluster.run(os.getpid, workers=[busy[0]])[busy[0]]
        os.kill(pid, signal.SIGKILL)
        killed.append(busy[0])

    report = batch.run(str(recipe), [str(photos)], out, client=cluster, progress=False, partition_size=1,
                       on_results=kill_a_busy_worker)
    assert killed
    check_report(report, photos, out)
    assert report["summary"]["notRun"] == 0


def test_command_resumes_with_skip_existing(photos, recipe, tmp_path):
    out = tmp_path / "out"
    out.mkdir()
    keep = out / "f00.png"
    keep.write_bytes(b"left alone")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    done = subprocess.run([sys.executable, "-m", "qvfilter.batch", str(recipe), str(photos), str(out),
                           "--workers", "2", "--skip-existing", "--report", str(tmp_path / "r.json"),
                           "--no-progress"], capture_output=True, text=True, env=env, timeout=300)
    assert done.returncode == 1, done.stderr
    assert "60 file(s): 56 written, 1 skipped, 3 failed" in done.stdout
    assert keep.read_bytes() == b"left alone"
    report = json.loads((tmp_path / "r.json").read_text())
    check_report(report, photos, out, untouched={"f00.png"})
    assert [f["status"] for f in report["files"] if f["input"].endswith("f00.png")] == ["skipped"]


def test_bad_recipe_is_refused_before_any_work(tmp_path, photos):
    (tmp_path / "own.json").write_text(json.dumps({"chain": [{"filter": "CIColorControls",
                                                              "inputs": {"inputImage": "@x"}}]}))
    with pytest.raises(ValueError, match="must not set inputImage"):
        batch.run(str(tmp_path / "own.json"), [str(photos)], tmp_path / "out", progress=False)
    assert not (tmp_path / "out").exists()
