# SPDX-License-Identifier: MIT
"""The examples, as somebody runs them who tries the module on a simulated arm."""

import os
import pathlib
import subprocess
import sys

import pytest

EXAMPLES = pathlib.Path(__file__).parents[2] / "examples/python"


@pytest.mark.parametrize("name, shows", [
    ("move_joint", ["joint 0 is at "]),
    ("dead_man", ["connected: ", "dead_man: ", "refused: dead-man", "confirmed: True"]),
    ("two_parts", ["base: -1.0 confirmed", "wrist: +0.0 confirmed", "dead_man: "]),
    ("plot_recording", ["commands of 3 joints in ", "drawn in recording.png"]),
])
def test_does_what_its_first_lines_say(velta_sim, tmp_path, name, shows):
    arguments = [velta_sim(joints=2), "2"] if name != "plot_recording" else []
    done = subprocess.run([sys.executable, EXAMPLES / f"{name}.py", *arguments], cwd=tmp_path, capture_output=True, text=True,
                          timeout=240, env={**os.environ, "TMPDIR": str(tmp_path)})
    assert done.returncode == 0, done.stderr
    for text in shows:
        assert text in done.stdout, done.stdout
    if not arguments:
        assert (tmp_path / "recording.png").read_bytes().startswith(b"\x89PNG")
