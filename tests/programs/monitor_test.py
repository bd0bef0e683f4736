# SPDX-License-Identifier: MIT
import json
import pathlib
import re

import frames
import pytest
from conftest import wait_until


def send(velta, link, *words):
    assert velta("send", link, "-n", 3, "--confirm", "--timeout", "10s", *words).status == 0


def test_screen_shows_the_arm_and_obeys_keys_and_resizing(velta, sim, terminal):
    link = sim()
    fault = ('{"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"255","value1":"12","value2":"0",'
             '"value3":"0","value4":"0"}]}')
    send(velta, link, "servo-on", "--select", "0/2")
    send(velta, link, "--document", fault)
    shown = terminal("monitor", "-n", 3, link, lines=24)
    screen = shown.wait_for("0x0000000c")
    for row in (f"{link}  3 joints", " Hz  age ", "position of joint 0", ">0 .*servo on  trajectory          ok         idle",
                " 1!.*FAULT  trajectory  0x0000000c         idle"):
        assert re.search(row, screen), screen
    send(velta, link, "position-control-mode", "--select", 2)
    send(velta, link, "ref-position", 42, "--select", 2)
    shown.wait_for(lambda screen: re.search(r"42\.0000\*.*position\*", screen))
    shown.wait_for(lambda screen: "42.0000*" not in screen)  # the mark fades
    shown.press("Down", "Down", "Down")  # stays on the last
    shown.wait_for(lambda screen: ">2 " in screen and "position of joint 2" in screen and "0.0000 to 42.0000" in screen)
    shown.press("2")
    shown.wait_for(lambda screen: "velocity" not in screen)
    shown.press("p")
    shown.wait_for("PAUSED")
    send(velta, link, "ref-position", 43, "--select", 2)
    shown.press("Up")
    assert "43.0000" not in shown.wait_for("position of joint 1")
    shown.press("p")
    shown.wait_for("43.0000")
    shown.resize(64, 12)  # the least important columns give way
    shown.wait_for(lambda screen: "temp" not in screen and re.search("joint .*status   trajectory", screen))
    shown.resize(10, 2)
    shown.resize(120, 24)
    shown.wait_for("trajectory")
    link.stop()
    screen = shown.wait_for("trying again")
    assert f"{link}: " in screen and "43.0000" in screen  # the last status stays in sight
    sim(endpoint=link)
    shown.wait_for(lambda screen: "reconnections 1 " in screen and " Hz  age " in screen)
    shown.press("C-c")
    screen = shown.wait_for("EXIT 0")
    assert "watched for " in screen and "q quit" not in screen


@pytest.mark.parametrize("endpoint", ["tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"])
def test_lines_come_from_a_controller_that_only_answers(velta, sim, endpoint):
    monitor = velta.start("monitor", "-n", 3, sim("--on-command", endpoint=endpoint), "--poll", "20ms")
    assert monitor.line().endswith(" | J0 0.0000 servo off | J1 0.0000 servo off | J2 0.0000 servo off")
    # One question in 20 ms, neither in 100 ms nor all the time; a busy machine may bring some lines' answers in a burst.
    wait_until(lambda: 11 < float(monitor.line().split(" Hz")[0]) < 51, "a rate of one question in 20 ms")
    assert monitor.stop().status == 0


@pytest.mark.parametrize("silent, asked, options", [
    (True, False, ["--poll", "0", "--for", "300ms"]),
    (True, True, ["--poll", "10ms", "--count", 5]),
    (False, False, ["--poll", "500ms", "--count", 700]),
])
def test_asks_only_a_silent_controller_and_never_without_a_poll(velta, sim, silent, asked, options):
    link = sim(*["--on-command"] * silent)
    run = velta("monitor", "-n", 3, link, "--json", *options)
    assert run.status == (silent and not asked)
    statistics = json.loads(run.stderr.splitlines()[-1])
    assert 5 * asked <= link.stop()["commands"] <= statistics["frames_sent"] <= 1000 * asked
    assert f"statuses {statistics['frames_received']} " in run.stderr or silent and not asked
    assert statistics["bytes_received"] == 261 * statistics["frames_received"]


def test_ends_when_the_link_is_lost(velta, sim):
    link = sim("--fault", "close=50")
    run = velta("monitor", "-n", 3, link)
    assert (run.status, run.stderr) == (1, f"velta: {link}: the other end closed the link\n")
    assert "statuses 50 " in run.stdout
    run = velta("monitor", "-n", 3, sim("--fault", "close=50", endpoint="pty:"))
    assert run.status == 1 and run.stderr.endswith(": the other end closed the link\n")
    nobody = "udp://127.0.0.1:1"
    assert velta("monitor", "-n", 3, nobody).stderr == f"velta: {nobody}: Connection refused\n"


def test_via_shows_what_passes_between_host_and_controller(velta, sim):
    monitor = velta.start("monitor", "-n", 3, sim("--on-command"), "--via", "tcp://127.0.0.1:0", "--json")
    via = monitor.line("listening on ")
    send(velta, via, "servo-on", "--select", "all")
    assert velta("ping", via, "-n", 3, "--count", 20).status == 0
    monitor.stop()
    assert monitor.status == 0 and "statuses 21  discarded 0 bytes  bad CRC 0" in monitor.stderr
    assert json.loads(monitor.stdout.splitlines()[0])["jointState"][0]["systemMode"] == "2"


def test_words_are_those_of_the_table(listener, terminal):
    text = pathlib.Path(__file__).parents[2].joinpath("docs/codes.md").read_text()
    states = re.findall(r"\| `(systemMode|ctrlMode|trjStatus)` \| (\d+) \| ([^|]+) \|", text)
    offsets = {"systemMode": 2, "ctrlMode": 3, "trjStatus": 8}
    joints = max(sum(field == name for field, *_ in states) for name in offsets) + 1
    body = bytearray(frames.status(1, 0, joints)[:-2])
    expected = [[] for _ in range(joints)]
    for name, offset in offsets.items():
        for joint, (_, code, word) in enumerate(state for state in states if state[0] == name):
            body[22 + 79 * joint + offset] = int(code)
            expected[joint].append(word)
        body[22 + 79 * (joints - 1) + offset] = 99  # without a word
    expected[-1] = ["99", "99", "99"]
    shown = terminal("monitor", "-n", joints, listener.link)
    listener.read(18 * joints + 13)
    listener.send(frames.sealed(bytes(body)))
    screen = shown.wait_for("interrupted")
    for joint, words in enumerate(expected):
        row = next(line for line in screen.splitlines() if re.match(rf"[ >]{joint}!? ", line))
        assert re.search(".* ".join(map(re.escape, words)), row), row
