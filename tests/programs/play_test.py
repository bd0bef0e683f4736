# SPDX-License-Identifier: MIT
import socket
import time

from frames import CLOSED, OPENED, TO_CONTROLLER, TO_HOST, command, connect, damaged, recording, status

COMMANDS = [command(stamp, 1, {0: (17, stamp)}) for stamp in (3, 1, 2)]


def run_of(*seconds, event=TO_CONTROLLER, frames=COMMANDS):
    return [(0, OPENED)] + [(s, event, f) for s, f in zip(seconds, frames)] + [(200, CLOSED)]


def test_sends_the_good_commands_unchanged_at_their_times(velta, listener, tmp_path):
    file = recording(tmp_path / "run.vrec", 1, *run_of(0, 20, 40, 60, frames=[COMMANDS[0], damaged(COMMANDS[1]), *COMMANDS[1:]]))
    program = velta.start("play", file, listener.link, "--speed", 100)
    assert listener.read(93) == b"".join(COMMANDS)
    listener.send(status(1, 2, 1))  # echoes the last command
    assert program.wait().status == 0 and 0.6 <= program.seconds < 20
    assert program.stdout == "sent 3 commands, 1 echoed before the next, 1 status frame received\n"


def test_an_excerpt_begins_at_once(velta, listener, tmp_path):
    file = recording(tmp_path / "run.vrec", 1, *run_of(0, 99, 100))
    program = velta.start("play", file, listener.link, "--from", "50s", "--to", "99.5s")
    assert listener.read(32) == COMMANDS[1]  # and no more until the end
    assert program.wait().status == 0 and program.seconds < 20


def test_a_lost_link_is_a_failure(velta, listener, tmp_path):
    file = recording(tmp_path / "run.vrec", 1, *run_of(0, 60))
    program = velta.start("play", file, listener.link)
    listener.read(31)
    link = listener.link
    listener.close()
    assert program.wait().status == 1 and program.stderr.startswith(f"velta: {link}: ")
    assert "sent 1 command" in program.stdout and program.seconds < 30


def test_serves_every_host_from_the_first_whole_frame_on(velta, tmp_path):
    large = status(1, 2, 828)  # more of these than a connection holds, so that one is cut
    file = recording(tmp_path / "run.vrec", 828, *[(0, TO_HOST, large)] * 150)
    program = velta.start("play", file, "--serve", "tcp://127.0.0.1:0")
    link = program.line("listening on ")
    first = connect(link, SO_RCVBUF=4096)
    first.sendall(b"x" * 10)
    assert first.recv(2, socket.MSG_WAITALL) == b"\xab\xcd"
    time.sleep(0.2)  # until the connection is full, which cannot be seen from here
    first.close()
    second = connect(link)
    second.sendall(command(1, 828)[:100])
    received = b""
    while data := second.recv(1 << 20):
        received += data
    assert received == large * 150
    second.close()
    assert program.wait().status == 0 and "served 2 hosts" in program.stdout and "0 commands received" in program.stdout


def test_loops_until_it_is_stopped(velta, tmp_path):
    frames = [status(stamp, 0, 1) for stamp in (8, 9)]
    file = recording(tmp_path / "run.vrec", 1, *run_of(0, 0.01, event=TO_HOST, frames=frames))
    program = velta.start("play", file, "--serve", "tcp://127.0.0.1:0", "--loop")
    assert connect(program.line("listening on ")).recv(103 * 7, socket.MSG_WAITALL) == (b"".join(frames) * 4)[:103 * 7]
    assert program.stop().status == 0
