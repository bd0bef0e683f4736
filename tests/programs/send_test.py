# SPDX-License-Identifier: MIT
import json
import re
import struct

import pytest
from frames import command, command_table

NOWHERE = "tcp://127.0.0.1:1"
DOCUMENT = ('{"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5","value2":"0",'
            '"value3":"0","value4":"0"}]}')


def dry(velta, *arguments, joints=3, **options):
    """The frame that would be sent, and the same frame put together by hand: dry(...)(orders, arm)."""
    run = velta("send", NOWHERE, "-n", joints, "--dry-run", *arguments, **options)
    assert (run.status, run.stderr) == (0, "")
    frame = bytes.fromhex(run.stdout)
    stamp = struct.unpack_from("<Q", frame, 2)[0]
    return frame, lambda orders={}, arm=0: command(stamp, joints, orders, arm)


def test_every_word_becomes_the_frame_of_the_table(velta):
    words = set()
    for typed, of_arm, code, values in command_table():
        words.add(typed[0])
        frame, expected = dry(velta, *typed, *([] if of_arm else ["--select", "0/2"]))
        by_hand = expected({0: (0, *values)}, code) if of_arm else expected({0: (code, *values), 2: (code, *values)})
        assert frame == by_hand, typed
    assert words == {line.split()[0] for line in velta("send", "--list").stdout.splitlines()}


@pytest.mark.parametrize("words, complaint", [
    ("servo-on", "servo-on needs --select: all, or indices from 0 as in 0/2/5"),
    ("servo-on --select 3", "--select 3: '3' is not a joint of this arm (0 to 2)"),
    ("servo-on 1 --select all", "servo-on takes 0 arguments, not 1; velta send --list shows them"),
    ("ref-position 30deg --select all", "ref-position: position '30deg' is not a finite 32-bit real number"),
    ("ref-position nan --select all", "ref-position: position 'nan' is not a finite 32-bit real number"),
    ("control-mode 16777217 --select all", "control-mode: mode '16777217' is not an integer of up to 24 bits"),
    ("control-mode -16777217 --select all", "control-mode: mode '-16777217' is not an integer of up to 24 bits"),
    ("trajectory-pvt 1 2 3 yes --select all", "trajectory-pvt: flag 'yes' is not 0 or 1"),
    ("payload 1 2 3 4 --select 0", "payload commands the whole arm and takes no --select"),
    ("servo-no --select all", "unknown command 'servo-no' (did you mean 'servo-on'?); velta send --list shows all"),
    ("", "send takes either a command or --document; velta send --list shows the commands"),
    ("--document {} --select all", "--document names its joints itself; leave --select out"),
    ("servo-on --select all --timeout 1ms", "--timeout takes 10ms to 60min, not 1ms; see velta send --help"),
])
def test_refuses_what_it_cannot_mean(velta, words, complaint):
    run = velta("send", NOWHERE, "-n", 3, *words.split())
    assert (run.status, run.stdout, run.stderr) == (2, "", f"velta: {complaint}\n")


def test_integers_travel_exactly(velta):
    for mode in (16777216, -16777216):
        frame, expected = dry(velta, "control-mode", mode, "--select", 1)
        assert frame == expected({1: (0xA3, mode)})


def test_documents_come_from_the_argument_or_standard_input(velta):
    for source, typed in ((DOCUMENT, ""), ("-", DOCUMENT)):
        frame, expected = dry(velta, "--document", source, joints=2, input=typed)
        assert frame == expected({1: (17, 0.5)})
    for broken in ("{", '{"armOrder":0,"jointCommand":[]}'):
        run = velta("send", NOWHERE, "-n", 3, "--document", broken)
        assert (run.status, run.stderr) == (1, "velta: --document: not a command document; nothing was sent\n")
    assert "commands nothing" in velta("send", NOWHERE, "-n", 1, "--document", DOCUMENT, "--dry-run").stderr


@pytest.mark.parametrize("endpoint, fault, resends", [
    ("tcp://127.0.0.1:0", {}, "0 resends"),
    ("udp://127.0.0.1:0", {}, "0 resends"),
    ("pty:", {}, r"\d resends?"),
    ("tcp://127.0.0.1:0", {"fault": "drop-command", "at_command": 1}, "1 resend"),
])
def test_confirms_on_every_kind_of_link(velta, sim, tmp_path, endpoint, fault, resends):
    script = tmp_path / "script"
    script.write_text(json.dumps(fault) if fault else "")
    link = sim("--on-command", "--script", script, endpoint=endpoint)
    run = velta("send", link, "-n", 3, "servo-on", "--select", "all", "--confirm", "--timeout", "5s")
    assert (run.status, run.stderr) == (0, "")
    to = re.escape(link) + r"(\?baud=115200)?"
    assert re.fullmatch(rf"sent 67 bytes to {to}, confirmed after [\d.]+ \w+ and {resends}\n", run.stdout)


def test_a_long_timeout_delays_nothing(velta, sim):
    link = sim("--on-command")
    run = velta("send", link, "-n", 3, "servo-on", "--select", "all", "--confirm", "--timeout", "60min", "--json")
    answer = json.loads(run.stdout)
    assert (answer["link"], answer["bytes"], answer["resends"]) == (link, 67, 0)
    assert 0 < answer["confirmed_after_us"] < 5e6 and run.seconds < 5  # it would be sent again after 12 min, 7 s a step


def test_needs_no_status_to_send_and_says_how_a_wait_ended(velta, listener):
    command = ("send", listener.link, "-n", 1, "servo-on", "--select", "all")
    run = velta(*command)
    assert (run.status, run.stdout, len(listener.read(99))) == (0, f"sent 31 bytes to {listener.link}\n", 31)
    for end, complaint in (("stop", "interrupted"), ("wait", f"lost {listener.link}")):
        listener.host = None
        program = velta.start(*command, "--confirm", "--timeout", "1min")
        listener.read(31)
        if end == "wait":
            listener.host.close()
        getattr(program, end)()
        assert (program.status, program.stderr) == (1, f"velta: {complaint} before the echo came\n")


def test_gives_up_after_its_timeout(velta, sim):
    for fault, timeout in (("no-echo", 1.1), ("stale-echo", 0.2), ("drop-status", 0.2)):  # 0.5 s is usual
        link = sim("--fault", fault)
        run = velta("send", link, "-n", 3, "servo-on", "--select", "all", "--confirm", "--timeout", f"{timeout}s")
        assert (run.status, run.stdout) == (1, "")
        assert run.stderr.startswith(f"velta: no echo from {link} within ")
        assert run.seconds >= timeout
