# SPDX-License-Identifier: MIT
"""The wire format, recordings and captures of it, written down a second time: nothing here comes from the code under test."""

import functools
import pathlib
import re
import socket
import struct

HOST, CONTROLLER = 40000, 45000  # ports
TO_CONTROLLER, TO_HOST, OPENED, CLOSED = range(4)  # of a recording's records
WALL = 17 * 10**17  # of a recording's begin, ns


@functools.lru_cache
def crc16(data):  # of large frames it takes long, and tests repeat them
    crc = 0xFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0xA001 if crc & 1 else 0)
    return crc ^ 0xFFFF


def sealed(body):
    return body + struct.pack("<H", crc16(body[:len(body) & 0xFFFF]))  # its length has 16 bits


def command(stamp, joints, orders={}, arm=0):
    """orders: joint -> (code, value1 to value4 or fewer)"""
    body = b"\xab\xcd" + struct.pack("<QB", stamp, arm)
    for joint in range(joints):
        code, *values = orders.get(joint, (0,))
        body += struct.pack("<BB4f", joint & 255, code, *values, *[0.0] * (4 - len(values)))
    return sealed(body)


def read_command(frame):
    """The stamp, the arm's code, and (code, value1 to value4) of each joint."""
    assert frame[:2] == b"\xab\xcd" and sealed(frame[:-2]) == frame
    stamp, arm = struct.unpack_from("<QB", frame, 2)
    return stamp, arm, [joint[1:] for joint in struct.iter_unpack("<BB4f", frame[11:-2])]


STATUS_FIELDS = (
    "type com_status system_mode ctrl_mode ew_status trj_status trj_via_remain ref_current ref_position ref_velocity "
    "ref_acceleration ref_effort current position velocity out_conv_in_velocity acceleration out_conv_in_acceleration "
    "effort temperature").split()


def status_of(timestamp, echoed, duration, joints):
    """joints: a dict of STATUS_FIELDS each, `general` too; what is missing is 0."""
    body = b"\xab\xcd" + struct.pack("<QQf", timestamp, echoed, duration)
    for joint in joints:
        body += struct.pack("<4BIBH17f", *(joint.get(field, 0) for field in STATUS_FIELDS), *joint.get("general", (0, 0, 0, 0)))
    return sealed(body)


def status(timestamp, echoed, joints, modes={}, positions={}, errors={}, velocities={}, trajectory=0, control=20):
    """modes, positions, errors, velocities: joint -> value; mode 2 is servo on"""
    every = dict(zip(STATUS_FIELDS[7:], range(13)), com_status=1, ctrl_mode=control, trj_status=trajectory, trj_via_remain=7,
                 general=(13, 14, 15, 16))
    return status_of(timestamp, echoed, 0.5, [
        {**every, "system_mode": modes.get(joint, 2), "ew_status": errors.get(joint, 0), "position": positions.get(joint, 0),
         "velocity": velocities.get(joint, 7)} for joint in range(joints)])


def some_joints(n):
    """Joints whose every field has a value of its own."""
    return [{**{field: 1 + i + 10 * k for k, field in enumerate(STATUS_FIELDS)}, "general": (i, i + 0.5, -i, 1e6)}
            for i in range(n)]


def damaged(frame):
    return frame[:15] + bytes([frame[15] ^ 1]) + frame[16:]


def connect(link, **options):
    """A blocking socket, so that MSG_WAITALL holds, whose waits end after 30 s; options: SO_... of it"""
    end = socket.socket(type=socket.SOCK_DGRAM if link.startswith("udp:") else socket.SOCK_STREAM)
    end.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 30, 0))
    for option, value in options.items():
        end.setsockopt(socket.SOL_SOCKET, getattr(socket, option), value)
    host, port = link.split("://")[1].split(":")
    end.connect((host, int(port)))
    return end


class Capture:
    """A capture file, one packet after the other, of IP packets by default without a link layer."""

    def __init__(self, link_type=101):
        self.bytes = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 1 << 18, link_type)  # times in ns
        self.next = {}

    def packet(self, seconds, data):
        ns = round(seconds * 1e9)
        self.bytes += struct.pack("<IIII", ns // 10**9, ns % 10**9, len(data), len(data)) + data

    def _ip(self, seconds, protocol, data):
        header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(data), 0, 0x4000, 64, protocol, 0, b"\x7f\0\0\1", b"\x7f\0\0\1")
        self.packet(seconds, header + data)

    def tcp(self, seconds, source, target, data, lost=False):
        sequence = self.next.get((source, target), 1)
        self.next[source, target] = sequence + len(data)
        if lost:
            return
        acknowledged = self.next.get((target, source), 1)
        self._ip(seconds, 6, struct.pack(">HHIIBBHHH", source, target, sequence, acknowledged, 0x50, 0x18, 8192, 0, 0) + data)

    def udp(self, seconds, source, target, data):
        self._ip(seconds, 17, struct.pack(">HHHH", source, target, 8 + len(data), 0) + data)

    def write(self, path):
        path.write_bytes(self.bytes)
        return path


def recording(path, joints, *passed, link="tcp://127.0.0.1:5000", tail=b""):
    """Writes a file of what passed, (seconds, event, bytes) each, with bytes after the last record; returns its path."""
    data = sealed(struct.pack("<8sHHH", b"\x89VREC\r\n\x1a", 1, joints, len(link)) + link.encode())
    for seconds, event, *content in passed:
        content, ns = b"".join(content), round(seconds * 1e9)
        data += sealed(struct.pack("<BBHQQ", 0x52, event, len(content), 10**12 + ns, WALL + ns) + content)
    path.write_bytes(data + tail)
    return path


def passed(path):
    """The records as (event, monotonic ns, wall ns, bytes); none before the file stands."""
    return records(path)[2] if path.exists() and path.stat().st_size else []


def records(path):
    """A recording's link, joint count, and records; checks every CRC."""
    data = path.read_bytes()
    magic, version, joints, size = struct.unpack_from("<8sHHH", data)
    assert (magic, version) == (b"\x89VREC\r\n\x1a", 1)
    link, at, found = data[14:14 + size].decode(), 16 + size, []
    while at < len(data):
        if len(data) < at + 22 or len(data) < at + 22 + struct.unpack_from("<H", data, at + 2)[0]:
            break  # it is being written
        mark, event, length, monotonic, wall = struct.unpack_from("<BBHQQ", data, at)
        assert mark == 0x52 and sealed(data[at:at + 20 + length]) == data[at:at + 22 + length]
        found.append((event, monotonic, wall, data[at + 20:at + 20 + length]))
        at += 22 + length
    return link, joints, found


def command_table():
    """The commands of the table in docs/codes.md: (words to type, is it the arm's, code, values of the frame)."""
    text = pathlib.Path(__file__).parents[2].joinpath("docs/codes.md").read_text()
    for line in text.splitlines():
        if match := re.match(r"\| `([a-z0-9-]+)((?: [A-Z]+)*)` \| (arm )?0x(..)(?: / 0x(..))? \| ([^|]*)\|", line):
            word, names, arm, code, clear, values = match.groups()
            names = names.split()
            integers = ("MODE", "NUMBER", "FIRST", "SECOND")
            arguments = [str(i + (2 if name in integers else 2.5)) for i, name in enumerate(names)]
            flags = ["1", "0"] if "FLAG" in names else [None]
            for flag, shown in zip(flags, (code, clear)):
                typed = [flag if name == "FLAG" else argument for name, argument in zip(names, arguments)]
                given = dict(zip(names, typed))
                yield [word, *typed], bool(arm), int(shown, 16), [float(given.get(v, v)) for v in values.split()]
