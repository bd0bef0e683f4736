#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The session stops the arm when its program hangs; nothing is sent until the program rearms it.

usage: dead_man.py [LINK [JOINTS]]        a simulated arm without a link
"""

import sys
import time

import velta


def report(event: velta.Event) -> None:
    if event.kind is not velta.EventKind.OVERRUN:  # a busy machine
        print(f"{event.kind.name.lower()}: {event.text}")


def main() -> None:
    link = sys.argv[1] if len(sys.argv) > 1 else "sim:"
    joints = int(sys.argv[2]) if len(sys.argv) > 2 else 6
    with velta.connect(link, joints, dead_man=0.2, on_event=report) as arm:
        arm.send(velta.Command(joints).servo_on("all"), confirm=True).wait(1.0)
        for _ in range(5):
            arm.keep_alive()  # the program is well
            arm.send(velta.Command(joints).ref_position("all", 1.0))
            time.sleep(0.1)
        time.sleep(0.5)  # it hangs
        try:
            arm.send(velta.Command(joints).ref_position("all", 2.0)).wait(1.0)
        except velta.DiscardedError as error:
            print(f"refused: {error}")
        arm.rearm()
        print("confirmed:", arm.send(velta.Command(joints).servo_off("all"), confirm=True).wait(1.0))


try:
    main()
except velta.Error as error:
    sys.exit(f"{sys.argv[0]}: {error}")
