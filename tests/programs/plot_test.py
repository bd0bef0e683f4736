# SPDX-License-Identifier: MIT
import math
import os
import re

import pytest
from frames import OPENED, TO_CONTROLLER, TO_HOST, command, recording, status

GNUPLOT = '#!/bin/sh\ncat > "$SCRIPT"\necho "a picture"\n'
# In ten seconds and 2,000 columns: a peak and a trough between others of the same column.
POSITIONS = [(0, 1), (2, 2), (4, 0), (5, 1), (5.0005, 99), (5.001, 3), (5.0015, -99), (5.002, 2), (7, 4), (10, 5)]


@pytest.fixture
def plot(velta, tmp_path):
    """Plots the recording with a gnuplot that keeps the script; returns the run, with `script`."""
    tool = tmp_path / "bin/gnuplot"
    tool.parent.mkdir()
    tool.write_text(GNUPLOT)
    tool.chmod(0o755)
    statuses = [(s, TO_HOST, status(1, 0, 2, {0: 2 if s < 7 else 3}, {0: p, 1: -7 if s != 2 else math.nan})) for s, p in POSITIONS]
    ask = [(s, TO_CONTROLLER, command(1, 2, {0: (0xA2, )})) for s in (3, 3.5)]
    file = recording(tmp_path / "run.vrec", 2, (0, OPENED), *statuses[:2], *ask, *statuses[2:])

    def start(*options):
        script = tmp_path / "script"
        run = velta("plot", file, *options, env={"PATH": f"{tool.parent}:{os.environ['PATH']}", "SCRIPT": str(script)})
        run.script = script.read_text() if script.exists() else ""
        return run

    return start


def points(script, curve):
    block = script.split(f"${curve} << EOD\n")[1].split("EOD")[0]
    return [tuple(map(float, line.split()[:2])) for line in block.splitlines()]


def test_no_peak_is_lost(plot, tmp_path):
    run = plot()
    assert (run.status, run.stdout) == (0, f"plotted 10.000 s of 2 joints to {tmp_path}/run.png\n")
    assert (tmp_path / "run.png").read_text() == "a picture\n"
    assert points(run.script, "curve0") == [(0, 1), (2, 2), (4, 0), (5.0005, 99), (5.0015, -99), (7, 4), (10, 5)]
    assert set(p for _, p in points(run.script, "curve1")) == {-7}
    assert "set xrange [0:10]" in run.script.replace(".0", "") and "'joint 1'" in run.script
    assert {(3, 1), (3.5, 1)} < set(points(run.script, "points")) and run.script.count('"servo-on j0"') == 1  # the commands


def test_an_excerpt_of_some_joints_and_fields(plot, tmp_path):
    run = plot("--from", "1s", "--to", "6s", "--select", "1", "--fields", "temperature,position", "-o", tmp_path / "arm.svg")
    assert run.stdout.startswith("plotted 3.002 s of 1 joint") and "set terminal svg" in run.script
    assert [time for time, _ in points(run.script, "curve0")][0::4] == [2, 5.002] or points(run.script, "curve0")[0][0] == 2
    assert {value for _, value in points(run.script, "curve0")} == {12} and "$curve2" not in run.script
    assert {value for _, value in points(run.script, "curve1")} == {-7}
    assert "'joint 1'" in run.script and "'joint 0'" not in run.script and "'temperature'" in run.script


def test_gnuplot_draws_it(velta, tmp_path):
    file = recording(tmp_path / "a b.vrec", 1, *[(s, TO_HOST, status(1, 0, 1, {}, {0: s})) for s in (0, 1, 2)])
    assert velta("plot", file, "-o", tmp_path / "a b.svg").status == 0
    assert re.match(r"<\?xml.*<svg", (tmp_path / "a b.svg").read_text(), re.S)
