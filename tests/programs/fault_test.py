# SPDX-License-Identifier: MIT
"""Faults that begin while a simulated controller runs."""

import json
import stat

from conftest import wait_until
from frames import connect


def exchange(endpoint, *lines):
    """Sends lines at once; returns the answers."""
    with connect(endpoint) as to, to.makefile("rw") as stream:
        stream.write("".join(line + "\n" for line in lines))
        stream.flush()
        return [json.loads(stream.readline()) for line in lines if line.strip()]


def test_answers_each_line(sim):
    link = sim("--control", "tcp://127.0.0.1:0")
    answers = exchange(link.control, '{"fault": "drop-status", "for_frames": 20}', "", "nonsense", '{"fault": "nothing"}',
                       '{"fault": "corrupt", "rate": 2}')
    assert [answer["ok"] for answer in answers] == [True, False, False, False]
    assert answers[1]["error"] == "not a JSON object"
    assert all("\n" not in answer["error"] for answer in answers[1:])
    assert exchange(link.control, "x" * 1000)[0]["ok"] is False  # it still answers, and others


def test_a_fault_lasts_as_long_as_it_is_told(velta, sim, tmp_path):
    path = tmp_path / "control"
    endpoint = f"unix:{path}"
    link = sim("--control", endpoint)
    assert stat.S_IMODE(path.stat().st_mode) == 0o700  # nobody else's
    run = velta("fault", endpoint, "no-echo", "delay-command=0.5:30", "--for", "60min")
    assert (run.status, run.stdout) == (0, 'begins: {"fault":"no-echo","for_ms":3600000}\n'
                                           'begins: {"fault":"delay-command","rate":0.5,"value":30.0,"for_ms":3600000}\n')
    assert velta("ping", "-n", 3, link, "--count", 1, "--timeout", "200ms").status == 1
    link.stop()
    assert not path.exists()
    link = sim("--control", endpoint)
    assert velta("fault", endpoint, "no-echo", "--for", "1ms").status == 0
    wait_until(lambda: velta("ping", "-n", 3, link, "--count", 1, "--timeout", "1s").status == 0, "the end of the fault")
    run = velta("fault", endpoint, "corrupt", "--json")  # once
    assert (run.status, run.stdout) == (0, '{"ok":true}\n')
    velta("ping", "-n", 3, link, "--count", 3)
    assert link.stop()["faults"]["corrupt"] == 1


def test_takes_the_place_of_a_dead_program_only(velta, sim, tmp_path):
    path = tmp_path / "control"
    link = sim("--control", f"unix:{path}")
    again = ("sim", "-n", 3, "tcp://127.0.0.1:0", "--control", link.control)
    assert velta(*again).stderr == f"velta: {link.control}: Address already in use\n"
    link.kill()
    sim("--control", link.control)
    path.unlink()
    path.write_text("a file")
    assert velta(*again).status == 1 and path.read_text() == "a file"
