# SPDX-License-Identifier: MIT
"""For tests of programs that drive an arm: a pytest fixture that starts simulated controllers.

    from velta.testing import velta_sim   # or, in conftest.py: pytest_plugins = ["velta.testing"]

    def test_my_program(velta_sim):
        link = velta_sim(joints=6, faults=["drop-status=0.1", "late-echo=1:30"])
        with velta.connect(link, joints=6) as arm:
            ...
"""

from __future__ import annotations

import json
import os
import queue
import shutil
import signal
import subprocess
import threading
from typing import Any, Callable, Iterable, Iterator, Optional, Sequence

import pytest

PATIENCE = 30.0  # s: far more than a controller takes to start or to end, also on a busy machine


def find_program() -> str:
    """The velta program: the environment's VELTA_PROGRAM, else from the path."""
    program = os.environ.get("VELTA_PROGRAM") or shutil.which("velta")
    if program is None:
        raise FileNotFoundError("there is no velta program in the path; install velta-tools or set VELTA_PROGRAM")
    return program


def _next(lines: queue.Queue[str], event: str) -> dict[str, Any]:
    """The next document of that kind; an empty one if the program ends first."""
    while True:
        try:
            document: dict[str, Any] = json.loads(lines.get(timeout=PATIENCE))
        except (queue.Empty, ValueError):
            return {}
        if document.get("event") == event:
            return document


class Simulator(str):
    """The link of a simulated controller: a str that velta.connect() takes."""

    joints: int
    process: Optional[subprocess.Popen[str]] = None
    control: Optional[str] = None
    """where it takes faults while it runs, if options has --control"""
    _lines: queue.Queue[str]
    _summary: Optional[dict[str, Any]] = None

    @property
    def address(self) -> str:
        """HOST:PORT, or the device's path."""
        return self.partition("://")[2]

    def kill(self) -> None:
        """Ends the controller as a crash would."""
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def stop(self) -> dict[str, Any]:
        """Ends the controller; returns its counts, such as "commands" and "executed" (none for an in-process one)."""
        if self._summary is None:
            self._summary = {} if self.process is None else self._end(self.process)
        return self._summary

    def _end(self, process: subprocess.Popen[str]) -> dict[str, Any]:
        process.send_signal(signal.SIGINT)
        try:
            process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
        return _next(self._lines, "summary")


def start_simulator(joints: int = 3, link: str = "tcp://127.0.0.1:0", faults: Iterable[str] = (),
                    options: Sequence[object] = ()) -> Simulator:
    """Starts a simulated controller and returns its link when it listens; stop() ends it.

    joints   joints of the arm (n)
    link     "sim:" for one in this process; else where `velta sim` listens: tcp://, udp:// (port 0: any) or pty:
    faults   what goes wrong, each as `velta sim --fault` takes it, such as "corrupt=0.01"; not with sim:
    options  further arguments of `velta sim`, such as ("--on-command",)
    """
    faults = list(faults)
    if link.startswith("sim:"):
        if faults or options:
            raise ValueError("the simulator in the process has no faults and no options; use tcp://, udp:// or pty:")
        inside = Simulator(link)
        inside.joints = joints
        return inside
    command = [find_program(), "sim", "-n", str(joints), link, "--json", *map(str, options)]
    for fault in faults:
        command += ["--fault", fault]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    lines: queue.Queue[str] = queue.Queue()

    def read() -> None:
        assert process.stdout is not None
        for line in process.stdout:
            lines.put(line)
        lines.put("")

    threading.Thread(target=read, daemon=True).start()
    listening = _next(lines, "listening")
    control = _next(lines, "control") if "--control" in options else {"endpoint": None}
    if not listening or not control:
        process.kill()
        raise RuntimeError(f"{' '.join(command)}: {process.communicate()[1].strip()}")
    started = Simulator(listening["link"])
    started.joints, started.process, started.control, started._lines = joints, process, control["endpoint"], lines
    return started


@pytest.fixture
def velta_sim() -> Iterator[Callable[..., Simulator]]:
    """velta_sim(joints=3, link="tcp://127.0.0.1:0", faults=(), options=()): see start_simulator. All end with the test."""
    started: list[Simulator] = []

    def start(*args: Any, **kwargs: Any) -> Simulator:
        started.append(start_simulator(*args, **kwargs))
        return started[-1]

    yield start
    for simulator in started:
        simulator.stop()
