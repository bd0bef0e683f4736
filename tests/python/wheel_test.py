# SPDX-License-Identifier: MIT
"""The wheel, as somebody installs it who has no compiler. VELTA_WHEEL_FROM_NOTHING also compiles it for that."""

import os
import pathlib
import shutil
import subprocess
import sys

TOP = pathlib.Path(__file__).parents[2]
NAMES = "CMakeLists.txt cmake docs include pyproject.toml python recording setup.py src wire LICENSE".split()
PROGRAM = """
import velta
with velta.connect("sim:", 6) as arm:
    print(arm.send(velta.Command(6).servo_on("all"), confirm=True).wait(30), velta.__version__, velta.__file__)
"""


def run(*command, env, cwd):
    done = subprocess.run(list(map(str, command)), cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
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
    run(sys.executable, "-m", "build", "--wheel", "--no-isolation", "-o", tmp_path, source, env=env, cwd=tmp_path)
    (wheel,) = tmp_path.glob("velta-*.whl")
    run(sys.executable, "-m", "venv", "--system-site-packages", tmp_path / "venv", env=env, cwd=tmp_path)
    python = tmp_path / "venv/bin/python"
    run(python, "-m", "pip", "install", "--no-index", wheel, env=env, cwd=tmp_path)
    shutil.rmtree(source)
    confirmed, version, path = run(python, "-c", PROGRAM, env=env, cwd=tmp_path).split()
    assert confirmed == "True" and wheel.name.startswith(f"velta-{version}-") and path.startswith(str(tmp_path / "venv"))
    (module,) = pathlib.Path(path).parent.glob("_velta*.so")
    assert b"libvelta.so" not in module.read_bytes()  # the library is inside
    for name in ("py.typed", "_velta.pyi", "testing.py"):
        assert (pathlib.Path(path).parent / name).is_file()
