# SPDX-License-Identifier: MIT
"""What all commands have in common: help, mistyped words, options, the environment."""

import pytest

COMMANDS = ["sim", "monitor", "record", "convert", "plot", "play", "send", "ping", "doctor"]


def test_shows_its_commands(velta):
    run = velta()
    assert (run.status, run.stderr) == (0, "")
    assert [word for word in COMMANDS if f"\n  {word} " not in run.stdout] == []
    assert velta("--help").stdout == run.stdout
    assert velta("--version").stdout == "2.1.0\n"


def test_environment_stands_in_for_link_and_joints(velta, sim):
    environment = {"VELTA_LINK": sim("-n", 2), "VELTA_JOINTS": "2"}
    assert velta("ping", "--count", 1, env=environment).status == 0
    assert velta("ping", "--count", 1, "-n", 3, env=environment).status == 1
    assert "VELTA_LINK" in velta("ping", "--help").stdout


@pytest.mark.parametrize("line, error", [
    ("pign -n 3 tcp://127.0.0.1:1", "there is no command 'pign' (did you mean 'ping'?); see velta --help"),
    ("nonsense", "there is no command 'nonsense'; see velta --help"),
    ("--versoin", "velta has no option '--versoin' (did you mean '--version'?); see velta --help"),
    ("ping --cuont 5 -n 3 tcp://127.0.0.1:1",
     "velta ping has no option '--cuont' (did you mean '--count'?); see velta ping --help"),
    ("ping -n 3", "LINK is required; see velta ping --help"),
    ("ping tcp://127.0.0.1:1", "--joints is required; see velta ping --help"),
    ("ping -n 3 tcp://127.0.0.1:1 more", "'more' is one argument too many; see velta ping --help"),
])
def test_names_what_is_wrong_with_the_line(velta, line, error):
    run = velta(*line.split())
    assert (run.status, run.stdout, run.stderr) == (2, "", f"velta: {error}\n")
