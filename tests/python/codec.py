# SPDX-License-Identifier: MIT
"""The wire's two frames, written with struct from the frames' description: nothing here calls the library."""

import struct
from typing import NamedTuple

from frames import sealed

MARK = b"\xab\xcd"
STATUS_FIELDS = (
    "type com_status system_mode ctrl_mode ew_status trj_status trj_via_remain ref_current ref_position ref_velocity "
    "ref_acceleration ref_effort current position velocity out_conv_in_velocity acceleration out_conv_in_acceleration "
    "effort temperature").split()
STATUS_JOINT = struct.Struct("<4BIBH13f4f")
COMMAND_JOINT = struct.Struct("<BB4f")


def command(stamp, joints, arm_order=0):
    """joints: (order, value1 to value4) each."""
    body = MARK + struct.pack("<QB", stamp, arm_order)
    return sealed(body + b"".join(COMMAND_JOINT.pack(i, *joint) for i, joint in enumerate(joints)))


class Command(NamedTuple):
    stamp: int
    arm_order: int
    joints: list


def read_command(frame):
    assert frame[:2] == MARK and sealed(frame[:-2]) == frame
    stamp, arm_order = struct.unpack_from("<QB", frame, 2)
    return Command(stamp, arm_order, [joint[1:] for joint in COMMAND_JOINT.iter_unpack(frame[11:-2])])


def status(time, host_time, duration, joints):
    """joints: a dict of STATUS_FIELDS each, `general` too; what is missing is 0."""
    body = MARK + struct.pack("<QQf", time, host_time, duration)
    for joint in joints:
        values = [joint.get(field, 0) for field in STATUS_FIELDS]
        body += STATUS_JOINT.pack(*values, *joint.get("general", (0, 0, 0, 0)))
    return sealed(body)


def some_joints(n):
    """Joints whose every field has a value of its own."""
    return [{**{field: 1 + i + 10 * k for k, field in enumerate(STATUS_FIELDS)}, "general": (i, i + 0.5, -i, 1e6)}
            for i in range(n)]
