# SPDX-License-Identifier: MIT
"""Drives a robot arm through its master controller, over TCP, UDP or a serial line.

    import velta

    with velta.connect("tcp://192.168.0.10:5000", joints=6) as arm:
        arm.send(velta.Command(6).servo_on("all"), confirm=True).wait(1.0)
        arm.send(velta.Command(6).ref_position([0, 2], 30.0))
        print(arm.latest().position)            # float32 array of 6, no copy
        for state in arm.states(timeout=1.0):   # every status
            ...

Links: tcp://HOST:PORT, udp://HOST:PORT, serial:///dev/ttyUSB0?baud=115200, and sim: for a simulated controller in this
process. Durations are seconds or timedelta. Time stamps are ints, ns since the Unix epoch. Values are in the controller's
own units. Every exception of velta's own is a velta.Error; lines of the log go to logging.getLogger("velta").

What there is:
    connect(link, joints)   a Session: runs the loop, reconnects, answers every command
    Command(joints)         a command, built with its named setters
    Ticket, Source          the answer to a command; an independent source of commands
    State, States           one status; many of them as arrays
    Event, EventKind        what a session reports
    read_recording(path)    a recording as arrays
    velta.testing           a pytest fixture that starts a simulated controller
    MasterControllerClient, MasterControllerClientMock, SendPacket, RecvPacket, PacketParser, SendPacketBuffer,
    SendPacketMerger, UniqueSendPacketMap: the bare steps, as in C++, with methods in snake_case
"""

from velta import _velta

_velta._check_interpreter()

from velta._errors import ArgumentError, ConnectError, DiscardedError, Error, RecordingError, TimeoutError
from velta._event import Event
from velta._session import Session, connect, read_recording
from velta._tables import Commands, RecordedEvent, Recording, States
from velta._velta import (
    Command,
    EventIterator,
    EventKind,
    MasterControllerClient,
    MasterControllerClientMock,
    Outcome,
    PacketParser,
    RecvPacket,
    SendPacket,
    SendPacketBuffer,
    SendPacketMerger,
    Source,
    State,
    StateIterator,
    Ticket,
    UniqueSendPacketMap,
    calc_crc16,
    command_from_json,
    ePacketArmOrder,
    ePacketOrder,
    get_now_time_stamp,
    state_to_json,
)

__version__: str = _velta.get_version()

__all__ = [
    "ArgumentError",
    "Command",
    "Commands",
    "ConnectError",
    "DiscardedError",
    "Error",
    "Event",
    "EventIterator",
    "EventKind",
    "MasterControllerClient",
    "MasterControllerClientMock",
    "Outcome",
    "PacketParser",
    "RecordedEvent",
    "Recording",
    "RecordingError",
    "RecvPacket",
    "SendPacket",
    "SendPacketBuffer",
    "SendPacketMerger",
    "Session",
    "Source",
    "State",
    "StateIterator",
    "States",
    "Ticket",
    "TimeoutError",
    "UniqueSendPacketMap",
    "calc_crc16",
    "command_from_json",
    "connect",
    "ePacketArmOrder",
    "ePacketOrder",
    "get_now_time_stamp",
    "read_recording",
    "state_to_json",
]
for _name in __all__:
    globals()[_name].__module__ = "velta"
