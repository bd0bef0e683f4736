# SPDX-License-Identifier: MIT
import re
import socket
import time

import frames
from conftest import wait_until
from frames import connect, status

STATUS = status(5, 0, 1)


def test_a_frame_cut_by_the_connections_end_costs_the_next_one_nothing(velta, listener, tmp_path):
    tap = velta.start("record", "-n", 1, listener.link, tmp_path / "run.vrec", "--via", "tcp://localhost:0")
    link = tap.line("listening on ")
    for half in (40, 103):
        with connect(link) as host:
            host.sendall(b"x")
            listener.read(1)
            listener.send(STATUS[:half])
            listener.host.close()
            listener.host = None
            assert host.recv(104, socket.MSG_WAITALL) == STATUS[:half]
    assert "1 status frame, 0 commands, 2 connections" in tap.stop().stdout


def test_ends_after_its_time(velta, sim, tmp_path):
    for more in ((), ("--via", "tcp://127.0.0.1:0")):
        run = velta("record", "-n", 3, sim(), tmp_path / f"{len(more)}.vrec", "--for", "400ms", *more)
        assert run.status == 0 and 0.4 <= run.seconds < 15


def test_asks_only_a_silent_controller(velta, sim, tmp_path):
    talking, silent = sim(), sim("--on-command")
    for link, poll, asked in ((talking, "200ms", False), (silent, "10ms", True), (silent, "0", False)):
        assert velta("record", "-n", 3, link, tmp_path / "run.vrec", "--force", "--for", "500ms", "--poll", poll).status == 0
        events = {event for event, *_ in frames.passed(tmp_path / "run.vrec")}
        assert (frames.TO_CONTROLLER in events) == asked
        assert (frames.TO_HOST in events) == (asked or link is talking)


def test_every_byte_is_kept_with_its_times_until_the_link_is_lost(velta, listener, tmp_path):
    program = velta.start("record", "-n", 1, listener.link, tmp_path / "run.vrec", "--poll", "1ms")
    passed = lambda way: b"".join(r[3] for r in frames.passed(tmp_path / "run.vrec") if r[0] == way)
    asked, sent = listener.read(31), b"noise" + STATUS * 1000 + STATUS[:50]
    listener.send(sent)
    wait_until(lambda: passed(frames.TO_HOST) == sent)
    link = listener.link
    listener.close()
    assert program.wait().status == 1 and program.stderr.startswith(f"velta: {link}: ")
    assert passed(frames.TO_CONTROLLER).startswith(asked)
    assert re.search(r"recorded [\d.]+ s: 1000 status frames, \d+ commands?, 1 connection, \d+ bytes in", program.stdout)
    events, monotonic, wall, _ = zip(*frames.passed(tmp_path / "run.vrec"))
    assert (events[0], events[-1]) == (frames.OPENED, frames.CLOSED) and list(monotonic) == sorted(monotonic)
    assert 0 <= time.monotonic_ns() - monotonic[0] < 60e9 and 0 <= time.time_ns() - wall[0] < 60e9
