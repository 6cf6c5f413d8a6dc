"""A recipe's chain over a directory of images, scaled out on Dask.

    python3 -m qvfilter.batch RECIPE INPUT_DIR OUTPUT_DIR [--scheduler ADDRESS]
        [--report FILE] [--skip-existing] [--format jpg|png|webp] [--quality Q] [--workers N]

runs the same batch as `qvfilter batch` (the same planning, per-file work and JSON report) as
a Dask bag of files: on a local cluster of worker processes by default, or on the cluster whose
scheduler is at ADDRESS (every worker needs the qvfilter package and its plug-in bundle). Each
file is written under a temporary name and renamed when complete, so a task that a lost worker
had started is simply run again elsewhere, and --skip-existing resumes a batch that stopped.
The exit status is 0 when every file was written or skipped, 1 when any failed.

From Python::

    from qvfilter import batch
    report = batch.run("recipe.json", ["photos/"], "out/", client=None)
"""

import argparse
import functools
import json
import os
import sys
import time

from . import _qvfilter


@functools.lru_cache(maxsize=8)
def _recipe(text, base_dir, name):
    """The batch recipe of a worker, read once per recipe."""
    return _qvfilter.BatchRecipe(json.loads(text), base_dir, name)


def _run_partition(entries, recipe_text, base_dir, name, quality, skip_existing):
    """Runs a partition of entries on a worker; never raises for a bad file."""
    recipe = _recipe(recipe_text, base_dir, name)
    return [recipe.run(e, threads=1, quality=quality, skip_existing=skip_existing) for e in entries]


def plan(inputs, output_dir, format=""):
    """The files of a batch as `qvfilter batch` names them: a list of dicts {"input",
    "output", "error"} (error None, or why the entry cannot run)."""
    if isinstance(inputs, (str, os.PathLike)):
        inputs = [inputs]
    return _qvfilter.plan_batch([os.fspath(i) for i in inputs], os.fspath(output_dir), format or "")


def run(recipe, inputs, output_dir, client=None, scheduler=None, workers=None, format="", quality=None,
        skip_existing=False, report=None, progress=True, partition_size=None, on_results=None):
    """Runs a batch on Dask and returns its report (the dict `qvfilter batch --report` writes).

    recipe: a recipe file path. inputs: files, directories or glob patterns (or one of them).
    client: a dask.distributed Client to use; else one is made for `scheduler` (an address),
    else for a local cluster of `workers` processes (default: one per core), closed at the
    end. quality: 0-100, replaces the recipe's. report: also write the report to this file.
    progress: show Dask's progress bar. on_results: called on the client with each finished
    partition's list of per-file results (e.g. to watch a long batch).
    """
    import dask.bag as db
    from dask.distributed import Client, LocalCluster, as_completed
    from dask.distributed import progress as dask_progress

    recipe_path = os.fspath(recipe)
    loaded = _qvfilter.BatchRecipe(recipe_path)  # ValueError for a recipe that cannot run
    recipe_text, base_dir = loaded.text, os.path.abspath(loaded.base_dir)
    if quality is not None and not 0 <= quality <= 100:
        raise ValueError("quality must be a number from 0 to 100")
    os.makedirs(output_dir, exist_ok=True)
    # Reported as given; run with absolute paths, since workers may start elsewhere.
    entries = plan(inputs, output_dir, format)
    absolute = [dict(e, input=os.path.abspath(e["input"]),
                     output=os.path.abspath(e["output"]) if e["output"] else e["output"]) for e in entries]
    if report is not None:
        _qvfilter.write_json(os.fspath(report), _qvfilter.batch_report(recipe_path, os.fspath(output_dir), [], 0, False))

    own_client = None
    if client is None:
        if scheduler:
            own_client = Client(scheduler)
        else:
            cluster = LocalCluster(n_workers=workers or os.cpu_count() or 1, threads_per_worker=1,
                                   processes=True, dashboard_address=":0")
            own_client = Client(cluster)
        client = own_client
    start = time.monotonic()
    results = {}
    interrupted = False
    try:
        if entries:
            nworkers = max(1, len(client.scheduler_info().get("workers", {})) or (workers or 1))
            size = partition_size or max(1, min(16, len(entries) // (4 * nworkers) or 1))
            bag = db.from_sequence(list(enumerate(absolute)), partition_size=size)
            parts = bag.map_partitions(_run_indexed, recipe_text, base_dir, recipe_path, quality, skip_existing)
            futures = client.compute(parts.to_delayed())
            if progress:
                dask_progress(futures, notebook=False)
                print(file=sys.stderr)
            for future in as_completed(futures):
                part = future.result()
                for index, result in part:
                    result.update(input=entries[index]["input"], output=entries[index]["output"])
                    results[index] = result
                if on_results is not None:
                    on_results([r for _, r in part])
    except KeyboardInterrupt:
        interrupted = True
    finally:
        if own_client is not None:
            cluster = own_client.cluster
            own_client.close()
            if cluster is not None:
                cluster.close()
    files = [results.get(i) or _qvfilter.batch_not_run(e) for i, e in enumerate(entries)]
    document = _qvfilter.batch_report(recipe_path, os.fspath(output_dir), files, time.monotonic() - start, interrupted)
    if report is not None:
        _qvfilter.write_json(os.fspath(report), document)
    return document


def _run_indexed(pairs, recipe_text, base_dir, name, quality, skip_existing):
    """Runs a partition of (index, entry) pairs; returns (index, result) pairs."""
    pairs = list(pairs)
    results = _run_partition([e for _, e in pairs], recipe_text, base_dir, name, quality, skip_existing)
    return [(i, r) for (i, _), r in zip(pairs, results)]


def main(argv=None):
    """The command line: python3 -m qvfilter.batch RECIPE INPUT_DIR OUTPUT_DIR [options]."""
    parser = argparse.ArgumentParser(
        prog="python3 -m qvfilter.batch",
        description="Apply a recipe's chain to every image of a directory on a Dask cluster.",
        epilog="Exit status: 0 when every file was written or skipped, 1 when any failed (or the batch "
               "could not start), 130 when interrupted.")
    parser.add_argument("recipe", help="recipe file (its chain's first step takes each input file)")
    parser.add_argument("input_dir", help="directory of input images (.jpg .png .webp), or a file or glob")
    parser.add_argument("output_dir", help="directory of the outputs (created when missing)")
    parser.add_argument("--scheduler", help="address of a Dask scheduler (default: a local cluster)")
    parser.add_argument("--workers", type=int, help="worker processes of the local cluster (default: one per core)")
    parser.add_argument("--report", help="write a JSON report of every file's result here")
    parser.add_argument("--skip-existing", action="store_true", help="leave outputs that exist alone (resume)")
    parser.add_argument("--format", choices=["jpg", "png", "webp"], help="output format (default: each input's)")
    parser.add_argument("--quality", type=float, help="JPEG/WebP quality 0-100 (default: the recipe's, else 90)")
    parser.add_argument("--no-progress", action="store_true", help="no progress bar")
    args = parser.parse_args(argv)
    if args.workers is not None and args.workers < 1:
        parser.error("--workers must be at least 1")
    try:
        document = run(args.recipe, [args.input_dir], args.output_dir, scheduler=args.scheduler,
                       workers=args.workers, format=args.format or "", quality=args.quality,
                       skip_existing=args.skip_existing, report=args.report, progress=not args.no_progress)
    except (ValueError, OSError) as e:
        print(f"qvfilter: {e}", file=sys.stderr)
        return 1
    s = document["summary"]
    line = f"{s['files']} file(s): {s['written']} written, {s['skipped']} skipped, {s['failed']} failed"
    if s["notRun"]:
        line += f", {s['notRun']} not run"
    print(line + f" in {s['seconds']:.1f} s" + (", interrupted" if document["interrupted"] else ""))
    for f in document["files"]:
        if f["status"] == "failed":
            print(f"failed: {f['input']}: {f.get('error', '')}")
    if document["interrupted"]:
        return 130
    return 1 if s["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
