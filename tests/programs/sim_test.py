# SPDX-License-Identifier: MIT
import json
import os
import signal
import socket
import struct

import pytest
from frames import command, crc16, patient


def connect(link):
    """A host of 2 joints at the byte level: send(bytes) and read(size)."""
    if link.startswith("serial:"):
        device = open(link.split("://")[1].split("?")[0], "r+b", buffering=0)
        return device, device.write, lambda size: b"".join(device.read(1) for _ in range(size))
    host, port = link.split("://")[1].split(":")
    end = patient(socket.socket(type=socket.SOCK_DGRAM if link.startswith("udp:") else socket.SOCK_STREAM))
    end.connect((host, int(port)))
    return end, end.sendall, lambda size: end.recv(size, socket.MSG_WAITALL)


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
    (first, send_first, read_first), (_, send_second, read_second) = connect(link), connect(link)
    for send, read in ((send_first, read_first), (send_second, read_second)):
        send(command(1, 2))
        read(182)
    first.setblocking(False)
    with pytest.raises(BlockingIOError):
        while True:  # what was on its way
            first.recv(1000)
    for _ in range(5):
        stamps(read_second(182))
    with pytest.raises(BlockingIOError):
        first.recv(1000)


def test_gives_a_new_user_of_the_pty_nothing_old(sim, velta):
    link = sim("-n", 2, "--cycle", "1ms", endpoint="pty:")
    device, _, read = connect(link)
    old = stamps(read(182))[0]
    device.close()
    velta("monitor", "-n", 2, sim("-n", 2), "--count", 200)  # some time passes
    assert stamps(connect(link)[2](182))[0] > old + 100_000  # us


def test_on_command_answers_each_command_once(sim):
    link = sim("-n", 2, "--on-command", "--cycle", "1ms")
    _, send, read = connect(link)
    for stamp in range(0x0102030405060701, 0x0102030405060704):
        send(command(stamp, 2))
        assert stamps(read(182))[1] == stamp
    assert link.stop()["status_frames"] == 3


def test_json_is_one_document_a_line(velta):
    program = velta.start("sim", "-n", 2, "tcp://127.0.0.1:0", "--json", "--fault", "drop-command=0", "--fault", "corrupt")
    listening = json.loads(program.line())
    assert listening["event"] == "listening"
    assert velta("ping", "--check", "-n", 2, listening["link"], "--timeout", "100ms").status == 1
    summary = json.loads(program.stop(signal.SIGTERM).stdout.splitlines()[1])
    assert summary["event"] == "summary" and summary["executed"] == summary["commands"] >= 1
    assert summary["faults"] == {"drop-command": 0, "corrupt": summary["status_frames"]}


def test_executed_counts_what_the_joints_obeyed(velta, sim):
    link = sim("--fault", "drop-command=0.5")
    velta("ping", link, "-n", 3, "--count", 20, "--timeout", "20ms")
    counts = link.stop()
    assert counts["executed"] == counts["commands"] - counts["fault drop-command"] < counts["commands"]


@pytest.mark.parametrize("words, status, complaint", [
    ("", 2, "give an endpoint"),
    ("tcp://127.0.0.1", 2, "the port is missing"),
    ("serial:///dev/ttyS0", 2, "pty:"),
    ("HERE --fault corrupt=2", 2, "corrupt=2"),
    ("HERE --script FOLDER/script", 1, "script:2: there is no fault 'corrput'"),
    ("HERE --script FOLDER/none", 1, "No such file"),
    ("HERE pty:FOLDER/script", 1, "does not lead to a pty"),
    ("HERE pty:FOLDER/none/arm", 1, "No such file"),
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
