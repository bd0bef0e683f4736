# SPDX-License-Identifier: MIT
"""Programs as their users meet them: arguments in; output, status and time out. Every wait has a deadline."""

import contextlib
import os
import pathlib
import queue
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import pytest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "python/velta"))  # from the sources: needs no compiled module
from testing import velta_sim  # noqa: F401

PATIENCE = 30  # s: far more than any case takes, also under a sanitizer on a busy machine
BUILD = pathlib.Path(os.environ.get("VELTA_BUILD", pathlib.Path(__file__).parents[2] / "build/release"))
SANITIZED = "-fsanitize=" in (BUILD / "CMakeCache.txt").read_text()  # then freed memory is kept
VELTA = BUILD / "tools/velta"
os.environ["VELTA_PROGRAM"] = str(VELTA)


def wait_until(condition, what="the condition"):
    """Returns the condition's first true value."""
    end = time.monotonic() + PATIENCE
    while not (value := condition()):
        assert time.monotonic() < end, f"{what} did not come true within {PATIENCE} s"
        time.sleep(0.01)
    return value


class Program:
    """A running program. Its lines are read as it prints them, so that it never waits for the test."""

    def __init__(self, *command, env=None, **options):
        self.command = [str(word) for word in command]
        self.began = time.monotonic()
        streams = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        self.process = subprocess.Popen(self.command, text=True, env={**os.environ, **(env or {})}, **{**streams, **options})
        self.stdout, self.stderr = "", ""
        self._lines = queue.Queue()
        self._readers = [threading.Thread(target=self._read, args=(name,), daemon=True) for name in ("stdout", "stderr")]
        for reader in self._readers:
            reader.start()

    def _read(self, name):
        for line in getattr(self.process, name) or ():
            setattr(self, name, getattr(self, name) + line)
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def line(self, beginning=""):
        """Skips lines, of either stream, up to one that begins so; returns the rest of it."""
        ended = 0
        while ended < 2:
            try:
                line = self._lines.get(timeout=PATIENCE)
            except queue.Empty:
                break
            if line is None:
                ended += 1
            elif line.startswith(beginning):
                return line[len(beginning):]
        raise AssertionError(f"no line '{beginning}...' from {self.command}:\n{self.stdout}{self.stderr}")

    def write(self, text):
        self.process.stdin.write(text)
        self.process.stdin.flush()

    def stop(self, number=signal.SIGINT):
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Waits for the end; then status, stdout, stderr and seconds are what the program left."""
        if not self.process.stdin.closed:
            self.process.stdin.close()
        self.status = self.process.wait(PATIENCE)
        self.seconds = time.monotonic() - self.began
        for reader in self._readers:
            reader.join(PATIENCE)
        return self

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.wait()


class Started:
    """Starts programs, and ends those that are left."""

    def __init__(self):
        self.programs = []

    def start(self, *command, **options):
        self.programs.append(Program(*command, **options))
        return self.programs[-1]

    def __call__(self, *command, input="", **options):
        program = self.start(*command, **options)
        program.write(input)
        return program.wait()

    def close(self):
        for program in self.programs:
            program.kill()


class Velta(Started):
    """velta("ping", ...) runs the program to its end; velta.start(...) leaves it running."""

    def start(self, *arguments, **options):
        return super().start(VELTA, *arguments, **options)


@pytest.fixture
def run():
    """Any program: run(path, arguments...)."""
    with contextlib.closing(Started()) as started:
        yield started


@pytest.fixture
def velta():
    with contextlib.closing(Velta()) as started:
        yield started


@pytest.fixture
def tshark(tmp_path):
    """tshark(path, options..., fields=...): the values of each packet's fields, as the second pass with our dissector has
    them; without fields, the lines of all that it shows."""

    def run(path, *options, fields=""):
        shape = ["-T", "fields", *(word for field in fields.split() for word in ("-e", field))] if fields else ["-V"]
        script = pathlib.Path(__file__).parents[2] / "wireshark/velta.lua"
        shown = subprocess.run(["tshark", "-2", "-X", f"lua_script:{script}", "-r", path, *shape, *options], text=True,
                               capture_output=True, timeout=60, env={**os.environ, "HOME": str(tmp_path)})
        assert shown.returncode == 0 and "Lua" not in shown.stderr, shown.stderr
        return [tuple(line.split("\t")) for line in shown.stdout.split("\n")[:-1]]

    return run


@pytest.fixture
def sim(velta_sim):
    """sim("-n", joints, options..., endpoint=...) starts a simulated controller, of 3 joints by default."""

    def start(*options, endpoint="tcp://127.0.0.1:0"):
        joints, options = (options[1], options[2:]) if options[:1] == ("-n",) else (3, options)
        return velta_sim(joints, endpoint, options=options)

    return start


class Listener:
    """A controller that accepts one host over TCP and says nothing by itself."""

    def __init__(self):
        self.listening = socket.create_server(("127.0.0.1", 0))
        self.listening.settimeout(PATIENCE)
        self.host = None

    @property
    def link(self):
        return "tcp://127.0.0.1:%d" % self.listening.getsockname()[1]

    def read(self, size):
        """The next bytes; fewer at the connection's end."""
        if self.host is None:
            self.host = self.listening.accept()[0]
            self.host.settimeout(PATIENCE)
        data = b""
        while len(data) < size and (more := self.host.recv(size - len(data))):
            data += more
        return data

    def send(self, data):
        self.host.sendall(data)

    def close(self):
        if self.host is not None:
            self.host.close()
        self.listening.close()


@pytest.fixture
def listener():
    with contextlib.closing(Listener()) as controller:
        yield controller


class Terminal:
    """A program in a terminal of its own, with its screen as a person sees it."""

    def __init__(self, *command, columns=120, lines=40):
        self.folder = tempfile.TemporaryDirectory()
        script = pathlib.Path(self.folder.name, "run")
        script.write_text('trap : INT\n"$@"\necho "EXIT $?"\nsleep 60\n')
        self._tmux("new-session", "-d", "-s", "t", "-x", columns, "-y", lines, "sh", script, *command)

    def _tmux(self, *arguments):
        command = ["tmux", "-S", f"{self.folder.name}/socket", "-f", "/dev/null", *map(str, arguments)]
        return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=PATIENCE,
                              env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout

    def press(self, *keys):
        """Characters, or tmux's names of keys."""
        self._tmux("send-keys", "-t", "t", *keys)

    def resize(self, columns, lines):
        self._tmux("resize-window", "-t", "t", "-x", columns, "-y", lines)

    def screen(self):
        return self._tmux("capture-pane", "-p", "-t", "t")

    def wait_for(self, condition):
        """Waits until the screen contains a text, or fulfils a condition; returns the screen."""
        fulfils = condition if callable(condition) else lambda screen: condition in screen
        shown = ""

        def look():
            nonlocal shown
            shown = self.screen()
            return fulfils(shown)

        try:
            wait_until(look)
        except AssertionError:
            raise AssertionError(f"the screen never showed {condition}:\n{shown}") from None
        return shown

    def close(self):
        self._tmux("kill-server")
        self.folder.cleanup()


@pytest.fixture
def terminal():
    """terminal("monitor", ...) runs velta in a terminal."""
    with contextlib.ExitStack() as terminals:
        yield lambda *arguments, **size: terminals.enter_context(contextlib.closing(Terminal(VELTA, *arguments, **size)))
