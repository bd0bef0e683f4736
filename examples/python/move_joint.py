#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Moves one joint and watches it arrive.

usage: move_joint.py [LINK [JOINTS]]      a simulated arm without a link
"""

import sys

import velta


def main() -> None:
    link = sys.argv[1] if len(sys.argv) > 1 else "sim:"
    joints = int(sys.argv[2]) if len(sys.argv) > 2 else 6
    with velta.connect(link, joints) as arm:
        arm.send(velta.Command(joints).servo_on("all"), confirm=True).wait(1.0)
        arm.send(velta.Command(joints).position_control_mode(0), confirm=True).wait(1.0)
        arm.send(velta.Command(joints).ref_position(0, 2.0))
        for state in arm.states(timeout=1.0):
            if state.position[0] >= 1.99:
                break
        print(f"joint 0 is at {state.position[0]:.2f}, {state.received / 1e9:.3f} s since the epoch")


try:
    main()
except velta.Error as error:
    sys.exit(f"{sys.argv[0]}: {error}")
