# SPDX-License-Identifier: MIT
"""The stubs hold for mypy in strict mode over module and examples, and are those of the compiled part."""

import os
import pathlib
import subprocess
import sys

PACKAGE = pathlib.Path(os.environ["VELTA_BUILD"], "python")
EXAMPLES = pathlib.Path(__file__).parents[2] / "examples/python"
# What only stubs have, and what pybind11 makes itself: the metaclass, and constructors of what Python never constructs.
ALLOWED = r"""
velta\._velta\.(Duration|Flags|Integers|Joints|Values)
velta\._velta\.\w+\.__init__
velta\._velta\.[A-Z]\w+
"""


def run(tmp_path, *arguments):
    done = subprocess.run([sys.executable, "-m", *map(str, arguments)], cwd=tmp_path, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=280, env={**os.environ, "MYPYPATH": str(PACKAGE)})
    assert done.returncode == 0, done.stdout


def test_examples_and_module_in_strict_mode(tmp_path):
    config = tmp_path / "mypy.ini"
    config.write_text("[mypy]\nstrict = True\n[mypy-matplotlib.*]\nignore_missing_imports = True\n")
    run(tmp_path, "mypy", "--config-file", config, "--cache-dir", tmp_path, *sorted(PACKAGE.glob("velta/*.py")),
        *sorted(EXAMPLES.glob("*.py")))


def test_stubs_are_those_of_the_compiled_part(tmp_path):
    allowed = tmp_path / "allowed"
    allowed.write_text(ALLOWED)
    run(tmp_path, "mypy.stubtest", "velta._velta", "--allowlist", allowed, "--ignore-unused-allowlist")
