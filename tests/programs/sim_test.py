# SPDX-License-Identifier: MIT
"""`velta sim` and what each of its faults does, as a host sees it."""

import errno
import fcntl
import json
import os
import pathlib
import re
import signal
import socket
import struct
import termios
import time

import pytest
from conftest import wait_until
from frames import command, connect, crc16

TOP = pathlib.Path(__file__).parents[2]
SIZE = 79 * 2 + 24  # a status frame of the 2 joints here


class Host:
    """A host of an arm of 2 joints at the byte level."""

    def __init__(self, link):
        self.is_udp = link.startswith("udp:")
        self.socket = connect(link)

    def send(self, stamp):
        self.socket.sendall(command(stamp, 2))

    def read(self, size=SIZE):
        return self.socket.recv(65536) if self.is_udp else self.socket.recv(size, socket.MSG_WAITALL)

    def statuses(self, count):
        """(controller's stamp, echo) of each."""
        return [struct.unpack_from("<QQ", self.read(), 2) for _ in range(count)]


def is_good(frame):
    return frame[:2] == b"\xab\xcd" and crc16(frame[:-2]) == struct.unpack("<H", frame[-2:])[0]


def status_of_pty(link):
    """The first status that a new user of the device reads."""
    with open(link.address, "r+b", buffering=0) as device:
        return b"".join(device.read(1) for _ in range(SIZE))


def at(trigger, fault, **more):
    return json.dumps({**trigger, "fault": fault, **more})


@pytest.fixture
def script(sim, tmp_path):
    """Starts a simulator of 2 joints with the lines of a script."""

    def start(*lines, endpoint="tcp://127.0.0.1:0", options=()):
        file = tmp_path / "script"
        file.write_text("\n".join(lines) + "\n")
        return sim("-n", 2, "--script", file, *options, endpoint=endpoint)

    return start


def answers(sim, fault, count):
    """The datagrams that come for the commands 1 to 4."""
    host = Host(sim("-n", 2, "--on-command", "--fault", fault, endpoint="udp://127.0.0.1:0"))
    for stamp in range(1, 5):
        host.send(stamp)
    return [host.read() for _ in range(count)]


@pytest.mark.parametrize("fault, sizes, echoes", [
    ("coalesce", [4 * SIZE], [1, 2, 3, 4]), ("coalesce=2", [2 * SIZE] * 2, [1, 2, 3, 4]),
    ("duplicate-status", [SIZE] * 8, [1, 1, 2, 2, 3, 3, 4, 4]), ("wrong-joints", [SIZE + 79] * 4, [1, 2, 3, 4]),
    ("wrong-joints=1", [SIZE - 79] * 4, [1, 2, 3, 4]), ("delay-status=1:20", [SIZE] * 4, [1, 2, 3, 4]),
    ("delay-command", [SIZE] * 4, [1, 2, 3, 4]), ("no-echo", [SIZE] * 4, [0] * 4), ("stale-echo", [SIZE] * 4, [0, 1, 2, 3]),
    ("late-echo=60000", [SIZE] * 4, [0] * 4), ("late-echo=0", [SIZE] * 4, [1, 2, 3, 4])])
def test_whole_statuses_arrive_in_these_datagrams(sim, fault, sizes, echoes):
    datagrams = answers(sim, fault, len(sizes))
    assert [len(datagram) for datagram in datagrams] == sizes
    size = sizes[0] if fault.startswith("wrong") else SIZE
    stream = b"".join(datagrams)
    frames = [stream[i:i + size] for i in range(0, len(stream), size)]
    assert all(map(is_good, frames))
    assert [struct.unpack_from("<Q", frame, 10)[0] for frame in frames] == echoes


def test_datagrams_have_at_least_a_byte_and_no_more_than_they_carry(sim):
    link = sim("-n", 2, "--fault", "coalesce=1000", endpoint="udp://127.0.0.1:0")
    for host in (Host(link), Host(link)):  # the one that sent last
        host.send(1)
        assert len(host.read()) == 65507 // SIZE * SIZE
    datagrams = answers(sim, "byte-writes", SIZE)  # the first status; the socket may not hold all of the others
    assert {len(datagram) for datagram in datagrams} == {1} and is_good(b"".join(datagrams))


def test_only_the_host_that_commands_is_answered(sim):
    link = sim("-n", 2, "--on-command")
    quiet, host = Host(link), Host(link)
    for stamp in (1, 2, 3):
        host.send(stamp)
        assert host.statuses(1)[0][1] == stamp
    quiet.socket.shutdown(socket.SHUT_WR)
    assert quiet.read() == b""
    assert link.stop()["status_frames"] == 3


def test_the_same_seed_strikes_the_same_frames(sim):
    def struck(seed):
        host = Host(sim("-n", 2, "--on-command", "--fault", "corrupt=0.5", "--seed", seed))
        for stamp in range(1, 41):
            host.send(stamp)
        return [is_good(host.read()) for _ in range(40)]

    assert struck(7) == struck(7) != struck(8)


def test_late_frames_are_overtaken_over_udp_only(script):
    for kind, late, overtaken in (("udp", 150, True), ("tcp", 5, False)):  # 5 ms: together with the next one
        line = at({"at_frame": 2}, "delay-status", rate=0.5, value=late, for_frames=60)
        host = Host(script(line, endpoint=f"{kind}://127.0.0.1:0", options=("--cycle", "5ms")))
        host.send(1)
        stamps = [stamp for stamp, _ in host.statuses(60)]
        assert (stamps != sorted(stamps)) == overtaken


def test_each_freeze_shows_its_own_first_status(script):
    host = Host(script(*(at({"at_frame": first}, "freeze", for_frames=3) for first in (3, 9)), options=("--cycle", "5ms")))
    stamps = [stamp for stamp, _ in host.statuses(13)]
    assert len(set(stamps[2:5])) == len(set(stamps[8:11])) == 1 and stamps[8] > stamps[4]
    assert stamps == sorted(stamps)


def test_what_a_host_cannot_be_sent_is_counted(sim, tmp_path):
    (tmp_path / "script").write_text(at({"at_ms": 0}, "delay-status", rate=1, value=3600000, for_frames=1000) + "\n" +
                                     at({"at_frame": 40}, "refuse"))
    link = sim("-n", 828, "--script", tmp_path / "script")
    assert Host(link).read() == b""
    counts = link.stop()
    assert (counts["status_frames"], counts["overruns"]) == (40, 40 - 17)  # 17 of them are the first beyond a mebibyte


def test_late_cycles_are_not_made_up_for(sim):
    link = sim("-n", 2, "--cycle", "10ms")
    began = time.monotonic()
    host = Host(link)
    host.statuses(3)
    link.process.send_signal(signal.SIGSTOP)
    time.sleep(1)
    link.process.send_signal(signal.SIGCONT)
    host.statuses(20)
    frames = link.stop()["status_frames"]
    assert frames <= (time.monotonic() - began - 1) / 0.01 + 20


def test_a_scripted_reset_strikes_once(script):
    link = script(at({"at_ms": 0}, "reset", value=3))
    first = Host(link)
    with pytest.raises(ConnectionResetError):
        while True:
            assert first.read(1) != b""
    second = Host(link)
    assert all(is_good(second.read()) for _ in range(20))


def test_refusing_keeps_the_port(script, velta):
    link = script(at({"at_ms": 0}, "refuse", for_ms=4000))
    port = int(link.rsplit(":", 1)[1])
    with socket.socket() as other, pytest.raises(OSError) as taken:
        other.bind(("127.0.0.1", port))
    assert taken.value.errno == errno.EADDRINUSE
    with pytest.raises(ConnectionRefusedError):
        Host(link)
    assert velta("ping", "--check", "-n", 2, link, "--timeout", "20s").status == 0
    assert link.stop()["faults"]["refuse"] == 1


def test_stop_reading_keeps_commands_back_while_it_lasts(script):
    host = Host(script(at({"at_frame": 1}, "stop-reading", for_frames=50), options=("--cycle", "5ms")))
    host.statuses(2)
    host.send(9)
    assert [echo for _, echo in host.statuses(48)] == [0] * 48
    while host.statuses(1)[0][1] != 9:
        pass


def test_a_symbolic_link_is_removed_by_the_run_that_made_it(sim, tmp_path):
    path = tmp_path / "arm"
    first = sim("-n", 2, endpoint=f"pty:{path}")
    second = sim("-n", 2, endpoint=f"pty:{path}")
    device = os.readlink(path)
    first.stop()
    assert os.readlink(path) == device
    second.stop()
    assert not os.path.lexists(path)


def test_help_and_documentation_list_the_same_faults(velta):
    shown = re.findall(r"^  ([a-z-]+(?:\[.*?\]+)?) {2,}(.*)$", velta("sim", "--help").stdout.split("Faults,")[1], re.M)
    written = re.findall(r"^\| `([a-z-]+(?:\[=.*\])?)` \| (.*) \|$", (TOP / "docs/tools.md").read_text().split("### Faults")[1].split("RATE is")[0], re.M)
    assert [name for name, _ in shown] == [name for name, _ in written] and len(shown) == 19
    for (_, effect), (_, text) in zip(shown, written):
        assert text.startswith(effect)


def test_a_status_comes_every_10_ms_on_a_pty(sim):
    link = sim("-n", 2, endpoint="pty:")
    began = time.monotonic()
    with open(link.address, "rb", buffering=0):
        time.sleep(0.5)
    assert link.stop()["status_frames"] <= (time.monotonic() - began) / 0.01 + 2


def test_gives_a_new_user_of_the_pty_nothing_old(sim, velta):
    link = sim("-n", 2, "--cycle", "1ms", endpoint="pty:")
    with open(link.address, "r+b", buffering=0) as device:
        old = struct.unpack_from("<Q", b"".join(device.read(1) for _ in range(SIZE)), 2)[0]
        wait_until(lambda: struct.unpack("i", fcntl.ioctl(device, termios.FIONREAD, bytes(4)))[0] >= SIZE)  # is left over
    velta("monitor", "-n", 2, sim("-n", 2), "--count", 200)  # some time passes
    assert struct.unpack_from("<Q", status_of_pty(link), 2)[0] > old + 100_000  # us


def test_executed_counts_what_the_joints_obeyed(velta):
    program = velta.start("sim", "-n", 3, "tcp://127.0.0.1:0", "--json", "--fault", "drop-command=0.5")
    listening = json.loads(program.line())
    assert listening["event"] == "listening"
    stranger = connect(listening["link"])
    stranger.sendall(b"noise" + command(1, 3)[:-1] + b"?")
    velta("ping", listening["link"], "-n", 3, "--count", 20, "--timeout", "20ms")
    counts = json.loads(program.stop(signal.SIGTERM).stdout.splitlines()[1])
    assert counts["event"] == "summary"
    commands = counts["commands"]
    assert counts["garbage_bytes"] == len("noise")
    assert counts["executed"] == commands - counts["faults"]["drop-command"] < commands
    assert counts["statistics"] == {"bytes_discarded": 72, "bytes_received": 72 + 67 * commands, "frames_bad_crc": 1,
                                    "frames_received": commands, "frames_sent": counts["status_frames"]}


def test_says_that_it_cannot_print(velta):
    with open("/dev/full", "w") as full:
        program = velta.start("sim", "-n", 2, "tcp://127.0.0.1:0", stdout=full)
        assert (program.wait().status, program.stderr) == (1, "velta: cannot write to standard output\n")
