# SPDX-License-Identifier: MIT
"""Sessions from Python: over all links, with callbacks, coroutines, threads, signals and forks."""

import asyncio
import contextlib
import datetime
import gc
import logging
import os
import signal
import socket
import threading
import time
import weakref

import numpy as np
import pytest
import velta
from velta import _velta

from frames import STATUS_FIELDS, command, read_command, some_joints, status_of

PATIENCE = 30
JOINTS = some_joints(2)


class Controller:
    """A controller of two joints over TCP, without the library. It answers every command, or none."""

    def __init__(self, answers=True):
        self.server = socket.create_server(("127.0.0.1", 0))
        self.link = f"tcp://127.0.0.1:{self.server.getsockname()[1]}"
        self.commands = []
        self.answers = answers
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        with contextlib.suppress(ConnectionError):
            self._answer()

    def _answer(self):
        host, _ = self.server.accept()
        with host:
            host.sendall(status_of(0, 0, 0, JOINTS))
            size = len(command(0, 2))
            while frame := host.recv(size, socket.MSG_WAITALL):
                stamp, arm, joints = read_command(frame)
                if arm or any(joint[0] for joint in joints):
                    self.commands.append((stamp, joints))
                if self.answers:
                    host.sendall(status_of(len(self.commands), stamp, 0.5, JOINTS))


def wait_for(condition):
    end = time.monotonic() + PATIENCE
    while not (value := condition()):
        assert time.monotonic() < end
        time.sleep(0.005)
    return value


def connect(link, joints, **options):
    """A controller on a busy machine may be silent for long."""
    return velta.connect(link, joints, timeout=PATIENCE, silence=PATIENCE, **options)


@pytest.fixture
def arm():
    with connect("sim:", 3) as session:
        yield session


@pytest.mark.parametrize("link", ["sim:", "tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"])
def test_a_command_is_confirmed_over_every_link(velta_sim, link):
    simulator = velta_sim(joints=3, link=link)
    with connect(simulator, joints=3) as arm:
        ticket = arm.send(velta.Command(3).servo_on("all"), confirm=True)
        assert ticket.wait(PATIENCE) is True and ticket.outcome is velta.Outcome.CONFIRMED and ticket.reason == ""
        assert arm.send(velta.Command(3).ref_position([0, 2], [10, -10])).wait(PATIENCE)
        wait_for(lambda: arm.latest().ref_position.tolist() == [10, 0, -10])
        assert arm.is_connected and arm.statistics["frames_sent"] >= 2
    if link != "sim:":
        assert simulator.stop()["executed"] >= 2
    else:
        with pytest.raises(ValueError):
            velta_sim(link=link, options=["--on-command"])


def test_frames_both_ways_are_those_of_the_wire():
    controller = Controller()
    with connect(controller.link, joints=2) as arm:
        before = time.time_ns()
        assert arm.send(velta.Command(2).trajectory_pvt(1, 1.5, 2.5, 3.5), confirm=True).wait(PATIENCE)
        state = arm.latest()
        drained = wait_for(lambda: [s for s in [arm.drain()] if len(s)])[0]
    ((stamp, joints),) = controller.commands
    assert joints == [(0, 0, 0, 0, 0), (0x3D, 1.5, 2.5, 3.5, 0)]
    assert state.host_time == stamp and state.duration == 0.5 and len(state) == 2
    assert abs(state.received - before) < PATIENCE * 1e9
    for field in STATUS_FIELDS:
        assert getattr(state, field).tolist() == [joint[field] for joint in JOINTS]
        assert drained[field].shape == (len(drained), 2)
    assert drained.joints.shape == drained["position"].shape and drained["position"][0, 1] == state.position[1]
    assert drained.received.dtype == drained.time.dtype == drained.host_time.dtype == np.int64
    assert drained.time[-1] == drained["time"][-1] and (np.diff(drained.received) >= 0).all()
    view = weakref.ref(state)
    position = state.position
    del state
    gc.collect()
    assert view() is not None and position.tolist() == [JOINTS[i]["position"] for i in range(2)]


def test_a_silent_controller_is_told_apart(velta_sim):
    controller = Controller(answers=False)
    with velta.connect(controller.link, joints=2, silence=0) as arm:
        waits = arm.send(velta.Command(2).servo_on("all"), confirm=True)
        after = arm.send(velta.Command(2).servo_off("all"))
        with pytest.raises(velta.TimeoutError) as caught:
            waits.wait(datetime.timedelta(milliseconds=20))
        assert isinstance(caught.value, TimeoutError) and isinstance(caught.value, velta.Error)
        with pytest.raises(velta.TimeoutError, match="never confirmed"):  # five times 100 cycles
            waits.wait()
        assert waits.outcome is velta.Outcome.GAVE_UP
        with pytest.raises(velta.DiscardedError, match="another command gave up"):
            after.wait()
        assert after.outcome is velta.Outcome.DISCARDED and after.reason == "another command gave up"
        with pytest.raises(velta.TimeoutError):
            next(arm.states(timeout=0))


@pytest.mark.parametrize("on_loss, outcome", [("discard", velta.Outcome.DISCARDED), ("keep", velta.Outcome.PENDING)])
def test_what_waits_is_discarded_or_kept_over_a_loss(velta_sim, on_loss, outcome):
    simulator = velta_sim(joints=3, faults=["no-echo"])
    with velta.connect(simulator, joints=3, timeout=PATIENCE, silence=0.3, period=0.05, on_loss=on_loss) as arm:
        arm.send(velta.Command(3), confirm=True)  # awaits its echo
        waits = arm.send(velta.Command(3))
        simulator.stop()
        wait_for(lambda: not arm.is_connected)
        assert waits.outcome is outcome


def test_connecting_fails_with_the_reason():
    with socket.create_server(("127.0.0.1", 0)) as closed:
        link = f"tcp://127.0.0.1:{closed.getsockname()[1]}"
    began = time.monotonic()
    with pytest.raises(velta.ConnectError, match="refused"):
        velta.connect(link, joints=3, timeout=0.2)
    with pytest.raises(velta.ConnectError):
        velta.connect(link, joints=3, timeout=PATIENCE, reconnect=False)
    assert time.monotonic() - began < PATIENCE
    with velta.connect(link, joints=3, timeout=0) as arm:
        assert arm.latest() is None and not arm.is_connected and len(arm.drain()) == 0
    for bad in ({"link": "http://x"}, {"joints": 0}, {"period": 0}, {"on_loss": "x"}, {"stop": [velta.Command(2)]},
                {"silence": -1}, {"timeout": float("nan")}):
        with pytest.raises(ValueError):
            velta.connect(**{"link": "sim:", "joints": 3, **bad})
    with pytest.raises(TypeError):
        velta.Session("sim:", 3, speed=1)


def test_the_defaults_are_those_of_the_library():
    defaults = {**velta.connect.__kwdefaults__}
    assert defaults.pop("on_event") is None and defaults.pop("on_state") is None
    assert defaults == _velta._default_options()


def test_a_command_of_another_joint_count_is_refused(arm):
    for send in (arm.send, arm.source("other").send):
        with pytest.raises(ValueError, match="2 joints"):
            send(velta.Command(2).servo_on("all"))


def test_what_is_sent_after_the_end_is_discarded(arm):
    wrist = arm.source("wrist")
    assert wrist.name == "wrist" and wrist.send(velta.Command(3).servo_on(2), confirm=True).wait(PATIENCE)
    assert arm.send_newest("key", velta.Command(3).ref_position(0, 1)).wait(PATIENCE)
    states, events = arm.states(), arm.events()
    arm.stop()
    arm.stop()
    for ticket in (arm.send(velta.Command(3)), wrist.send(velta.Command(3))):
        with pytest.raises(velta.DiscardedError, match="stopped"):
            ticket.wait()
    assert len(list(states)) < 1000 and len(list(events)) < 100  # they end


def test_readers_have_positions_of_their_own_and_are_told_how_much_they_missed():
    with connect("sim:", joints=1, status_buffer=10) as arm:
        states, later = arm.states(PATIENCE), arm.states(timeout=datetime.timedelta(seconds=PATIENCE))
        wait_for(lambda: arm.statistics["frames_received"] > 100)
        times = [next(states).time for _ in range(3)]
        assert times == sorted(set(times)) and next(later).time < times[-1] + 10_000_000
        drained = arm.drain()
        assert states.left_out > 10 and len(drained) <= 10 and drained.left_out > 50
        assert not set(arm.drain().time) & set(drained.time)


def test_the_dead_man_stops_the_arm_and_events_say_so():
    events = []
    with connect("sim:", joints=3, dead_man=0.05, on_event=events.append) as arm:
        arm.keep_alive()
        wait_for(lambda: arm.is_dead_man)
        with pytest.raises(velta.DiscardedError, match="dead-man"):
            arm.send(velta.Command(3)).wait()
        arm.rearm()
        arm.disarm()
        assert arm.send(velta.Command(3)).wait(PATIENCE)
        wait_for(lambda: any(event.kind is velta.EventKind.REARMED for event in events))
        kinds = [event.kind for event in events]
        assert kinds.index(velta.EventKind.CONNECTED) < kinds.index(velta.EventKind.DEAD_MAN)
        late = arm.events()
        while len(events) < 1100:
            arm.stop_arm()
            arm.rearm()
        assert next(late).kind is velta.EventKind.LEFT_OUT
        assert events[0].time > 1e18 and all(isinstance(event, velta.Event) and event.text for event in events)


def test_a_callback_may_raise_call_and_stop(caplog):
    arm = connect("sim:", 3)
    seen = []

    def callback(state):
        seen.append(state.position.copy())
        if len(seen) == 1:
            raise RuntimeError("of the test")
        arm.send(velta.Command(3).servo_on("all")).wait(PATIENCE)
        arm.stop()

    with caplog.at_level(logging.ERROR, "velta"):
        arm.on_state(print)
        arm.on_state(callback)
        assert [thread.name for thread in threading.enumerate()].count("velta-state") == 1
        wait_for(lambda: len(seen) >= 2 and "of the test" in caplog.text)
        wait_for(lambda: not any(thread.is_alive() for thread in arm._threads.values()))
    assert "cannot join" not in caplog.text


def test_a_session_that_nobody_holds_ends():
    arm = connect("sim:", joints=3, on_state=lambda state: None, on_event=print)
    threads = list(arm._threads.values())
    gone = weakref.ref(arm)
    del arm
    gc.collect()
    assert gone() is None
    wait_for(lambda: not any(thread.is_alive() for thread in threads))


def test_coroutines_wait_without_a_thread_each(velta_sim):
    simulator = velta_sim(joints=3, faults=["delay-status=1:1"])

    async def program():
        with velta.connect(simulator, joints=3, silence=3, back_off=0.01) as arm:
            events = arm.events()
            tickets = [arm.source(str(i)).send(velta.Command(3).servo_on(i), confirm=True) for i in range(3)]
            assert await asyncio.wait_for(asyncio.gather(*tickets), PATIENCE) == [True] * 3
            pending = arm.send(velta.Command(3), confirm=True)
            assert await asyncio.gather(pending, pending) == [True, True] and await pending
            assert simulator.stop()["faults"]["delay-status"] > 0
            kinds = []
            async for event in events:
                kinds.append(event.kind)
                if event.kind is velta.EventKind.LOST:
                    arm.stop()
            assert velta.EventKind.LOST in kinds  # and the iteration ended with the session
            with pytest.raises(velta.DiscardedError):
                await arm.send(velta.Command(3))
        assert threading.active_count() < 10

    asyncio.run(program())


def test_log_lines_go_to_logging_and_nothing_to_standard_output(velta_sim, capfd, caplog):
    simulator = velta_sim(joints=1)
    host, port = simulator.split("//")[1].split(":")
    with caplog.at_level(logging.INFO, "velta"):
        client = velta.MasterControllerClient(1)
        assert client.init_as_tcp_client(host, int(port))
        wait_for(lambda: "Success to open TCP Connection to 127.0.0.1" in caplog.text)
        assert not velta.MasterControllerClient(1).init_as_tcp_client(host, 1)
        wait_for(lambda: len(caplog.records) == 2)
        assert [record.levelname for record in caplog.records] == ["INFO", "ERROR"]
        for lines in range(1002, 11_003, 1000):  # more than may wait at a time
            for _ in range(1000):
                velta.MasterControllerClient(1).init_as_tcp_client(host, 1)
            wait_for(lambda: len(caplog.records) == lines)
    assert capfd.readouterr() == ("", "")


def test_control_c_ends_every_wait(arm):
    signal.signal(signal.SIGINT, signal.default_int_handler)  # ignored in the background of a shell
    silent = socket.create_server(("127.0.0.1", 0))
    link = f"tcp://127.0.0.1:{silent.getsockname()[1]}"
    dead = Controller(answers=False)
    with velta.connect(dead.link, joints=2, silence=0, period=1) as slow:  # an answer is waited for minutes here
        never = slow.send(velta.Command(2), confirm=True)
        for wait in (lambda: never.wait(), lambda: next(slow.states(None)), lambda: next(slow.events()),
                     lambda: velta.connect(link, joints=1, timeout=None)):
            threading.Timer(0.1, signal.raise_signal, [signal.SIGINT]).start()
            with pytest.raises(KeyboardInterrupt):
                wait()
    silent.close()


def test_a_forked_child_has_no_session(arm):
    mock = velta.MasterControllerClientMock(1)
    ticket = arm.send(velta.Command(3), confirm=True)
    ticket.wait(PATIENCE)
    child = os.fork()
    if child == 0:
        status = 1
        try:
            for call in (arm.latest, arm.stop, arm.drain, lambda: arm.send(velta.Command(3)), ticket.wait,
                         lambda: next(arm.states()), mock.receive_status):
                with pytest.raises(velta.Error, match="fork"):
                    call()
            with connect("sim:", 3) as own:
                assert own.send(velta.Command(3), confirm=True).wait(PATIENCE)
            del mock
            status = 0
        finally:
            os._exit(status)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    assert arm.send(velta.Command(3), confirm=True).wait(PATIENCE)


def test_a_flight_record_is_read_as_arrays(tmp_path):
    controller = Controller()
    with connect(controller.link, joints=2, flight_recorder=10) as arm:
        for i in range(5):
            assert arm.send(velta.Command(2).ref_position(1, i), confirm=True).wait(PATIENCE)
        arm.write_flight_record(tmp_path / "flight.vrec")
        with pytest.raises(velta.Error):
            arm.write_flight_record(tmp_path / "none" / "flight.vrec")
    recording = velta.read_recording(tmp_path / "flight.vrec")
    assert recording.joint_num == 2 and recording.link == controller.link and recording.lost_bytes == 0
    moved = recording.commands["order"][:, 1] == 0x11
    assert recording.commands["value1"][moved, 1].tolist() == [0, 1, 2, 3, 4]
    assert recording.commands.time[moved].tolist() == [stamp for stamp, _ in controller.commands]
    assert recording.commands.sent[0] > 1e18
    assert set(recording.states.host_time.tolist()) >= set(recording.commands.time[moved][:-1].tolist())
    assert (recording.states["position"] == [joint["position"] for joint in JOINTS]).all()
    assert [event.kind for event in recording.events] == ["opened"]
    (tmp_path / "bad.vrec").write_bytes(b"x" * 100)
    for bad in ("bad.vrec", "missing.vrec"):
        with pytest.raises(velta.RecordingError, match=bad):
            velta.read_recording(tmp_path / bad)
