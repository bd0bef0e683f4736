# SPDX-License-Identifier: MIT
"""The examples of a session, with the simulator inside them and with a controller on a wire."""

import pytest

from conftest import BUILD


@pytest.fixture(params=["sim:", "tcp", "udp"])
def arm(request, sim):
    if request.param == "sim:":
        return "sim:"
    return sim("-n", 6, endpoint=f"{request.param}://127.0.0.1:0")


def test_move_ends_at_its_target(run, arm):
    move = run(BUILD / "examples/session_move", arm)
    assert (move.status, move.stdout, move.stderr) == (0, "joint 2 is at 30.00\n", "")


def test_move_prints_why_there_is_no_arm(run):
    move = run(BUILD / "examples/session_move", "tcp://127.0.0.1:1")
    assert (move.status, move.stderr) == (1, "session_move: Connection refused\n")


def test_dead_man_stops_the_arm_on_its_way(run, arm):
    example = run(BUILD / "examples/session_dead_man", arm)
    lines = example.stdout.splitlines()
    assert example.status == 0
    assert [line for line in lines if line.startswith("event: dead")] == ["event: dead-man"]
    assert lines.index("event: dead-man") < lines.index("a command: discarded, dead-man")
    assert "joint 0 was stopped on its way" in lines
    assert "after Rearm(): confirmed" in lines


def test_flight_record_is_read_by_the_tools(run, velta, arm, tmp_path):
    record = tmp_path / "flight.vrec"
    assert run(BUILD / "examples/session_flight_record", arm, record).status == 0
    rows = velta("convert", record).stdout.splitlines()
    assert len(rows) > 100
    assert velta("plot", record, "-o", tmp_path / "plot.svg").status == 0
