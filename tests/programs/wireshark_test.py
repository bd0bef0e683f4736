# SPDX-License-Identifier: MIT
"""The dissector in tshark, on captures made of hand-made bytes."""

import pathlib
import re
import shutil
import subprocess

import pytest
from conftest import BUILD
from frames import CONTROLLER, HOST, Capture, command, damaged, status

TOP = pathlib.Path(__file__).parents[2]
STAMP = 1_700_000_000_000_000_000
TO_CONTROLLER, TO_HOST = (HOST, CONTROLLER), (CONTROLLER, HOST)
JOINTS = ["-o", "velta.joints:3"]
PORTS = ["-o", f"velta.ports:1000-1010,{CONTROLLER}"]


@pytest.fixture
def dissect(tshark, tmp_path):
    return lambda capture, *options, fields="": tshark(capture.write(tmp_path / "capture.pcap"), *options, fields=fields)


def test_says_in_words_what_frames_carry(dissect):
    capture = Capture()
    orders = {0: (0xA2,), 1: (0xA3, 20.0), 2: (0x4D, 1, 2.5, 3)}
    capture.tcp(0, *TO_CONTROLLER, command(STAMP, 3, orders) + command(STAMP + 100, 3, {0: (0, 7.0)}, arm=0xA0))
    capture.tcp(1, *TO_HOST, status(77, 5, 3, modes={1: 3}, errors={1: 12}, positions={2: 1.25}, trajectory=111))
    first, second = dissect(capture, fields="_ws.col.Info velta.timeStamp velta.joint.order velta.joint.value2 velta.timestamp "
                            "velta.joint.ewStatus velta.joint.position velta.joint.general_3 velta.joint.trjViaRemain")
    assert first[:4] == ("command servo-on 0, control-mode 1, trajectory-pvt (flag clear) 2; command payload",
                         f"{STAMP},{STAMP + 100}", "0xa2,0xa3,0x4d,0x00,0x00,0x00", "0,0,2.5,0,0,0")
    assert second[0] == "status mixed, fault in 1"
    assert second[4:] == ("77", "0x00000000,0x0000000c,0x00000000", "0,0,1.25", "16,16,16", "7,7,7")
    text = dissect(capture)
    for words in ("Joint 1: control-mode, mode position", "value2: 2.5 (velocity)", "armOrder: payload (0xa0)",
                  "Joint 1: FAULT, interrupted, position 0", "ctrlMode: position (20)"):
        assert any(words in line[0] for line in text), words


@pytest.mark.parametrize("joints", [1, 5, 6, 19, 84, 800])
def test_finds_the_joint_count(dissect, joints):  # a command of 5 joints is as long as a status of 1, one of 84 as one of 19
    for order in (1, -1):
        capture = Capture()
        packets = [(TO_HOST, status(1, STAMP, joints)), (TO_CONTROLLER, command(STAMP, joints, {0: (0xA0,)}))]
        for link, frame in packets[::order]:
            capture.tcp(0, *link, frame)
        shown = dissect(capture, fields="velta.joints velta.timestamp velta.timeStamp")
        assert shown[::order] == [(str(joints), "1", ""), (str(joints), "", str(STAMP))]


@pytest.mark.parametrize("options", [[], PORTS + JOINTS, ["-d", f"tcp.port=={HOST},velta"]])
@pytest.mark.parametrize("piece", [40, 261, 700])
def test_puts_frames_together_across_segments(dissect, piece, options):
    frames = b"".join(status(i, 0, 3) for i in range(8))
    capture = Capture()
    capture.tcp(0, *TO_CONTROLLER, command(STAMP, 3))
    for at in range(0, len(frames), piece):
        capture.tcp(at, *TO_HOST, frames[at:at + piece])
    size = len(frames) // 8
    completed = [",".join(str(i) for i in range(8) if at < (i + 1) * size <= at + piece) for at in range(0, 8 * size, piece)]
    assert [stamps for stamps, in dissect(capture, *options, fields="velta.timestamp")[1:]] == completed


def test_crc_covers_the_first_bytes_only_of_a_very_long_frame(dissect):
    frame = status(1, 0, 830)
    capture = Capture()
    capture.tcp(0, *TO_HOST, frame[:40000])
    capture.tcp(0, *TO_HOST, frame[40000:])
    assert dissect(capture, *PORTS, "-o", "velta.joints:830", fields="velta.crc.good")[1] == ("1",)


RESYNCHRONISATION = {  # what came -> stamps of the good frames, sizes of garbage, bad frames
    "garbage": ([b"abcde", 1, 2], "1,2", "5", 0),
    "bad CRC": ([1, damaged(status(2, 0, 3)), 3], "1,3", "", 1),
    "false mark": ([1, b"\xab\xcd" + b"x" * 50, 2, 3], "1,3", str(52), 1),
    "half a mark": ([1, b"\xab", 2], "1,2", "1", 0),
    "mark in two pieces": ([1, bytes(38), 2], "1,2", "38", 0),
}


@pytest.mark.parametrize("case", RESYNCHRONISATION)
@pytest.mark.parametrize("options", [PORTS + JOINTS, PORTS])
@pytest.mark.parametrize("link", ["tcp", "udp"])
def test_resynchronises_as_the_library_does(dissect, case, options, link):
    came, stamps, garbage, bad = RESYNCHRONISATION[case]
    came = b"".join(part if isinstance(part, bytes) else status(part, 0, 3) for part in came)
    capture = Capture()
    for at in range(0, len(came), 150):
        getattr(capture, link)(at, *TO_HOST, came[at:at + 150])
    getattr(capture, link)(9999, *TO_HOST, status(9, 0, 3))
    shown = dissect(capture, *options, fields="velta.timestamp velta.crc.good velta.garbage")
    good = [stamp for row in shown for stamp, is_good in zip(row[0].split(","), row[1].split(",")) if is_good == "1"]
    assert ",".join(good) == stamps + ",9"
    assert ",".join(str(len(row[2]) // 2) for row in shown if row[2]) == garbage
    assert sum(row[1].count("0") for row in shown) == bad


def test_needs_a_good_frame_to_claim_a_conversation(dissect):
    capture = Capture()
    capture.tcp(0, *TO_CONTROLLER, b"\xab\xcd" + bytes(100))
    capture.udp(1, *TO_HOST, damaged(status(1, 0, 3)))
    capture.udp(2, 40007, 40008, status(1, 0, 3))
    assert [row[0] for row in dissect(capture, fields="_ws.col.Protocol")] == ["TCP", "UDP", "Velta"]


def test_links_commands_and_first_echoes(dissect):
    capture = Capture()
    capture.tcp(1, *TO_CONTROLLER, command(STAMP, 3, {0: (0xA2,)}))
    capture.tcp(1.25, *TO_HOST, status(1, 0, 3))
    capture.tcp(1.5, *TO_HOST, status(2, STAMP, 3) + status(3, STAMP, 3))
    capture.tcp(2, *TO_CONTROLLER, command(STAMP + 9, 3, {0: (0xA2,)}))
    shown = dissect(capture, fields="velta.echoed_in velta.echo_of velta.round_trip")
    assert shown == [("3", "", "0.500000000"), ("", "", ""), ("", "1", "0.500000000"), ("", "", "")]


def test_notes_resends_and_what_else_is_wrong(dissect):
    capture = Capture()
    for at, (raised, orders) in enumerate([(0, {0: (0xA2,)}), (1, {0: (0xA2,)}), (4, {0: (0xA2,)}), (5, {0: (0xA2,)}),
                                           (2, {0: (0xA1,)})]):
        capture.tcp(at, *TO_CONTROLLER, command(STAMP + raised, 3, orders))
    capture.tcp(9, *TO_HOST, b"xyz" + damaged(status(1, 0, 3)) + status(1, 0, 3, errors={2: 1}) + status(2, 0, 3, modes={0: 3}))
    shown = dissect(capture, fields="velta.resend_of _ws.expert.message")
    assert [row[0] for row in shown] == ["", "1", "1", "", "", ""]
    assert shown[1][1] == "Command of packet 1 sent again, its stamp raised by 1"
    assert shown[5][1] == ("3 bytes outside frames,Bad CRC,Joint 2 reports a fault: servo on, ewStatus 0x00000001,"
                           "Joint 0 reports a fault: FAULT, ewStatus 0x00000000")


def test_name_tables_are_those_of_the_program(tmp_path):
    copy = shutil.copy(TOP / "wireshark/velta.lua", tmp_path)
    subprocess.run([TOP / "wireshark/update-names", BUILD / "wireshark/velta_wireshark_names", copy], check=True)
    tables = (TOP / "wireshark/velta.lua").read_text()
    assert pathlib.Path(copy).read_text() == tables, "build the target wireshark_names"
    states = re.findall(r"\| `(?:systemMode|ctrlMode|trjStatus)` \| (\d+) \| ([^|]+) \|", (TOP / "docs/codes.md").read_text())
    assert len(states) == tables.split("system_modes")[1].split("fault_modes")[0].count("] = ")
    assert all(f'[{code}] = "{word}",' in tables for code, word in states)
