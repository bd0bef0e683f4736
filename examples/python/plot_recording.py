#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Plots a recording, cell by cell, as in a notebook.

usage: plot_recording.py [FILE.vrec [PICTURE.png]]    without a file it records a simulated arm first
"""

# %% A recording: of `velta record`, or of a session's flight recorder, as here
import sys
import tempfile
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import velta


def record(path: str) -> None:
    with velta.connect("sim:", joints=3, flight_recorder=10) as arm:
        arm.send(velta.Command(3).servo_on("all"), confirm=True).wait(1.0)
        for target in (4.0, -2.0, 0.0):
            arm.send(velta.Command(3).ref_position("all", [target, target / 2, target / 4]))
            time.sleep(0.4)
        arm.write_flight_record(path)


file = sys.argv[1] if len(sys.argv) > 1 else tempfile.gettempdir() + "/plot_recording.vrec"
if len(sys.argv) < 2:
    try:
        record(file)
    except velta.Error as error:
        sys.exit(f"{sys.argv[0]}: {error}")

# %% All statuses and commands are arrays: no loop
try:
    recording = velta.read_recording(file)
except velta.Error as error:
    sys.exit(f"{sys.argv[0]}: {error}")
states, commands = recording.states, recording.commands
if len(states) == 0:
    sys.exit(f"{sys.argv[0]}: {file}: no status was recorded")
start = states.received[0]
seconds = (states.received - start) / 1e9
print(f"{len(states)} statuses and {len(commands)} commands of {recording.joint_num} joints in {seconds[-1]:.1f} s")

# %% Positions, and when commands passed
figure, (top, bottom) = plt.subplots(2, sharex=True, figsize=(9, 6))
for joint in range(recording.joint_num):
    top.plot(seconds, states["position"][:, joint], label=f"joint {joint}")
commanded = (commands["order"] != 0).any(axis=1)
for moment in (commands.sent[commanded] - start) / 1e9:
    top.axvline(moment, color="0.8", zorder=0)
top.set_ylabel("position")
top.legend(loc="upper right")

# %% How evenly the statuses came
bottom.plot(seconds[1:], np.diff(states.received) / 1e6, ".", markersize=2)
bottom.set_ylabel("ms between statuses")
bottom.set_xlabel("s")
picture = sys.argv[2] if len(sys.argv) > 2 else "recording.png"
figure.savefig(picture)
print(f"drawn in {picture}")
