# SPDX-License-Identifier: MIT
import re
import socket
import time

import frames
import pytest
from conftest import wait_until
from frames import command, connect, status

STATUS = status(5, 0, 1)


@pytest.fixture
def tap(velta, listener, tmp_path):
    """A recorder of a one-joint arm between hosts and the listening controller."""
    program = velta.start("record", "-n", 1, listener.link, tmp_path / "run.vrec", "--via", "tcp://localhost:0")
    program.link = program.line("listening on ")
    program.records = lambda: frames.passed(tmp_path / "run.vrec")
    return program


def test_between_a_host_and_its_controller_nothing_is_changed_or_missed(tap, listener):
    sent, answered = command(7, 1) * 3 + b"noise", STATUS * 2 + b"\xab"
    host = connect(tap.link)
    host.sendall(sent)
    assert listener.read(len(sent)) == sent
    listener.send(answered)
    assert host.recv(len(answered), socket.MSG_WAITALL) == answered
    host.close()
    assert listener.read(1) == b""
    listener.close()
    wait_until(lambda: tap.records()[-1][0] == frames.CLOSED)
    assert tap.stop().status == 0
    records = tap.records()
    assert [records[0][0], records[-1][0]] == [frames.OPENED, frames.CLOSED]
    assert b"".join(r[3] for r in records if r[0] == frames.TO_CONTROLLER) == sent
    assert b"".join(r[3] for r in records if r[0] == frames.TO_HOST) == answered
    monotonic = [r[1] for r in records]
    assert monotonic == sorted(monotonic)
    assert 0 <= time.monotonic_ns() - monotonic[0] < 60e9 and 0 <= time.time_ns() - records[0][2] < 60e9
    assert re.search(r"recorded [\d.]+ s: 2 status frames, 3 commands, 1 connection, \d+ bytes in", tap.stdout)


def test_a_frame_cut_by_the_connections_end_costs_the_next_one_nothing(tap, listener):
    for half in (40, 103):
        host = connect(tap.link)
        host.sendall(b"x")
        listener.read(1)
        listener.send(STATUS[:half])
        assert host.recv(half, socket.MSG_WAITALL) == STATUS[:half]
        listener.host.close()
        listener.host = None
        assert host.recv(1) == b""
        host.close()
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


def test_a_lost_link_and_a_full_disk_end_with_status_1(velta, listener, tmp_path):
    program = velta.start("record", "-n", 1, listener.link, tmp_path / "run.vrec", "--poll", "1ms")
    listener.read(31)
    listener.send(STATUS)
    wait_until(lambda: any(r[0] == frames.TO_HOST for r in frames.passed(tmp_path / "run.vrec")))
    link = listener.link
    listener.close()
    assert program.wait().status == 1 and program.stderr.startswith(f"velta: {link}: ")
    assert frames.passed(tmp_path / "run.vrec")[-1][0] == frames.CLOSED
    full = velta("record", "-n", 1, "udp://127.0.0.1:9", "/dev/full", "--force", "--for", "1s")
    assert (full.status, full.stderr) == (1, "velta: /dev/full: No space left on device\n")


def test_leaves_no_file_of_a_failed_start_and_replaces_none_unasked(velta, sim, tmp_path):
    file = tmp_path / "run.vrec"
    assert velta("record", "-n", 3, "tcp://127.0.0.1:9", file).status == 1
    assert not file.exists()
    file.write_text("mine")
    refused = velta("record", "-n", 3, sim(), file, "--for", "10ms")
    assert refused.status == 1 and "--force" in refused.stderr and file.read_text() == "mine"
    assert velta("record", "-n", 3, sim(), file, "--for", "10ms", "--force").status == 0
    assert frames.passed(file)[0][0] == frames.OPENED
