# SPDX-License-Identifier: MIT
"""The module as it is shipped: the wheel, as somebody installs it who has no compiler (VELTA_WHEEL_FROM_NOTHING also
compiles it for that), and the stubs, which hold for mypy in strict mode and are those of the compiled part."""

import os
import pathlib
import shutil
import subprocess
import sys

TOP = pathlib.Path(__file__).parents[2]
PACKAGE = pathlib.Path(os.environ["VELTA_BUILD"], "python")
EXAMPLES = TOP / "examples/python"
TYPED = {**os.environ, "MYPYPATH": str(PACKAGE)}
# What only stubs have, and what pybind11 makes itself: the metaclass, and constructors of what Python never constructs.
ALLOWED = r"""
velta\._velta\.(Duration|Flags|Integers|Joints|Values)
velta\._velta\.\w+\.__init__
velta\._velta\.[A-Z]\w+
"""
NAMES = "CMakeLists.txt cmake docs include pyproject.toml python recording setup.py src wire LICENSE".split()
PROGRAM = """
import velta
with velta.connect("sim:", 6) as arm:
    print(arm.send(velta.Command(6).servo_on("all"), confirm=True).wait(30), velta.__version__, velta.__file__)
"""


def run(folder, *command, env):
    done = subprocess.run(list(map(str, command)), cwd=folder, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, timeout=280)
    assert done.returncode == 0, done.stdout
    return done.stdout


def test_the_wheel_installs_into_a_fresh_environment(tmp_path):
    env = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    if "VELTA_WHEEL_FROM_NOTHING" in env:
        del env["VELTA_BUILD"]
    source = tmp_path / "a source"  # building leaves traces, and folders may have spaces in their names
    source.mkdir()
    for name in NAMES:
        copy = shutil.copytree if (TOP / name).is_dir() else shutil.copy
        copy(TOP / name, source / name)
    run(tmp_path, sys.executable, "-m", "build", "--wheel", "--no-isolation", "-o", tmp_path, source, env=env)
    (wheel,) = tmp_path.glob("velta-*.whl")
    run(tmp_path, sys.executable, "-m", "venv", "--system-site-packages", tmp_path / "venv", env=env)
    python = tmp_path / "venv/bin/python"
    run(tmp_path, python, "-m", "pip", "install", "--no-index", wheel, env=env)
    shutil.rmtree(source)
    confirmed, version, path = run(tmp_path, python, "-c", PROGRAM, env=env).split()
    assert confirmed == "True" and wheel.name.startswith(f"velta-{version}-") and path.startswith(str(tmp_path / "venv"))
    (module,) = pathlib.Path(path).parent.glob("_velta*.so")
    assert b"libvelta.so" not in module.read_bytes()  # the library is inside
    for name in ("py.typed", "_velta.pyi", "testing.py"):
        assert (pathlib.Path(path).parent / name).is_file()


def test_examples_and_module_in_strict_mode(tmp_path):
    config = tmp_path / "mypy.ini"
    config.write_text("[mypy]\nstrict = True\n[mypy-matplotlib.*]\nignore_missing_imports = True\n")
    run(tmp_path, sys.executable, "-m", "mypy", "--config-file", config, "--cache-dir", tmp_path, *sorted(PACKAGE.glob("velta/*.py")),
        *sorted(EXAMPLES.glob("*.py")), env=TYPED)


def test_stubs_are_those_of_the_compiled_part(tmp_path):
    allowed = tmp_path / "allowed"
    allowed.write_text(ALLOWED)
    run(tmp_path, sys.executable, "-m", "mypy.stubtest", "velta._velta", "--allowlist", allowed, "--ignore-unused-allowlist", env=TYPED)
