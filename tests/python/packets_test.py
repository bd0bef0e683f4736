# SPDX-License-Identifier: MIT
"""Packets, commands and the bare client against an independent codec."""

import math
import socket

import numpy as np
import pytest
import velta

import codec
from frames import crc16

# Every named setter: the arguments that make value1 to value4, code and the values (A, B, C, D are the arguments).
A, B, C, D = 1.5, -2.25, 3.0, 0.125
SETTERS = {
    "reset": ((), 0xA0, ()), "servo_off": ((), 0xA1, ()), "servo_on": ((), 0xA2, ()), "brake_off": ((), 0xC0, ()),
    "brake_on": ((), 0xC1, ()), "control_mode": ((4,), 0xA3, (4,)), "position_control_mode": ((), 0xA3, (20,)),
    "velocity_control_mode": ((), 0xA3, (1,)), "current_control_mode": ((), 0xA3, (2,)),
    "external_force_following_control_mode": ((), 0xA3, (5,)), "trajectory_control_mode": ((), 0xA3, (0,)),
    "online_trajectory_control_mode": ((), 0xA3, (7,)), "rotation_fixed_control_mode": ((), 0xA3, (10,)),
    "get_slave_effort_offset": ((), 0xAB, ()), "param_kp": ((A,), 0xB0, (A,)), "param_ki": ((A,), 0xB1, (A,)),
    "param_kd": ((A,), 0xB2, (A,)), "param_windup_limit": ((A,), 0xB3, (A,)),
    "param_velocity_override": ((A,), 0xBA, (A,)), "param_velocity_max": ((A,), 0xBB, (A,)),
    "param_acceleration_max": ((A,), 0xBC, (A,)), "param_jerk_max": ((A,), 0xBD, (A,)),
    "param_ext_ff_on_traj_softness_override": ((A,), 0xBF, (80, A)), "arbitrary_param": ((9, B), 0xBF, (9, B)),
    "ref_current": ((A,), 0x10, (A,)), "ref_position": ((A,), 0x11, (A,)), "ref_velocity": ((A,), 0x12, (A,)),
    "ref_position_velocity": ((A, B), 0x1A, (A, B)),
    "ref_position_velocity_acceleration": ((A, B, C), 0x1B, (A, B, C)), "dynamics": ((A, B, C, D), 0x20, (A, B, C)),
    "trajectory_via_clear": ((), 0x30, ()), "trajectory_control_start": ((), 0x35, ()),
    "trajectory_control_cancel": ((), 0x36, ()), "trajectory_p_double_s": ((A,), 0x50, (A,)),
    "trajectory_pt_lin_spline": ((A, B), 0x3A, (A, B)), "trajectory_pt_trapezoidal": ((A, B), 0x3B, (A, B)),
    "trajectory_pt_double_s": ((A, B), 0x3C, (A, B)), "trajectory_pvt": ((A, B, C), 0x3D, (A, B, C)),
    "trajectory_pvat": ((A, B, C, D), 0x3E, (A, B, C, D)), "move_home_position": ((), 0xD0, ()),
    "general_register_type": ((3, 4), 0xE0, (3, 4)),
}
ARM_SETTERS = {"payload": (0xA0, 4), "payload_inertia_tensor_diagonal": (0xA1, 3),
               "payload_inertia_tensor_triangle": (0xA2, 3), "gripper_max_effort": (0xB0, 1)}
IDLE = (0, 0, 0, 0, 0)


def padded(values):
    return tuple(values) + (0,) * (4 - len(values))


def own_names(cls):
    return {name for name, value in vars(cls).items() if not name.startswith("_") and callable(value)}


def test_the_table_has_every_setter():
    assert own_names(velta.Command) == SETTERS.keys() | ARM_SETTERS.keys()


@pytest.mark.parametrize("name", SETTERS)
def test_setter_writes_code_and_values_of_the_named_joints_only(name):
    arguments, order, values = SETTERS[name]
    named = (order, *padded(values))
    for strict in (velta.Command(3), velta.SendPacket(3)):
        if isinstance(strict, velta.Command):
            assert getattr(strict, name)("0/2", *arguments) is strict
        else:
            flag = [True] if name.startswith(("trajectory_pt", "trajectory_pv")) else []
            getattr(strict, "set_" + name)("0/2", *arguments, *flag)
        strict.set_time_stamp(77)
        assert bytes(strict) == codec.command(77, [named, IDLE, named])
    if 0x3A <= order <= 0x3E:
        clear = getattr(velta.Command(1), name)(0, *arguments, flag=False)
        assert clear.joints["order"][0] == order + 0x10


@pytest.mark.parametrize("name", ARM_SETTERS)
def test_arm_setter_fills_header_and_first_joint(name):
    code, count = ARM_SETTERS[name]
    command = getattr(velta.Command(2), name)(*(A, B, C, D)[:count])
    command.set_time_stamp(5)
    assert bytes(command) == codec.command(5, [(0, *padded((A, B, C, D)[:count])), IDLE], code)


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


@pytest.mark.parametrize("n", [1, 6, 828])
def test_a_status_is_read_field_by_field_without_a_copy(n):
    joints = codec.some_joints(n if n < 100 else 2) + [{}] * (n - 2 if n >= 100 else 0)
    packet = velta.RecvPacket(n)
    assert packet.parse(codec.status(2**63 + 1, 2**64 - 1, 0.5, joints))
    assert (packet.timestamp, packet.host_timestamp, packet.duration) == (2**63 + 1, 2**64 - 1, 0.5)
    for field in codec.STATUS_FIELDS:
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
    frame = codec.status(1, 2, 0, codec.some_joints(2))
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
            sent = codec.read_command(host.recv(1000))
            assert sent == (command.get_time_stamp(), 0, [IDLE, (0x11, A, 0, 0, 0)]) and command.get_confirm_received()
            host.sendall(codec.status(9, sent.stamp, 0, codec.some_joints(2)))
            while client.receive_status() == 0:
                pass
            (packet,) = client.get_cur_state_packet()
            assert (packet.timestamp, packet.host_timestamp) == (9, sent.stamp)
            assert client.get_statistics()["frames_received"] == 1
