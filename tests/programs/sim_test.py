# SPDX-License-Identifier: MIT
import json
import os
import signal
import struct

import pytest
from frames import command, connect, crc16


def stamps(frame):
    """The controller's and the echoed time stamp of a good status frame."""
    assert frame[:2] == b"\xab\xcd" and crc16(frame[:-2]) == struct.unpack("<H", frame[-2:])[0]
    return struct.unpack_from("<QQ", frame, 2)


def test_listens_on_every_endpoint(velta, tmp_path):
    arm = tmp_path / "arm"
    program = velta.start("sim", "-n", 2, "tcp://127.0.0.1:0", "udp://127.0.0.1:0", f"pty:{arm}", "pty:")
    for beginning in ("tcp://127.0.0.1:", "udp://127.0.0.1:", f"serial://{arm}", "serial:///dev/pts/"):
        link = program.line("listening on ")
        assert link.startswith(beginning)
        for _ in range(2):  # the second host finds nothing of the first one's
            assert velta("ping", "--check", "-n", 2, link, "--timeout", "20s").status == 0
    program.stop()
    assert (program.status, program.stderr) == (0, "")  # no progress in a pipe
    assert "\nconnections     " in program.stdout
    assert not os.path.lexists(arm)


def test_answers_only_the_udp_host_that_sent_last(sim):
    link = sim("-n", 2, endpoint="udp://127.0.0.1:0")
    first, second = connect(link), connect(link)
    for host in (first, second):
        host.send(command(1, 2))
        host.recv(182)
    first.setblocking(False)
    with pytest.raises(BlockingIOError):
        while True:  # what was on its way
            first.recv(1000)
    for _ in range(5):
        stamps(second.recv(182))
    with pytest.raises(BlockingIOError):
        first.recv(1000)


def test_gives_a_new_user_of_the_pty_nothing_old(sim, velta):
    def first_status():
        with open(link.address, "r+b", buffering=0) as device:
            return stamps(b"".join(device.read(1) for _ in range(182)))[0]

    link = sim("-n", 2, "--cycle", "1ms", endpoint="pty:")
    old = first_status()
    velta("monitor", "-n", 2, sim("-n", 2), "--count", 200)  # some time passes
    assert first_status() > old + 100_000  # us


def test_executed_counts_what_the_joints_obeyed(velta):
    program = velta.start("sim", "-n", 3, "tcp://127.0.0.1:0", "--json", "--fault", "drop-command=0.5")
    listening = json.loads(program.line())
    assert listening["event"] == "listening"
    velta("ping", listening["link"], "-n", 3, "--count", 20, "--timeout", "20ms")
    counts = json.loads(program.stop(signal.SIGTERM).stdout.splitlines()[1])
    assert counts["event"] == "summary"
    assert counts["executed"] == counts["commands"] - counts["faults"]["drop-command"] < counts["commands"]


@pytest.mark.parametrize("words, status, complaint", [
    ("", 2, "give an endpoint"),
    ("serial:///dev/ttyS0", 2, "pty:"),
    ("HERE --script FOLDER/script", 1, "script:2: there is no fault 'corrput'"),
    ("HERE --script FOLDER/none", 1, "No such file"),
    ("HERE pty:FOLDER/script", 1, "does not lead to a pty"),
    ("tcp://192.0.2.1:0", 1, "cannot listen on tcp://192.0.2.1:0"),
])
def test_refuses_what_it_cannot_serve(velta, tmp_path, words, status, complaint):
    (tmp_path / "script").write_text('{"at_ms": 1, "fault": "corrupt"}\n{"at_ms": 1, "fault": "corrput"}')
    words = words.replace("HERE", "tcp://127.0.0.1:0").replace("FOLDER", str(tmp_path))
    run = velta("sim", "-n", 2, *words.split(" ") if words else [])
    assert (run.status, run.stdout) == (status, "")
    assert run.stderr.startswith("velta: ") and complaint in run.stderr and run.stderr.count("\n") == 1
    assert [path.name for path in tmp_path.iterdir()] == ["script"]


def test_says_that_it_cannot_print(velta):
    with open("/dev/full", "w") as full:
        program = velta.start("sim", "-n", 2, "tcp://127.0.0.1:0", stdout=full)
        assert (program.wait().status, program.stderr) == (1, "velta: cannot write to standard output\n")
