# SPDX-License-Identifier: MIT
"""What `velta check` finds in hand-made recordings."""

import json

import pytest
from frames import Recording, command, damaged, status

STAMP = 1_700_000_000_000_000_000


class Story:
    """A recording of 3 joints: a status every 10 ms, but for what a case makes of it. A case names frames by number."""

    def __init__(self, frames=100):
        self.at = {i: 0.01 * (i + 1) for i in range(frames)}
        self.values = {i: {} for i in range(frames)}
        self.extra = []  # (seconds, event, bytes)
        self.echoes = {}  # from this frame on: stamp

    def write(self, path):
        records, echo = list(self.extra), 0
        for i in sorted(self.at):
            echo = self.echoes.get(i, echo)
            records.append((self.at[i], 1, status(i, echo, 3, **self.values[i])))
        recording = Recording()
        recording.add(0, 2)
        for record in sorted(records, key=lambda record: record[0]):
            recording.add(*record)
        return recording.write(path)

    def send(self, seconds, raised=0, orders={0: (0xA2,)}):
        self.extra.append((seconds, 0, command(STAMP + raised, 3, orders)))


def moved(story, i, **values):
    for j in range(i, 100):
        story.values[j] = values


def gap(story):
    for i in range(41, 60):
        del story.at[i]


def jitter(story):
    for i in range(50, 100):
        story.at[i] += 0.0105


def several_in_one_read(story):
    for i in range(40, 42):
        story.at[i] = story.at[42]


def bad_frames(story):
    story.extra = [(0.5051, 1, damaged(status(0, 0, 3)) * 2), (0.6052, 0, damaged(command(STAMP, 3)))]


def garbage(story):
    story.extra = [(0.5051, 1, b"xyz")]


def resend(story):
    story.send(0.1)
    story.send(0.2, raised=1)
    story.send(0.3, raised=4)
    story.send(0.4, raised=5)
    story.echoes = {30: STAMP + 4, 40: STAMP + 5}


def unconfirmed(story):
    story.send(0.102)
    story.send(0.132, raised=10)
    story.echoes = {14: STAMP + 10}


def late_echo(story):
    story.send(0.102)
    story.send(0.142, raised=10)
    story.echoes = {15: STAMP, 16: STAMP + 10}


def overtaken(story):
    story.send(0.102)
    story.send(0.122, raised=10)
    story.echoes = {13: STAMP + 10}


def unconfirmed_last(story):
    story.send(0.95)


def new_connection(story):
    gap(story)
    moved(story, 60, positions={1: 9.0})
    story.extra = [(0.45, 3), (0.6, 2)]


def jump(story):
    moved(story, 50, positions={1: 0.25}, velocities={1: 10.0})


def fast_move(story):
    moved(story, 50, positions={1: 0.2}, velocities={1: 10.0})


def fault(story):
    moved(story, 50, modes={2: 3})
    story.values[70] = {}


CASES = {  # case -> (seconds, kind, joint) of what is found
    gap: [(0.41, "gap", None)],
    jitter: [(0.5205, "jitter", None)],
    several_in_one_read: [(0.43, "jitter", None)],
    bad_frames: [(0.5051, "bad_frame", None), (0.6052, "bad_frame", None)],
    garbage: [(0.51, "garbage", None)],
    resend: [(0.2, "resend", None), (0.3, "resend", None)],
    unconfirmed: [(0.102, "unconfirmed", None)],
    late_echo: [],
    overtaken: [],
    unconfirmed_last: [(0.95, "unconfirmed", None)],
    new_connection: [],
    jump: [(0.51, "jump", 1)],
    fast_move: [],
    fault: [(0.51, "fault", 2), (0.72, "fault", 2)],
}


def findings(run):
    lines = [json.loads(line) for line in run.stdout.splitlines()]
    found = [(line["time_s"], line["kind"], line.get("joint")) for line in lines[:-1]]
    assert sum(lines[-1]["findings"].values()) == len(found)
    return found


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.__name__)
def test_finds_with_time_and_joint(velta, tmp_path, case):
    story = Story()
    case(story)
    path = story.write(tmp_path / "run.vrec")
    run = velta("check", path, "--json", *(["--jitter", "50ms"] if case is fault else []))
    expected = [(pytest.approx(at), kind, joint) for at, kind, joint in CASES[case]]
    assert findings(run) == expected
    assert run.status == (1 if expected else 0)


def test_limits_come_from_a_file(velta, tmp_path):
    story = Story()
    moved(story, 20, velocities={0: -8.0, 1: 8.0, 2: 7.5})
    limits = tmp_path / "limits.json"
    limits.write_text('{"all": {"velocity": 7.25, "position": [-1, 1]}, "1": {"velocity": [-1, 8]}}')
    run = velta("check", story.write(tmp_path / "run.vrec"), "--limits", limits)
    assert run.status == 1
    assert run.stdout == ("    0.210000 s  limit        joint 0: velocity -8 is not within -7.25 to 7.25\n"
                          "    0.210000 s  limit        joint 2: velocity 7.5 is not within -7.25 to 7.25\n"
                          "checked 1.0 s: 100 status frames, 0 commands: 2 limit\n")
    for text, why in [('{"3": {}}', "'3' is no joint from 0 to 2, and not 'all'"), ("[]", "it is no JSON object"),
                      ('{"all": {"speed": 1}}', "a status has no 'speed'"),
                      ('{"all": {"velocity": [2, 1]}}',
                       "'velocity' needs a number from 0, or the least and the greatest value, not [2,1]")]:
        limits.write_text(text)
        run = velta("check", tmp_path / "run.vrec", "--limits", limits)
        assert (run.status, run.stdout, run.stderr) == (2, "", f"velta: {limits}: {why}\n")


def test_checks_what_is_asked_for(velta, tmp_path):
    story = Story()
    gap(story)
    path = story.write(tmp_path / "run.vrec")
    assert velta("check", path, "--to", "400ms").stdout == "checked 0.4 s: 40 status frames, 0 commands: nothing wrong\n"
    assert findings(velta("check", path, "--json", "--gap", "200ms", "--jitter", 0)) == []
    assert velta("check", path, "-n", 4).status == 1
