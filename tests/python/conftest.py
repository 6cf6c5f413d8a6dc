"""Shared fixtures of the Python module's tests.

Run by ctest (label "python") with Debian's /usr/bin/python3, PYTHONPATH naming the build
tree's package directory and QVFILTER the command-line host built beside it.
"""
import os
import subprocess

import numpy as np
import pytest

import qvfilter

QVFILTER = os.environ.get("QVFILTER", "")


def pytest_report_header(config):
    return f"qvfilter module: {qvfilter.__file__}; plug-ins: {qvfilter._qvfilter.loaded_plugins()}"


@pytest.fixture(scope="session")
def cli():
    if not QVFILTER or not os.access(QVFILTER, os.X_OK):
        pytest.fail("QVFILTER must name the built qvfilter host")
    return QVFILTER


@pytest.fixture(scope="session")
def pictures(tmp_path_factory, cli):
    """A small photo-like picture and a second, different one, as PNG files."""
    d = tmp_path_factory.mktemp("pictures")
    subprocess.run([cli, "sample", str(d / "photo.png"), "--width", "96", "--height", "64"], check=True,
                   capture_output=True)
    y, x = np.mgrid[0:64, 0:96]
    other = np.stack([(x * 255 // 95), (y * 255 // 63), ((x + y) % 64) * 4, np.full_like(x, 255)], axis=-1)
    qvfilter.Image.from_array(other.astype(np.uint8)).save(str(d / "other.png"))
    return d
