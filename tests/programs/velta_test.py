# SPDX-License-Identifier: MIT
"""What all commands have in common: help, mistyped words, options, the environment."""

import signal
import struct
import time

import frames
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


@pytest.mark.parametrize("command", COMMANDS)
def test_every_command_has_help_with_an_example(velta, command):
    run = velta(command, "--help")
    assert (run.status, run.stderr) == (0, "")
    assert f" velta {command} " in run.stdout.split("Example")[1], run.stdout


def recording(folder):
    """A recording of 3 joints: a command, a status and a minute later another command."""
    def sealed(data):
        return data + struct.pack("<H", frames.crc16(data))

    def record(event, seconds, data):
        times = (5 * 10**9 + seconds * 10**9, 10**9 + seconds * 10**9)
        return sealed(b"R" + struct.pack("<BHQQ", event, len(data), *times) + data)

    path = folder / "recorded.vrec"
    path.write_bytes(sealed(b"\x89VREC\r\n\x1a" + struct.pack("<3H", 1, 3, 0)) + record(0, 0, frames.command(1, 3)) +
                     record(1, 1, frames.status(1, 0, 3)) + record(0, 60, frames.command(2, 3)))
    return path


# The line, how it shows that it is at work (a line that it prints, or None: by the command that it sends), and its end.
STOPS = [
    ("sim -n 3 tcp://127.0.0.1:0", "listening on ", 0, "served "),
    ("ping --check -n 3 LINK --timeout 60s", None, 1, "velta: no controller answers: LINK: no status frame arrives\n"),
    ("monitor -n 3 LINK", None, 0, "watched for "),
    ("monitor -n 3 LINK --via tcp://127.0.0.1:0", "listening on ", 0, "watched for "),
    ("record -n 3 LINK FOLDER/new", None, 0, "recorded "),
    ("record -n 3 LINK FOLDER/new --via tcp://127.0.0.1:0", "listening on ", 0, "recorded "),
    ("play TAPE LINK", None, 0, "sent 1 command, 0 echoed before the next, 0 status frames received"),
    ("play TAPE --serve tcp://127.0.0.1:0", "listening on ", 0, "served 0 hosts"),
    ("send LINK -n 3 servo-on --select all --confirm --timeout 60s", None, 1,
     "velta: interrupted before the echo came\n"),
    ("ping -n 3 LINK --timeout 60s", None, 0, "0 commands, 0 echoed, 0.0 % lost, 0 resends"),
    ("doctor -n 3 LINK", "[ ok ] opened ", 1, "interrupted: the examination is not complete\n"),
]


@pytest.mark.parametrize("line, at_work, status, end", STOPS)
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_ends_with_its_summary_when_asked_to(velta, listener, tmp_path, line, at_work, status, end, number):
    line = line.replace("FOLDER", str(tmp_path)).replace("TAPE", str(recording(tmp_path)))
    program = velta.start(*line.replace("LINK", listener.link).split(" "))
    if at_work is None:
        assert len(listener.read(67)) == 67
    else:
        program.line(at_work)
    asked = time.monotonic()
    program.stop(number)
    assert time.monotonic() - asked < 10  # not when its own time is over
    assert program.status == status
    assert end.replace("LINK", listener.link) in (program.stderr + program.stdout if status == 1 else program.stdout)


def test_bash_completes_commands_options_and_words(velta, run, tmp_path):
    script = tmp_path / "velta.bash"
    script.write_text(velta("--bash-completion").stdout)

    def complete(line):
        """What is offered for the last word of a line."""
        program = run("bash", "-c", 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { :; }; '
                      '_velta; printf "%s\\n" "${COMPREPLY[@]}"', "bash", script, *line.split(" "))
        assert (program.status, program.stderr) == (0, "")
        return program.stdout.split()

    assert complete("velta p") == ["plot", "play", "ping"]
    assert complete("velta ping --c") == ["--count", "--check"]
    assert "drop-command" in complete("velta sim --fault d")
    assert complete("velta send --select all servo-") == ["servo-off", "servo-on"]
    assert complete("velta convert -f j") == ["jsonl"]
    assert complete("velta monitor t") == ["tcp://"] and complete("velta ping --count t") == []
