#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Two independent parts of a program command the same arm from coroutines; a third one reports what happens.

usage: two_parts.py [LINK [JOINTS]]       a simulated arm without a link
"""

import asyncio
import sys

import velta


async def swing(part: velta.Source, joints: int, joint: int) -> None:
    """Its commands are sent in order; those of both parts share frames."""
    for position in (1.0, -1.0, 0.0):
        command = velta.Command(joints).ref_position(joint, position)
        await part.send(command, confirm=True)
        print(f"{part.name}: {position:+.1f} confirmed")


async def report(arm: velta.Session) -> None:
    async for event in arm.events():
        print(f"{event.kind.name.lower()}: {event.text}")
        if event.kind is velta.EventKind.DEAD_MAN:
            break


async def main() -> None:
    link = sys.argv[1] if len(sys.argv) > 1 else "sim:"
    joints = int(sys.argv[2]) if len(sys.argv) > 2 else 6
    with velta.connect(link, joints) as arm:
        reporter = asyncio.create_task(report(arm))
        await arm.send(velta.Command(joints).servo_on("all"), confirm=True)
        await asyncio.gather(swing(arm.source("base"), joints, 0), swing(arm.source("wrist"), joints, joints - 1))
        arm.stop_arm()  # what the dead-man would do
        await reporter


try:
    asyncio.run(main())
except velta.Error as error:
    sys.exit(f"{sys.argv[0]}: {error}")
