# SPDX-License-Identifier: MIT
"""Recordings as lists of what passed."""

import struct

import frames

TO_CONTROLLER, TO_HOST, OPENED, CLOSED = range(4)
WALL = 17 * 10**17  # of the first record, ns


def record(event, seconds, data=b""):
    return seconds, event, data


def recording(path, joints, *passed, tail=b""):
    """Writes a file, with bytes after the last record; returns its path."""
    made = frames.Recording(joints)
    for each in passed:
        made.add(*each)
    made.bytes += tail
    return made.write(path)


def read(path):
    """The records as (event, monotonic ns, wall ns, data)."""
    data, found = path.read_bytes(), []
    at = 16 + struct.unpack_from("<H", data, 12)[0]
    for event, wall, content in frames.records(path)[2]:
        found.append((event, struct.unpack_from("<Q", data, at + 4)[0], wall, content))
        at += 22 + len(content)
    return found
