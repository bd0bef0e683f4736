# SPDX-License-Identifier: MIT
"""What a process keeps and how it ends. VELTA_CONNECTS and VELTA_INTERPRETERS make it longer, for a proof."""

import gc
import os
import pathlib
import random
import signal
import subprocess
import sys

import pytest
import velta

PATIENCE = 60
CONNECTS = int(os.environ.get("VELTA_CONNECTS", 300))
INTERPRETERS = int(os.environ.get("VELTA_INTERPRETERS", 20))


def footprint():
    gc.collect()
    pages = int(pathlib.Path("/proc/self/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGESIZE"), len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))


def use(link):
    with velta.connect(link, joints=2, silence=PATIENCE, on_event=lambda event: None) as arm:
        arm.send(velta.Command(2).servo_on("all"), confirm=True).wait(PATIENCE)
        states = arm.states(PATIENCE)
        kept = [next(states).position for _ in range(2)], arm.drain(), arm.latest().joints
    del arm, states, kept


@pytest.mark.parametrize("link", ["tcp://127.0.0.1:0", "sim:"])
def test_sessions_leave_nothing_behind(velta_sim, link):
    simulator = velta_sim(joints=2, link=link)
    connects = CONNECTS if link != "sim:" else CONNECTS // 10
    for _ in range(50):
        use(simulator)
    memory, descriptors, threads = footprint()
    for _ in range(connects):
        use(simulator)
    more_memory, *rest = footprint()
    assert rest == [descriptors, threads]
    assert more_memory - memory < 2**20 + 500 * connects  # a status that leaks is over 1,000 bytes


PROGRAM = """
import asyncio, atexit, logging, os, random, signal, sys, threading, time
def connect_too_late():  # registered before the module is there, so called after the module has ended
    try:
        velta.connect("sim:", 2, timeout=0)
    except velta.Error:
        return
    os._exit(99)
atexit.register(connect_too_late)
import velta
logging.basicConfig(level=logging.CRITICAL)
seed, link = int(sys.argv[1]), sys.argv[2]
random.seed(seed)
arm = velta.connect(link, 2, timeout=60, dead_man=0.02, on_state=lambda state: state.position.sum(), on_event=lambda event: 1 / 0)
arm.keep_alive()
mock = velta.MasterControllerClientMock(2)
def loop():
    while True:
        for wait in (lambda: next(arm.states()), lambda: arm.send(velta.Command(2), confirm=True).wait(),
                     lambda: mock.receive_status(), arm.drain, arm.rearm, lambda: velta.connect("sim:", 2, timeout=0)):
            try:
                wait()
            except Exception:
                pass
for _ in range(3):
    threading.Thread(target=loop, daemon=True).start()
async def wait():
    async for event in arm.events():
        pass
threading.Thread(target=lambda: asyncio.run(wait()), daemon=True).start()
end = random.choice(["return", "exit", "raise", "signal", "kill", "_exit", "delete"])
print(end, flush=True)
time.sleep(random.random() * 0.3)
if end == "exit":
    sys.exit(3)
if end == "raise":
    raise RuntimeError("of the test")
if end == "signal":
    signal.raise_signal(signal.SIGINT)
if end == "kill":
    os.kill(os.getpid(), signal.SIGTERM)
if end == "_exit":
    os._exit(0)
if end == "delete":
    del arm
"""


def test_interpreters_end_at_any_moment(velta_sim, tmp_path):
    simulator = velta_sim(joints=2)
    program = tmp_path / "program.py"
    program.write_text(PROGRAM)
    expected = {"return": 0, "exit": 3, "raise": 1, "signal": -signal.SIGINT, "kill": -signal.SIGTERM, "_exit": 0,
                "delete": 0}
    running = []
    for seed in range(INTERPRETERS):
        link = random.choice(["sim:", simulator])
        running.append((seed, subprocess.Popen([sys.executable, "-B", program, str(seed), link], text=True,
                                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)))
        if len(running) < 3 and seed < INTERPRETERS - 1:
            continue
        while running:
            seed, process = running.pop()
            try:
                output, errors = process.communicate(timeout=PATIENCE)
            except subprocess.TimeoutExpired:
                process.kill()
                raise AssertionError(f"interpreter {seed} hangs: {process.communicate()}") from None
            assert process.returncode == expected[output.strip()], f"{seed}: {output}{errors}"


def test_a_subinterpreter_is_refused():
    interpreters = pytest.importorskip("_xxsubinterpreters")
    other = interpreters.create()
    with pytest.raises(interpreters.RunFailedError, match="main interpreter"):
        interpreters.run_string(other, f"import sys; sys.path[:] = {sys.path!r}; import velta")
    interpreters.destroy(other)
