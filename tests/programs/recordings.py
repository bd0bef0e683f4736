# SPDX-License-Identifier: MIT
"""Recordings, written and read a second time: nothing here comes from the code under test."""

import struct

from frames import crc16

TO_CONTROLLER, TO_HOST, OPENED, CLOSED = range(4)
MONOTONIC, WALL = 5_000_000_000_000, 1_700_000_000_000_000_000  # of the first record, ns


def _block(body):
    return body + struct.pack("<H", crc16(body))


def record(event, seconds, data=b""):
    ns = round(seconds * 1e9)
    return _block(struct.pack("<cBHQQ", b"R", event, len(data), MONOTONIC + ns, WALL + ns) + data)


def recording(path, joints, *records, link=b"tcp://127.0.0.1:1", tail=b""):
    """Writes a file; returns its path."""
    header = b"\x89VREC\r\n\x1a" + struct.pack("<HHH", 1, joints, len(link)) + link
    path.write_bytes(_block(header) + b"".join(records) + tail)
    return path


def read(path):
    """The records as (event, monotonic ns, wall ns, data), after a look at every checksum."""
    data = path.read_bytes()
    size = 14 + struct.unpack_from("<H", data, 12)[0]
    assert data[:size + 2] == _block(data[:size])
    records, at = [], size + 2
    while at < len(data):
        mark, event, length, monotonic, wall = struct.unpack_from("<cBHQQ", data, at)
        assert mark == b"R" and data[at:at + 22 + length] == _block(data[at:at + 20 + length])
        records.append((event, monotonic, wall, data[at + 20:at + 20 + length]))
        at += 22 + length
    return records
