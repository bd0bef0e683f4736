# SPDX-License-Identifier: MIT
"""What `velta record --via` does to the traffic between a host and its controller: nothing."""

import contextlib
import os
import random
import socket
import struct
import time
import tty

import frames
import pytest
from conftest import wait_until
from frames import TO_CONTROLLER, TO_HOST, connect


@pytest.fixture
def relay(velta, tmp_path):
    """relay(kind of the host's side, the controller's link) starts one; `link` is where it listens."""

    def start(kind, controller):
        endpoint = f"pty:{tmp_path}/arm" if kind == "pty" else f"{kind}://127.0.0.1:0"
        program = velta.start("record", "-n", 1, controller, tmp_path / "run.vrec", "--force", "--via", endpoint)
        program.link = program.line("listening on ")
        program.records = lambda: frames.passed(tmp_path / "run.vrec")
        program.events = lambda: [event for event, *_ in program.records() if event > TO_HOST]
        return program

    return start


@pytest.fixture
def stand(relay, listener):
    """A relay between TCP and TCP, and both ends, connected."""
    program = relay("tcp", listener.link)
    program.host = connect(program.link)
    program.host.sendall(b"x")
    assert listener.read(1) == b"x"
    return program


@pytest.mark.parametrize("host_kind", ["tcp", "pty"])
@pytest.mark.parametrize("controller_kind", ["tcp", "serial"])
def test_every_byte_passes_in_both_directions(relay, listener, host_kind, controller_kind):
    listener.listening.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)  # so that much is left over on the way
    master, slave = os.openpty()
    tty.setraw(slave)
    program = relay(host_kind, listener.link if controller_kind == "tcp" else f"serial://{os.ttyname(slave)}")
    device = program.link.split("://")[1].split("?")[0]
    host = os.open(device, os.O_RDWR | os.O_NOCTTY) if host_kind == "pty" else connect(program.link).detach()
    controller = master if controller_kind == "serial" else listener.listening.accept()[0].detach()
    noise = random.Random(1)
    ways = [(host, controller, noise.randbytes(100_000), bytearray()), (controller, host, noise.randbytes(80_000), bytearray())]
    sent = [0, 0]
    os.set_blocking(host, False)
    os.set_blocking(controller, False)

    def step():
        for i, (source, target, data, arrived) in enumerate(ways):
            with contextlib.suppress(BlockingIOError):
                sent[i] += os.write(source, data[sent[i]:sent[i] + noise.randrange(5000)])
            with contextlib.suppress(BlockingIOError):
                arrived += os.read(target, noise.randrange(4096)) if noise.random() < 0.3 else b""
        return all(len(arrived) == len(data) for *_, data, arrived in ways)

    wait_until(lambda: any(step() for _ in range(100)))
    assert all(arrived == data for *_, data, arrived in ways)
    for direction, (*_, data, _) in zip((TO_CONTROLLER, TO_HOST), ways):
        assert b"".join(block for event, *_, block in program.records() if event == direction) == data
    os.close(host)
    if host_kind == "pty":  # a TCP host may have closed its side only
        wait_until(lambda: program.events() == [frames.OPENED, frames.CLOSED])


def test_datagrams_pass_whole_from_and_to_the_last_host(relay):
    with socket.socket(type=socket.SOCK_DGRAM) as controller:
        controller.bind(("127.0.0.1", 0))
        controller.settimeout(30)
        program = relay("udp", "udp://127.0.0.1:%d" % controller.getsockname()[1])
        for host in (connect(program.link), connect(program.link)):
            for size in (121, 1, 0, 65507):
                datagram = os.urandom(size)
                host.send(datagram)
                got, relay_address = controller.recvfrom(1 << 16)
                controller.sendto(datagram, relay_address)
                assert got == host.recv(1 << 16) == datagram
    for i in range(20):  # an absent controller is no end
        host.send(b"y")
    wait_until(lambda: sum(block == b"y" for *_, block in program.records()) == 20)
    assert [len(block) for event, *_, block in program.records() if event == TO_HOST] == [121, 1, 0, 65507] * 2
    assert program.events() == [frames.OPENED]
    _, monotonic, wall, _ = program.records()[-1]
    assert 0 <= time.monotonic_ns() - monotonic < 60e9 and 0 <= time.time_ns() - wall < 60e9


def test_a_one_sided_close_is_passed_on(stand, listener):
    stand.host.shutdown(socket.SHUT_WR)
    assert listener.read(1) == b""
    listener.send(b"z" * 50_000)  # the way back is still open
    assert stand.host.recv(50_000, socket.MSG_WAITALL) == b"z" * 50_000
    listener.close()
    assert stand.host.recv(1) == b""
    wait_until(lambda: stand.events() == [frames.OPENED, frames.CLOSED])


@pytest.mark.parametrize("by_host", [True, False])
def test_a_reset_is_passed_on(stand, listener, by_host):
    ends = (stand.host, listener.host)[:: 1 if by_host else -1]
    ends[0].setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    ends[0].close()
    with pytest.raises(ConnectionResetError):
        ends[1].recv(1)
    wait_until(lambda: stand.events() == [frames.OPENED, frames.CLOSED])


def test_a_host_that_is_back_need_not_wait_for_the_controllers_close(stand, listener):
    stand.host.close()
    connect(stand.link)
    wait_until(lambda: stand.events() == [frames.OPENED, frames.CLOSED, frames.OPENED])


def test_a_controller_has_its_time_to_answer(relay):
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full:  # its queue is full, so it answers nobody
        link = "tcp://127.0.0.1:%d" % full.getsockname()[1]
        waiting = [socket.socket() for _ in range(4)]
        for each in waiting:
            each.setblocking(False)
            each.connect_ex(full.getsockname())
        program = relay("tcp", link)
        host = connect(program.link)
        assert program.line("velta: ") == f"{link}: no answer within 5000 ms"
        with pytest.raises(ConnectionResetError):
            host.recv(1)
