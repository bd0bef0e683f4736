# SPDX-License-Identifier: MIT
"""What the tests of velta-bridge share: the program, a client of its WebSocket, a broker."""

import asyncio
import contextlib
import json
import socket
import subprocess
import time

import pytest
import websockets

from conftest import BUILD, PATIENCE, Started, wait_until

BRIDGE = BUILD / "bridge/velta-bridge"
POSITION = 20  # control mode


def command(order, joint=1, value=0.0):
    """A command document for one joint, counted from 1."""
    values = {f"value{i}": str(value if i == 1 else 0.0) for i in range(1, 5)}
    return {"armOrder": "0", "jointCommand": [{"jointName": str(joint), "jointOrder": str(order), **values}]}


SERVO_ON, MODE, REF_POSITION = 162, 163, 17


class Viewer:
    """One WebSocket to a bridge."""

    def __init__(self, url, **options):
        self.loop = asyncio.new_event_loop()
        address = url.replace("http", "ws", 1) + "ws"

        async def connect():
            return await websockets.connect(address, max_size=None, max_queue=None, ping_interval=None, **options)

        self.socket = self._run(connect())

    def _run(self, awaitable, timeout=PATIENCE):
        async def bounded():
            return await asyncio.wait_for(awaitable, timeout)

        return self.loop.run_until_complete(bounded())

    def send(self, message):
        self._run(self.socket.send(message if isinstance(message, (str, bytes)) else json.dumps(message)))

    def receive(self, key, accept=lambda value: True):
        """Skips messages up to one with this key whose value is accepted; returns the value."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            message = json.loads(self._run(self.socket.recv()))
            if key in message and accept(message[key]):
                return message[key]
        raise AssertionError(f"no such {key} came")

    def see(self, field, *values):
        """Waits until the first joint's field has one of the values."""
        self.receive("state", lambda state: state["jointState"][0][field] in values)

    def ask(self, message, key="outcome"):
        self.send(message)
        return self.receive(key)

    def take(self):
        self.receive("state")  # the arm is there
        wait_until(lambda: self.ask({"control": "take"}, "control")["yours"])

    def do(self, document, id="1"):
        """Commands, and waits for the outcome."""
        return self.ask({"id": id, "confirm": True, "command": document})

    def close_code(self):
        """Waits until the bridge closes it."""

        async def read():
            while True:
                await self.socket.recv()

        with pytest.raises(websockets.ConnectionClosed):
            self._run(read())
        return self.socket.close_code

    def abort(self):
        """Ends the connection without a word."""
        self.socket.transport.abort()
        self._run(self.socket.wait_closed())

    def close(self):
        if not self.loop.is_closed():
            self.abort()
            self.loop.close()


@pytest.fixture
def viewer():
    with contextlib.ExitStack() as viewers:
        yield lambda url, **options: viewers.enter_context(contextlib.closing(Viewer(url, **options)))


@pytest.fixture
def bridge():
    """bridge(link, options...) starts a bridge of 3 joints; with a page unless there is another front end."""
    def start(link, *options):
        web = [] if any(str(option).startswith("--mqtt") for option in options) else ["--web", "127.0.0.1:0"]
        web = [] if "--web" in options else web
        joints = [] if "-n" in options else ["-n", 3]
        program = started.start(BRIDGE, *joints, link, *web, *options)
        program.url = program.line("listening on ") if web or "--web" in options else None
        return program

    with contextlib.closing(Started()) as started:
        yield start


def free_port():
    with socket.socket() as any_port:
        any_port.bind(("127.0.0.1", 0))
        return any_port.getsockname()[1]


def self_signed(folder):
    """A certificate for this machine, which is its own authority, and its key."""
    cert, key = folder / "cert.pem", folder / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                    key, "-out", cert, "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1"], check=True,
                   stderr=subprocess.DEVNULL)
    return cert, key


class Broker:
    """A real broker on a loopback port of its own, for the arm cell1/arm3."""

    prefix = "cell1/arm3"

    def __init__(self, folder, started, *settings, client=()):
        self.port, self.started, self.client = free_port(), started, client
        self.config = folder / "mosquitto.conf"
        self.config.write_text("\n".join([f"listener {self.port} 127.0.0.1", "persistence false", "user root", *settings, ""]))
        self.start()

    def start(self):
        self.program = self.started.start("/usr/sbin/mosquitto", "-c", self.config)

        def listens():
            with socket.socket() as attempt:
                return attempt.connect_ex(("127.0.0.1", self.port)) == 0

        wait_until(listens, "the broker")

    def address(self, scheme="mqtt"):
        return f"{scheme}://127.0.0.1:{self.port}/{self.prefix}"

    def _command(self, program, topic, *options):
        return [program, "-h", "127.0.0.1", "-p", str(self.port), *self.client, "-t", f"{self.prefix}/{topic}", *options]

    def subscribe(self, topic, *options):
        """Lines "TOPIC PAYLOAD" as they come."""
        client = self.started.start("stdbuf", "-oL", *self._command("mosquitto_sub", topic, "-d", "-v", *options))
        client.line("Subscribed (")
        return client

    def publish(self, topic, message, *options):
        subprocess.run(self._command("mosquitto_pub", topic, "-q", "1", "-m", json.dumps(message), *options), check=True,
                       timeout=PATIENCE)


@pytest.fixture
def broker(tmp_path):
    with contextlib.closing(Started()) as started:
        yield Broker(tmp_path, started, "allow_anonymous true")
