#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""What the Python module costs, as ratios within one run.

usage: PYTHONPATH=build/release/python bench/python_bench.py build/release/bench/python_baseline
"""

import json
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

import velta

JOINTS = 7
SECONDS = 3.0
STATUS = struct.Struct("<2sQQf" + "4BIBH17f" * JOINTS + "H")


def ns_per_call(call, calls=2000, rounds=50):
    """The best of several rounds."""
    best = 1e9
    for _ in range(rounds):
        start = time.perf_counter_ns()
        for _ in range(calls):
            call()
        best = min(best, (time.perf_counter_ns() - start) / calls)
        time.sleep(0.002)
    return best


def calls(baseline):
    with velta.connect("sim:", JOINTS, queue_size=1_000_000) as arm:
        state = ns_per_call(lambda: arm.latest().position)
        command = velta.Command(JOINTS)
        send = ns_per_call(lambda: arm.send(command))
    for name, ns, floor in (("latest().position", state, baseline["latest_ns"]), ("send(command)", send, baseline["send_ns"])):
        yield f"{name}: above C++", (ns - floor) / 1e3, 2.0, f"us ({ns:.0f} ns, C++ {floor:.0f} ns)"


def unpack(path):
    """What a script does without the module."""
    received, frames = [], []
    with open(path, "rb") as file:
        data = file.read()
    at = 16 + struct.unpack_from("<H", data, 12)[0]
    rest = b""
    while at < len(data):
        _, event, length, _, wall = struct.unpack_from("<BBHQQ", data, at)
        if event == 1:
            rest += data[at + 20:at + 20 + length]
            while len(rest) >= STATUS.size:
                frames.append(STATUS.unpack_from(rest))
                received.append(wall)
                rest = rest[STATUS.size:]
        at += length + 22
    return received, frames


def seconds(call, rounds=5):
    best = 1e9
    for _ in range(rounds):
        start = time.perf_counter()
        result = call()
        best = min(best, time.perf_counter() - start)
    return best, result


def arrays():
    file = tempfile.NamedTemporaryFile(suffix=".vrec")
    with velta.connect("sim:", JOINTS, period=1e-4, flight_recorder=SECONDS, status_buffer=20000) as arm:
        ratios = []
        while len(ratios) < 5:
            end = time.monotonic() + 10
            before = arm.statistics["frames_received"]
            while arm.statistics["frames_received"] < before + 1000 and time.monotonic() < end:
                time.sleep(0.01)
            start = time.perf_counter()
            states = arm.drain()
            took = time.perf_counter() - start
            copy, _ = seconds(lambda: (states.joints.copy(), states.received.copy()))
            ratios.append(took / copy)
        yield "drain: times a memcpy", statistics.median(ratios), 2.0, f"({len(states)} statuses at a time)"
        arm.write_flight_record(file.name)
    # The loop is over: nothing competes with what is measured.
    head = 16 + struct.unpack_from("<H", file.read(), 12)[0]
    file.seek(head)
    records = file.read()
    file.write(records * (20_000_000 // len(records)))
    file.flush()
    fast, recording = seconds(lambda: velta.read_recording(file.name))
    slow, (received, frames) = seconds(lambda: unpack(file.name), 2)
    assert recording.states.received.tolist() == received and len(frames) == len(recording.states)
    yield "read_recording: times faster than struct", slow / fast, -20.0, f"({len(frames)} statuses)"


def lateness(program):
    with velta.connect("sim:", JOINTS, on_state=lambda state: None) as arm:
        over = False

        def compute():
            while not over:
                pass

        thread = threading.Thread(target=compute)
        thread.start()
        time.sleep(SECONDS)
        ours = arm.statistics["lateness_us"]
        over = True
        thread.join()
    theirs = program()["statistics"]["lateness_us"]
    return ours["p99.9"], theirs["p99.9"]


def main():
    def program():
        return json.loads(subprocess.run([sys.argv[1], str(SECONDS), str(JOINTS)], stdout=subprocess.PIPE, check=True).stdout)

    rows = [*calls(program()), *arrays()]
    pairs = [lateness(program) for _ in range(5)]
    ours, theirs = (statistics.median(column) for column in zip(*pairs))
    rows.append(("loop's lateness p99.9, Python computing: times C++", ours / theirs, 1.2,
                 f"({ours:.0f} us, C++ {theirs:.0f} us)"))
    missed = 0
    for name, value, limit, note in rows:
        is_reached = value >= -limit if limit < 0 else value <= limit
        missed += not is_reached
        print(f"{name:52} {value:8.2f}  {'at least' if limit < 0 else 'at most'} {abs(limit):g}  "
              f"{'' if is_reached else 'MISSED '}{note}")
    return missed != 0


if __name__ == "__main__":
    sys.exit(main())
