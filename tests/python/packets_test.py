# SPDX-License-Identifier: MIT
"""Packets, commands and the bare client against the wire format as frames.py has it."""

import math
import socket

import numpy as np
import pytest
import velta

import frames
from frames import STATUS_FIELDS, crc16, some_joints, status_of

A = 1.5
SETTERS = list(frames.command_table())
IDLE = (0, 0, 0, 0, 0)


def test_the_table_has_every_setter():
    own = {name for name, value in vars(velta.Command).items() if not name.startswith("_") and callable(value)}
    assert own == {words[0].replace("-", "_") for words, *_ in SETTERS}


@pytest.mark.parametrize("words, of_arm, code, values", SETTERS, ids=[" ".join(words) for words, *_ in SETTERS])
def test_setter_writes_code_and_values_of_the_named_joints_only(words, of_arm, code, values):
    name, *arguments = words[0].replace("-", "_"), *([] if of_arm else ["0/2"]), *(float(word) for word in words[1:])
    orders, arm = ({0: (0, *values)}, code) if of_arm else (dict.fromkeys((0, 2), (code, *values)), 0)
    expected = frames.command(77, 3, orders, arm)
    command, packet = velta.Command(3), velta.SendPacket(3)
    assert getattr(command, name)(*arguments) is command
    getattr(packet, "set_" + name)(*arguments)
    for each in (command, packet):
        each.set_time_stamp(77)
        assert bytes(each) == expected


@pytest.mark.parametrize("joints, named", [
    ("all", [0, 1, 2]), ("1", [1]), (2, [2]), ([0, 2], [0, 2]), ((1,), [1]), (range(2), [0, 1]),
    (np.array([2, 0]), [0, 2]), (np.int64(1), [1])])
def test_joints_are_named_in_many_ways(joints, named):
    command = velta.Command(3).servo_on(joints)
    assert [i for i in range(3) if command.joints["order"][i]] == named


def test_a_sequence_gives_each_joint_its_value():
    command = velta.Command(3).ref_position_velocity([2, 0], [7, 8], velocity=np.array([0.5, 1.5], "f4"))
    assert command.joints["value1"].tolist() == [8, 0, 7]
    assert command.joints["value2"].tolist() == [1.5, 0, 0.5]


@pytest.mark.parametrize("call", [
    *(("servo_on", joints) for joints in (-1, 3, [0, 3], "3", "0/x", "0/", "", [], "-1", " 1", 2**70)),
    *(("ref_position", 0, value) for value in ([1, 2], math.inf, 1e39, 10**400)),
    *(("control_mode", 0, value) for value in (1.5, math.nan, 2**24 + 1)),
    ("ref_position", [0, 1], [1.0]), ("ref_position", [0, 1], [1.0, math.nan]),
    ("trajectory_pt_lin_spline", 0, 1, 1, 2), ("payload", 1, 2, 3, math.nan)])
def test_what_names_nothing_is_refused_and_nothing_is_set(call):
    command, (name, *arguments) = velta.Command(3), call
    before = bytes(command)
    with pytest.raises(ValueError) as caught:
        getattr(command, name)(*arguments)
    assert isinstance(caught.value, velta.Error) and bytes(command) == before
    for wrong in ({}, {"joints": 1.5}, {"joints": "all", "speed": 1}, {"joints": True}):
        with pytest.raises(TypeError):
            command.servo_on(**wrong)


def test_the_bare_packet_skips_what_names_nothing_as_in_cpp():
    packet = velta.SendPacket(2)
    packet.set_servo_on("1/7/x")
    assert packet.joints["order"].tolist() == [0, 0xA2] and packet.parse_id_string("1/7/x") == [1]


@pytest.mark.parametrize("n", [1, 6, 828])
def test_a_status_is_read_field_by_field_without_a_copy(n):
    joints = some_joints(n if n < 100 else 2) + [{}] * (n - 2 if n >= 100 else 0)
    packet = velta.RecvPacket(n)
    assert packet.parse(status_of(2**63 + 1, 2**64 - 1, 0.5, joints))
    assert (packet.timestamp, packet.host_timestamp, packet.duration) == (2**63 + 1, 2**64 - 1, 0.5)
    for field in STATUS_FIELDS:
        view = getattr(packet, field)
        assert view.tolist() == [joint.get(field, 0) for joint in joints] == packet.joints[field].tolist()
        assert view.base is packet and not view.flags.writeable and not view.flags.owndata
    assert packet.general[1 % n].tolist() == [float(v) for v in joints[1 % n]["general"]]
    position = packet.position
    del packet
    assert position[0] == joints[0]["position"]  # the view keeps the packet
    with pytest.raises(ValueError):
        position[0] = 1


def test_the_parser_cuts_frames_and_drops_damaged_ones():
    frame = status_of(1, 2, 0, some_joints(2))
    damaged = frame[:-1] + bytes([frame[-1] ^ 1])
    parser = velta.PacketParser(2)
    for byte in b"garbage" + frame + damaged + frame:
        parser.push(bytes([byte]))
    assert [packet.timestamp for packet in parser.parse()] == [1, 1] and parser.buffer == b""


def test_coalescing_and_documents():
    first, second = velta.SendPacketBuffer(), velta.SendPacketBuffer()
    first.push_back(velta.Command(2).servo_on(0))
    second.push_back(velta.Command(2).servo_off(1))
    merged = velta.SendPacketMerger.get_merged_packet([first, second], 2)
    assert [packet.joints["order"].tolist() for packet in merged] == [[0xA2, 0xA1]] and first.empty()
    assert not velta.SendPacketMerger.merge_packet(merged[0], velta.Command(2).reset(0))
    newest = velta.UniqueSendPacketMap()
    newest.insert("key", merged[0])
    assert newest.get_not_sent_keys() == ["key"] and newest.get_send_packet("key").joint_num == 2
    with pytest.raises(ValueError):
        velta.command_from_json("no document", 2)
    document = ('{"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5","value2":"0",'
                '"value3":"0","value4":"0"}]}')
    assert velta.command_from_json(document, 2).joints["value1"].tolist() == [0, 0.5]
    assert '"position":"0.000000"' in velta.state_to_json(velta.RecvPacket(1))
    assert velta.calc_crc16(b"123456789") == 0xB4C8 == crc16(b"123456789")


def test_the_bare_client_speaks_the_wire():
    with socket.create_server(("127.0.0.1", 0)) as server:
        client = velta.MasterControllerClient(2)
        assert client.init_as_tcp_client("127.0.0.1", server.getsockname()[1])
        host, _ = server.accept()
        with host:
            command = velta.Command(2).ref_position(1, A)
            client.push_send_queue(command, True)
            client.send_packet_in_buffer()
            sent = frames.read_command(host.recv(1000))
            assert sent == (command.get_time_stamp(), 0, [IDLE, (0x11, A, 0, 0, 0)]) and command.get_confirm_received()
            host.sendall(status_of(9, sent[0], 0, some_joints(2)))
            while client.receive_status() == 0:
                pass
            (packet,) = client.get_cur_state_packet()
            assert (packet.timestamp, packet.host_timestamp) == (9, sent[0])
            assert client.get_statistics()["frames_received"] == 1
