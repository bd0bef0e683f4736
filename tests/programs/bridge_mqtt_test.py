# SPDX-License-Identifier: MIT
"""velta-bridge through a real broker."""

import contextlib
import json
import pathlib
import signal
import socket
import subprocess
import time

import pytest

from bridge import REF_POSITION, SERVO_ON, Broker, bridge, broker, command, self_signed, viewer
from conftest import PATIENCE, Started


class Listener:
    """What arrives on one topic."""

    def __init__(self, broker, topic, *options):
        self.client = broker.subscribe(topic, *options)
        self.beginning = f"{broker.prefix}/{topic} "

    def receive(self, accept=lambda message: True):
        end = time.monotonic() + PATIENCE
        while not accept(message := json.loads(self.client.line(self.beginning))):
            assert time.monotonic() < end
        return message

    def outcome(self, id):
        return self.receive(lambda message: message.get("outcome", {}).get("id") == id)["outcome"]


class Commander:
    """Commands through the broker, under a name."""

    def __init__(self, broker, name, *options):
        self.broker, self.topic, self.options = broker, f"command/{name}", options
        self.answers = Listener(broker, f"outcome/{name}", *options)

    def say(self, message, *options):
        self.broker.publish(self.topic, message, *self.options, *options)

    def take(self):
        self.say({"control": "take"})
        self.answers.receive(lambda message: message.get("control") == {"held": True, "yours": True})

    def do(self, id, document, *options):
        self.say({"id": id, "confirm": True, "command": document}, *options)
        return self.answers.outcome(id)


@pytest.fixture
def arm(sim, bridge, broker):
    """arm(options...) starts a bridge between a simulated controller and the broker, and waits until it is there."""

    def start(*options):
        link = sim()
        connection = Listener(broker, "connection")
        program = bridge(link, "--mqtt", broker.address(), *options)
        program.arm, program.connection = link, connection
        connection.receive(lambda message: message.get("arm") == "connected")
        return program

    return start


LONG = ("--control-timeout", "30s")


@pytest.mark.parametrize("version", ["5", "3.1.1"])
def test_states_commands_and_farewell(arm, broker, version):
    program = arm("--mqtt-version", version, "--allow-commands", *LONG)
    state = Listener(broker, "state")
    first = state.receive()
    assert [joint["joint_id"] for joint in first["jointState"]] == ["1", "2", "3"]
    planner = Commander(broker, "planner")
    assert planner.do("1", command(SERVO_ON)) == {"id": "1", "outcome": "refused", "reason": "control not held"}
    planner.take()
    assert planner.do("2", command(SERVO_ON)) == {"id": "2", "outcome": "confirmed"}
    assert state.receive(lambda it: it["jointState"][0]["systemMode"] == "2")
    unnamed = Listener(broker, "outcome")
    broker.publish("command", {"id": "x", "command": command(SERVO_ON)})
    assert unnamed.outcome("x")["reason"] == "control not held"
    events = Listener(broker, "event")
    program.arm.stop()
    events.receive(lambda it: it["kind"] == "lost")
    assert program.connection.receive(lambda it: it["arm"] == "away")["connection"] == "online"
    program.stop(signal.SIGTERM)
    assert program.status == 0
    assert program.connection.receive(lambda it: it["connection"] != "online") == {
        "connection": "offline", "version": "2.1.0", "joints": 3}


def test_correlation_data_comes_back_and_a_killed_bridge_leaves_its_last_will(arm, broker):
    program = arm()
    answers = broker.subscribe("outcome", "-V", "5", "-F", "%D %p")
    broker.publish("command", command(SERVO_ON), "-V", "5", "-D", "publish", "correlation-data", "c-17")
    assert json.loads(answers.line("c-17 "))["outcome"]["reason"] == "commands not allowed"
    assert Listener(broker, "statistics").receive()["mqtt"]["connected"] is True  # within 10 s
    program.stop(signal.SIGKILL)
    assert program.connection.receive(lambda it: it["connection"] != "online")["connection"] == "lost"
    late = Listener(broker, "connection")
    assert late.receive()["connection"] == "lost", "it is retained"
    states = broker.subscribe("state", "-W", "1")
    assert "\ncell1/arm3/state" not in states.wait().stdout, "states are not"


def test_nothing_is_executed_twice_or_from_the_past(arm, broker):
    arm("--allow-commands", *LONG)
    planner = Commander(broker, "planner")
    planner.say({"control": "take"}, "-r")  # live now, retained later
    planner.answers.receive(lambda message: message.get("control", {}).get("yours"))
    assert planner.do("a", command(SERVO_ON))["outcome"] == "confirmed"
    assert planner.do("a", command(SERVO_ON)) == {"id": "a", "outcome": "refused", "reason": "repeated or retained"}
    other = Commander(broker, "other")
    assert other.do("a", command(SERVO_ON), "-r")["reason"] == "control not held"  # live
    arm("--allow-commands")  # a second bridge of the same arm gets what is retained
    assert other.answers.outcome("a")["reason"] == "repeated or retained"


def test_what_waited_too_long_is_not_executed(arm, broker):
    program, planner = arm("--allow-commands"), Commander(broker, "planner")
    program.process.send_signal(signal.SIGSTOP)
    planner.say({"id": "late", "command": command(SERVO_ON)}, "-V", "5", "-D", "publish", "message-expiry-interval", "1")
    time.sleep(1.2)  # the broker has sent it; it grows old in the bridge's socket
    program.process.send_signal(signal.SIGCONT)
    assert planner.answers.outcome("late")["reason"] == "expired"


def test_a_duplicate_is_seen(sim, bridge):
    """A broker of this test's own, since a real one sets the duplicate flag only after losses."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        server.settimeout(30)
        bridge(sim(), "--mqtt", f"mqtt://127.0.0.1:{server.getsockname()[1]}/p", "--mqtt-version", "3.1.1")
        connection, _ = server.accept()
        with connection:
            connection.settimeout(30)
            connection.recv(1000)
            connection.send(b"\x20\x02\0\0")  # connected
            topic, payload = b"p/command", json.dumps({"id": "d", "command": command(SERVO_ON)}).encode()
            rest = len(topic).to_bytes(2, "big") + topic + b"\0\x07" + payload
            connection.send(bytes([0x3A, len(rest) & 0x7F | 0x80, len(rest) >> 7]) + rest)
            heard = b""
            while b"}}" not in heard.partition(b'"reason"')[2]:
                heard += connection.recv(10_000)
            assert b'"reason":"repeated or retained"' in heard


def test_losing_the_broker_costs_its_control_and_nothing_else(arm, broker, viewer, velta):
    program = arm("--web", "127.0.0.1:0", "--allow-commands", *LONG)
    planner = Commander(broker, "planner")
    planner.take()
    assert planner.do("1", command(SERVO_ON))["outcome"] == "confirmed"
    assert planner.do("2", command(REF_POSITION, value=1000))["outcome"] == "confirmed"
    browser = viewer(program.url)
    browser.see("trjStatus", "2")
    broker.program.stop(signal.SIGTERM)
    browser.see("trjStatus", "5", "6")
    browser.take()
    browser.send({"rearm": True})
    assert browser.do(command(SERVO_ON))["outcome"] == "confirmed"
    broker.start()
    assert Listener(broker, "connection").receive()["connection"] == "online"
    assert browser.do(command(SERVO_ON), "2")["outcome"] == "confirmed", "the browser kept its control"


def test_the_broker_says_who_may_view_and_who_may_command(sim, bridge, tmp_path):
    """With the access list of docs/fleet.md, passwords, and certificates on both sides."""
    doc = (pathlib.Path(__file__).parents[2] / "docs/fleet.md").read_text()
    (tmp_path / "acl").write_text(doc.split("(`acl_file`):\n\n```\n")[1].split("```")[0])
    passwords = tmp_path / "passwords"
    for create, name in (["-c"], "arm3"), ([], "planner"), ([], "visitor"):
        subprocess.run(["mosquitto_passwd", *create, "-b", passwords, name, f"{name}'s"], check=True, capture_output=True)
    (tmp_path / "good").write_text("arm3's\n")
    (tmp_path / "bad").write_text("planner's\n")
    cert, key = self_signed(tmp_path)
    with contextlib.closing(Started()) as started:
        broker = Broker(tmp_path, started, f"password_file {passwords}", f"acl_file {tmp_path / 'acl'}", f"cafile {cert}",
                        f"certfile {cert}", f"keyfile {key}", "require_certificate true",
                        client=["--cafile", cert, "--cert", cert, "--key", key])
        secure = ("--mqtt", broker.address("mqtts"), "--mqtt-user", "arm3", "--mqtt-ca", cert)
        own = (*secure, "--mqtt-cert", cert, "--mqtt-key", key)
        for reason, *options in [
            ("Not authorized", *own, "--mqtt-password-file", tmp_path / "bad"),
            ("certificate verify failed", *secure[:4]),
        ]:
            assert reason in bridge(sim(), *options).line("velta-bridge: no connection to the broker 127.0.0.1: ")
        bridge(sim(), *own, "--mqtt-password-file", tmp_path / "good", "--allow-commands", "--control-timeout", "30s")
        user = lambda name: ("-u", name, "-P", f"{name}'s")
        visitor = Listener(broker, "state", *user("visitor"))
        assert len(visitor.receive()["jointState"]) == 3
        planner = Commander(broker, "planner", *user("planner"))
        broker.publish("command/planner", {"control": "take"}, *user("visitor"))
        assert planner.do("1", command(SERVO_ON))["reason"] == "control not held"
        planner.take()
        assert planner.do("2", command(SERVO_ON))["outcome"] == "confirmed"
