# SPDX-License-Identifier: MIT
"""Each example as a user runs it, against the simulated controller; those of a session also with one inside."""

import json

import pytest
from conftest import BUILD

SERVO_ON = ('{"armOrder":"0","jointCommand":[{"jointName":"3","jointOrder":"162","value1":"0","value2":"0","value3":"0",'
            '"value4":"0"}]}')


def positions(velta, link, joints):
    documents = velta("monitor", link, "-n", joints, "--json", "--count", 1).stdout
    return [float(joint["position"]) for joint in json.loads(documents)["jointState"]]


@pytest.mark.parametrize("command, endpoint, options, pose, output", [
    ("drive_arm --tcp @ -n 3", "tcp", "--fault drop-command=0.7", [10, -15, 20], "confirmations    6\n"),
    ("drive_arm --udp @ -n 7", "udp", "", [10, -15, 20, -25, 30, -35, 40], "confirmations    6\n"),
    ("drive_arm --serial @:115200 -n 2", "pty", "", [10, -15], "confirmations    6\n"),
    ("move_joint HOST PORT", "tcp", "", [0, 0, 30, 0, 0, 0], "joint 2 is at 30.00\n"),
    ("two_sources HOST PORT", "tcp", "", None,
     "different joints: 4 packets become 2 frames\na joint that both want: 4 packets become 4 frames\n"
     "200 set-points under one key: still 4 frames, and 1 that waits until they are gone\n"),
    ("confirmed_commands HOST PORT", "tcp", "--fault drop-command=0.7", [0] * 6, "home: confirmed\n"),
    ("status_thread HOST PORT", "tcp", "", [0] * 6, "60 commands fed, 0 left, statuses collected\n"),
    ("gripper_and_payload HOST PORT", "tcp", "", [0] * 6 + [12], "gripper at 12.00\npayload set\n"),
    ("simulator_swap HOST PORT", "tcp", "", [15] * 6, "arrived\n"),
    ("serial_line @ 115200", "pty", "", [0, 0], "the controller answers, joint 1 has servo on\n"),
])
def test_does_what_its_page_says(run, velta, sim, command, endpoint, options, pose, output):
    joints = 6 if pose is None else len(pose)
    link = sim("-n", joints, *options.split(), endpoint="pty:" if endpoint == "pty" else f"{endpoint}://127.0.0.1:0")
    host, _, port = link.address.rpartition(":")
    name, *arguments = command.replace("@", link.address).replace("HOST", host).replace("PORT", port).split()
    example = run(BUILD / "examples" / name, *arguments)
    assert example.status == 0, example.stdout + example.stderr
    assert output in example.stdout
    if pose is not None:
        assert positions(velta, link, joints) == pytest.approx(pose, abs=0.01)
    counts = link.stop()
    assert (counts["bad_crc"], counts["garbage_bytes"]) == (0, 0)


def test_json_bridge_confirms_documents_and_refuses_others(run, sim):
    example = run(BUILD / "examples/json_bridge", *sim("-n", 6).address.split(":"), input=f"{SERVO_ON}\nnonsense\n")
    assert (example.status, example.stderr) == (1, "json_bridge: not a command document: nonsense\n")
    third, fourth = (example.stdout.index(f'"joint_id":"{joint}"') for joint in (3, 4))
    assert '"systemMode":"2"' in example.stdout[third:fourth]


def test_reconnect_sends_nothing_old_over_the_new_link(run, velta, sim):
    deaf = sim("-n", 6, "--fault", "drop-command")  # confirms nothing, so commands stay queued
    example = run.start(BUILD / "examples/reconnect", *deaf.address.split(":"))
    example.line("connected, joint 0 is at 0.00")
    deaf.stop()
    example.line("link lost, 5 commands discarded")
    arm = sim("-n", 6, endpoint=deaf)
    assert example.wait().status == 0, example.stderr
    assert positions(velta, arm, 6)[0] == pytest.approx(20, abs=0.01)
    assert arm.stop()["commands"] in range(5, 10)  # only those of the new session; a busy machine has some sent again


@pytest.mark.parametrize("kind", ["sim:", "tcp", "udp"])
def test_sessions_move_stop_and_record(run, velta, sim, tmp_path, kind):
    arm = kind if kind == "sim:" else sim("-n", 6, endpoint=f"{kind}://127.0.0.1:0")
    move = run(BUILD / "examples/session_move", arm)
    assert (move.status, move.stdout, move.stderr) == (0, "joint 2 is at 30.00\n", "")
    stopped = run(BUILD / "examples/session_dead_man", arm)
    lines = stopped.stdout.splitlines()
    assert stopped.status == 0 and lines.index("event: dead-man") < lines.index("a command: discarded, dead-man")
    assert "joint 0 was stopped on its way" in lines and "after Rearm(): confirmed" in lines
    assert run(BUILD / "examples/session_flight_record", arm, tmp_path / "flight.vrec").status == 0
    assert len(velta("convert", tmp_path / "flight.vrec").stdout.splitlines()) > 100
