# SPDX-License-Identifier: MIT
"""What `velta check` finds in hand-made recordings."""

import json

import pytest
from frames import CLOSED, OPENED, TO_CONTROLLER, TO_HOST, command, damaged, recording, status

STAMP = 1_700_000_000_000_000_000


def story(path, missing=(), late=lambda i: 0, values=lambda i: {}, echoes={}, sent=(), extra=()):
    """A recording of 3 joints: 100 statuses, one every 10 ms, but for what a case makes of them by their numbers.

    echoes: stamps, each from a frame on; sent: (seconds, how much its stamp is raised) of commands"""
    passed, echo = [(0, OPENED), *extra], 0
    passed += [(at, TO_CONTROLLER, command(STAMP + raised, 3, {0: (0xA2,)})) for at, raised in sent]
    for i in range(100):
        echo = echoes.get(i, echo)
        if i not in missing:
            passed.append((0.01 * (i + 1) + late(i), TO_HOST, status(i, echo, 3, **values(i))))
    return recording(path / "run.vrec", 3, *sorted(passed, key=lambda record: record[0]))


def since(first, **values):
    return lambda i: values if i >= first else {}


CASES = {  # what is special, and (seconds, kind, joint) of what is found
    "gap": (dict(missing=range(41, 60)), [(0.41, "gap", None)]),
    "jitter": (dict(late=lambda i: 0.0105 * (i >= 50)), [(0.5205, "jitter", None)]),
    "bad frames": (dict(extra=[(0.5051, TO_HOST, damaged(status(0, 0, 3)) * 2), (0.6052, TO_CONTROLLER, damaged(command(STAMP, 3)))]),
                   [(0.5051, "bad_frame", None), (0.6052, "bad_frame", None)]),
    "garbage": (dict(extra=[(0.5051, TO_HOST, b"xyz")]), [(0.51, "garbage", None)]),
    "resend": (dict(sent=[(0.1, 0), (0.2, 1), (0.3, 4), (0.4, 5)], echoes={30: STAMP + 4, 40: STAMP + 5}),
               [(0.2, "resend", None), (0.3, "resend", None)]),
    "unconfirmed": (dict(sent=[(0.102, 0), (0.132, 10)], echoes={14: STAMP + 10}), [(0.102, "unconfirmed", None)]),
    "late echo": (dict(sent=[(0.102, 0), (0.142, 10)], echoes={15: STAMP, 16: STAMP + 10}), []),
    "unconfirmed last": (dict(sent=[(0.95, 0)]), [(0.95, "unconfirmed", None)]),
    "new connection": (dict(missing=range(41, 60), values=since(60, positions={1: 9.0}), extra=[(0.45, CLOSED), (0.6, OPENED)]), []),
    "jump": (dict(values=since(50, positions={1: 0.25}, velocities={1: 10.0})), [(0.51, "jump", 1)]),
    "fast move": (dict(values=since(50, positions={1: 0.2}, velocities={1: 10.0})), []),
    "fault": (dict(values=lambda i: {"modes": {2: 3}} if 50 <= i < 70 else {"errors": {2: 4}} if i > 70 else {}), [(0.51, "fault", 2), (0.72, "fault", 2)]),
}


def findings(run):
    lines = [json.loads(line) for line in run.stdout.splitlines()]
    found = [(line["time_s"], line["kind"], line.get("joint")) for line in lines[:-1]]
    assert sum(lines[-1]["findings"].values()) == len(found)
    return found


@pytest.mark.parametrize("case", CASES)
def test_finds_with_time_and_joint(velta, tmp_path, case):
    special, expected = CASES[case]
    run = velta("check", story(tmp_path, **special), "--json", *(["--jitter", "50ms"] if case == "fault" else []))
    expected = [(pytest.approx(at), kind, joint) for at, kind, joint in expected]
    assert findings(run) == expected
    assert run.status == (1 if expected else 0)


def test_limits_come_from_a_file(velta, tmp_path):
    path = story(tmp_path, values=since(20, velocities={0: -8.0, 1: 8.0, 2: 7.5}))
    limits = tmp_path / "limits.json"
    limits.write_text('{"all": {"velocity": 7.25, "position": [-1, 1]}, "1": {"velocity": [-1, 8]}}')
    run = velta("check", path, "--limits", limits)
    assert run.status == 1
    assert run.stdout == ("    0.210000 s  limit        joint 0: velocity -8 is not within -7.25 to 7.25\n"
                          "    0.210000 s  limit        joint 2: velocity 7.5 is not within -7.25 to 7.25\n"
                          "checked 1.0 s: 100 status frames, 0 commands: 2 limit\n")
    for text, why in [('{"3": {}}', "'3' is no joint from 0 to 2, and not 'all'"), ("[]", "it is no JSON object"),
                      ('{"all": {"speed": 1}}', "a status has no 'speed'"),
                      ('{"all": {"velocity": [2, 1]}}',
                       "'velocity' needs a number from 0, or the least and the greatest value, not [2,1]")]:
        limits.write_text(text)
        run = velta("check", path, "--limits", limits)
        assert (run.status, run.stdout, run.stderr) == (2, "", f"velta: {limits}: {why}\n")


def test_checks_what_is_asked_for(velta, tmp_path):
    path = story(tmp_path, missing=range(41, 60))
    assert velta("check", path, "--to", "400ms").stdout == "checked 0.4 s: 40 status frames, 0 commands: nothing wrong\n"
    assert findings(velta("check", path, "--json", "--gap", "200ms", "--jitter", 0)) == []
    assert velta("check", path, "-n", 4).status == 1
