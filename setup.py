"""Builds the qvfilter Python package with the project's CMake build (see pyproject.toml).

The extension, the .py files, the platform library and the plug-in bundle are installed by
`cmake --install --component python` into the wheel's root as one qvfilter/ directory, in
which the module finds the bundle (qvfilter/lib/qvfilter/) as it does in the build tree.
"""
import os
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext


class CMakeBuild(build_ext):
    def run(self):
        source = os.path.dirname(os.path.abspath(__file__))
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        prefix = os.path.abspath(self.build_lib)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.check_call([
            "cmake", "-S", source, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
            "-DQV_BUILD_TESTS=OFF", "-DQV_BUILD_BENCH=OFF", "-DQV_BUILD_PYTHON=ON",
            f"-DPython3_EXECUTABLE={sys.executable}", "-DQV_PYTHON_INSTALL_DIR=.",
        ])
        subprocess.check_call(["cmake", "--build", build, "--target", "qvfilter_python", "-j", jobs])
        subprocess.check_call(["cmake", "--install", build, "--component", "python", "--prefix", prefix])


setup(
    ext_modules=[Extension("qvfilter._qvfilter", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    packages=[],
    zip_safe=False,
)
