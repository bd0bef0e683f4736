# SPDX-License-Identifier: MIT
"""Recordings as captures that tshark reads, and captures, hand-made ones too, as recordings."""

import struct

import pytest
from frames import CONTROLLER, HOST, Capture, command, recording, records, status

STAMP = 1_700_000_000_000_000_000
TO_CONTROLLER, TO_HOST = (HOST, CONTROLLER), (CONTROLLER, HOST)
PASSED = [(0, 2, b""), (0.001, 1, status(1, 0, 3)), (0.0021, 0, command(STAMP, 3)), (0.003000001, 1, status(2, STAMP, 3)[:99]),
          (0.0031, 1, status(2, STAMP, 3)[99:] + b"garbage"), (0.004, 3, b""), (1, 2, b""), (1.5, 1, status(3, 0, 3) * 200),
          (2, 3, b"")]


@pytest.mark.parametrize("link", ["tcp://192.168.1.5:5000", "tcp://127.0.0.1:5000", "udp://10.0.0.9:5000",
                                  "serial:///dev/ttyUSB0?baud=9600"])
def test_a_recording_survives_the_way_through_a_capture(velta, tmp_path, link):
    passed = PASSED
    if not link.startswith("tcp"):  # where nothing shows that a connection ends and another begins
        passed = [record for record in PASSED if record[1] < 2]
    first = recording(tmp_path / "run.vrec", 3, (0, 2), *passed[passed[0][1] == 2:], link=link)
    capture, back = tmp_path / "run.pcapng", tmp_path / "back.vrec"
    assert velta("convert", first, capture).status == 0
    run = velta("convert", capture, back, *(["--port", 5000] if "://1" in link else []))
    assert (run.status, run.stderr) == (0, "")
    found_link, joints, found = records(back)
    assert (found_link, joints) == (link if "serial" not in link else "serial:///dev/unknown", 3)
    _, _, expected = records(first)
    for direction in (0, 1):
        went, came = (b"".join(data for event, *_, data in each if event == direction) for each in (expected, found))
        assert came == went
    times = {data: wall for _, _, wall, data in expected if len(data) < 30000}
    assert all(times.get(data, wall) == wall for event, _, wall, data in found if event < 2)
    if link.startswith("tcp"):
        assert [event for event, *_ in found if event >= 2] == [2, 3, 2, 3]


@pytest.mark.parametrize("link, packets", [("tcp://192.168.1.5:45000", 16), ("udp://192.168.1.5:45000", 5),
                                           ("serial:///dev/ttyUSB0?baud=9600", 5)])
def test_tshark_reads_a_capture_and_finds_nothing_wrong(velta, tshark, tmp_path, link, packets):
    velta("convert", recording(tmp_path / "run.vrec", 3, *PASSED, link=link), tmp_path / "run.pcapng")
    checked = [word for layer in ("tcp", "udp", "ip") for word in ("-o", f"{layer}.check_checksum:TRUE")]
    shown = tshark(tmp_path / "run.pcapng", *checked, fields="velta.timestamp velta.timeStamp velta.round_trip "
                   "frame.time_epoch _ws.expert.message tcp.checksum.status udp.checksum.status ip.checksum.status")
    assert len(shown) == packets
    found = [row[:3] for row in shown if any(row[:3])]
    assert found[:3] == [("1", "", ""), ("", str(STAMP), "0.001000000"), ("2", "", "0.001000000")]
    assert sum(row[0].count("3") for row in found) == 200
    assert "1700000000.003000001" in [row[3] for row in shown]
    assert not [row[4] for row in shown if row[4].strip() and not row[4].startswith(("Connection ", "7 bytes outside"))]
    assert {status for row in shown for status in row[5:]} <= {"", "1"}  # good


def from_capture(velta, tmp_path, capture, *options):
    run = velta("convert", capture.write(tmp_path / "capture.pcap"), tmp_path / "run.vrec", *options)
    return run, records(tmp_path / "run.vrec") if run.status == 0 else None


PORT = ["--port", CONTROLLER]


def test_tcp_segments_are_put_in_order(velta, tmp_path):
    frames = b"".join(status(i, 0, 3) for i in range(6))
    capture = Capture()
    for at, (start, end) in enumerate([(0, 300), (600, 900), (650, 700), (300, 600), (200, 500), (900, 1566)]):
        capture.next[TO_HOST] = (2**32 - 500 + start) % 2**32  # the numbers wrap round
        capture.tcp(at, *TO_HOST, frames[start:end])
    capture.tcp(8, 1111, CONTROLLER, b"of another host")
    run, (link, joints, found) = from_capture(velta, tmp_path, capture, *PORT)
    assert b"".join(data for event, *_, data in found if event == 1) == frames
    assert [wall // 10**9 for event, _, wall, _ in found if event == 1] == [0, 3, 3, 5]
    assert run.stdout == (f"tcp://127.0.0.1:{CONTROLLER}, 3 joints: 1 connection, 0 bytes to the controller, 1566 bytes to the "
                          f"host in {tmp_path}/run.vrec\n")
    assert run.stderr == f"velta: {tmp_path}/capture.pcap: 1 packet of other hosts or controllers on this port left out\n"


def test_what_a_capture_lacks_is_told(velta, tmp_path):
    capture = Capture()
    for i in range(80):
        capture.tcp(i, *TO_HOST, status(i, 0, 3), lost=i == 5)
    run, (_, _, found) = from_capture(velta, tmp_path, capture, *PORT)
    assert sum(len(data) for *_, data in found) == 79 * 261
    assert 75 in {wall // 10**9 for *_, wall, _ in found}  # what comes long after the gap does not wait for the end
    assert run.stderr == f"velta: {tmp_path}/capture.pcap: 261 bytes missing in it\n"
    capture.bytes += struct.pack("<IIII", 99, 0, 60, 300) + capture.bytes[40:100]  # of 300 bytes
    assert "it has only the first bytes of 1 packet\n" in from_capture(velta, tmp_path, capture, *PORT)[0].stderr
    capture.bytes = capture.bytes[:-1]
    assert "nothing of port 99 is in it" in from_capture(velta, tmp_path, capture, "--port", 99)[0].stderr
    assert "ends in the middle of a packet" in from_capture(velta, tmp_path, capture, *PORT)[0].stderr


def test_udp_fragments_on_ethernet_are_put_together(velta, tmp_path):
    capture = Capture(link_type=1)
    for i in range(3):
        frame = status(i, 0, 20)
        datagram = struct.pack(">HHHH", *TO_HOST, 8 + len(frame), 0) + frame
        for offset, more in ((1480, 0), (0, 0x2000))[:: 1 if i else -1]:
            part = datagram[offset:offset + 1480]
            header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(part), i, more | offset // 8, 64, 17, 0, b"\x0a\0\0\1", b"\x0a\0\0\2")
            capture.packet(i, bytes(12) + b"\x81\0\0\7\x08\0" + header + part + bytes(20))  # a VLAN, and padding
    run, (link, joints, found) = from_capture(velta, tmp_path, capture, *PORT)
    assert (link, joints) == (f"udp://10.0.0.1:{CONTROLLER}", 20)
    assert [data for event, *_, data in found if event == 1] == [status(i, 0, 20) for i in range(3)]


def ip6(protocol, source, target, payload):
    """A packet between 2001:db8::1, the controller, and 2001:db8::2, in an Ethernet frame."""
    addresses = b"".join(b"\x20\x01\x0d\xb8" + bytes(11) + (b"\1" if end == CONTROLLER else b"\2") for end in (source, target))
    return bytes(12) + b"\x86\xdd" + struct.pack(">IHBB", 0x60000000, len(payload), protocol, 64) + addresses + payload


def test_ipv6_with_options_and_fragments(velta, tmp_path):
    capture = Capture(link_type=1)
    frames = [status(i, 0, 20) for i in range(3)]
    for i, frame in enumerate(frames):
        datagram = struct.pack(">HHHH", *TO_HOST, 8 + len(frame), 0) + frame
        for offset, end in ((0, 1208), (1208, len(datagram)))[:: -1 if i else 1]:
            extensions = b"\x3c\0\1\4\0\0\0\0" + b"\x2c\0\1\4\0\0\0\0"  # hop by hop, options of the target, fragment
            extensions += struct.pack(">BBHI", 17, 0, offset | (end < len(datagram)), i)
            capture.packet(i, ip6(0, *TO_HOST, extensions + datagram[offset:end]) + bytes(9))
    ask = command(STAMP, 20)
    capture.packet(3, ip6(17, *TO_CONTROLLER, struct.pack(">HHHH", *TO_CONTROLLER, 8 + len(ask), 0) + ask))
    run, (link, joints, found) = from_capture(velta, tmp_path, capture, *PORT)
    assert (run.stderr, link, joints) == ("", f"udp://[2001:db8::1]:{CONTROLLER}", 20)
    assert [data for event, *_, data in found if event < 2] == [*frames, ask]
    assert velta("convert", tmp_path / "run.vrec", tmp_path / "again.pcap", "-f", "pcapng").status == 0
    assert velta("convert", tmp_path / "again.pcap", tmp_path / "again.vrec", *PORT).status == 0
    link, _, again = records(tmp_path / "again.vrec")
    assert link == f"udp://192.0.2.1:{CONTROLLER}" and [data for event, *_, data in again if event < 2] == [*frames, ask]


@pytest.mark.parametrize("first", [0, 1])  # is a command, or a status
def test_a_host_may_use_the_port_of_its_controller(velta, tmp_path, first):
    capture = Capture()
    passed = [(0, command(STAMP, 3)), (1, status(1, 0, 3)), (0, b"x"), (1, b"y"), (1, status(2, STAMP, 3))]
    for at, (event, data) in enumerate(passed[first:]):
        datagram = struct.pack(">HHHH", CONTROLLER, CONTROLLER, 8 + len(data), 0) + data
        ends = (b"\x0a\0\0\2", b"\x0a\0\0\1")[:: -1 if event else 1]
        capture.packet(at, struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(datagram), 0, 0x4000, 64, 17, 0, *ends) + datagram)
    _, (link, _, found) = from_capture(velta, tmp_path, capture, *PORT)
    assert link == f"udp://10.0.0.1:{CONTROLLER}"
    assert [(event, data) for event, *_, data in found if event < 2] == passed[first:]
