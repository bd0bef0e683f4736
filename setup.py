# SPDX-License-Identifier: MIT
"""Builds the Python module with CMake, with the library inside, for the interpreter that runs this.

VELTA_BUILD in the environment names a build folder that has the module already.
"""

import os
import pathlib
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

TOP = pathlib.Path(__file__).parent.resolve()


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve()
        build = pathlib.Path(os.environ.get("VELTA_BUILD") or self.build_temp).resolve()
        if "VELTA_BUILD" not in os.environ:
            self.run_cmake(build)
        (built,) = (build / "python/velta").glob("_velta*.so")
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built), str(target))

    def run_cmake(self, build):
        options = {"CMAKE_BUILD_TYPE": "Release", "Python_EXECUTABLE": sys.executable, "VELTA_BUILD_PYTHON": "ON",
                   "VELTA_BUILD_TESTS": "OFF", "VELTA_BUILD_TOOLS": "OFF", "VELTA_BUILD_EXAMPLES": "OFF"}
        subprocess.run(["cmake", "-S", TOP, "-B", build, *(f"-D{name}={value}" for name, value in options.items())],
                       check=True)
        subprocess.run(["cmake", "--build", build, "--target", "velta_python", "-j", str(min(os.cpu_count() or 1, 2))],
                       check=True)


version = re.search(r"project\(velta VERSION ([\d.]+)", (TOP / "CMakeLists.txt").read_text())
setup(version=version.group(1), ext_modules=[Extension("velta._velta", [])], cmdclass={"build_ext": CMakeBuild})
