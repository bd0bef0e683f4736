# SPDX-License-Identifier: MIT
import json
import re

import pytest


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
    link = sim("--fault", "close=1500")
    run = velta("monitor", "-n", 3, link)
    assert (run.status, run.stderr) == (1, f"velta: {link}: the other end closed the link\n")
    assert "statuses 1500 " in run.stdout
    assert run.stdout.splitlines()[0].endswith(" | J0 0.0000 servo off | J1 0.0000 servo off | J2 0.0000 servo off")
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
