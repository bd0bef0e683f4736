# SPDX-License-Identifier: MIT
"""What all commands have in common: help, mistyped words, options, the environment."""

import time

import frames
import pytest
from frames import TO_CONTROLLER, TO_HOST, recording

COMMANDS = ["sim", "monitor", "record", "convert", "plot", "play", "send", "ping", "doctor"]


def test_shows_its_commands(velta):
    run = velta()
    assert (run.status, run.stderr) == (0, "")
    assert [word for word in COMMANDS if f"\n  {word} " not in run.stdout] == []
    assert velta("--help").stdout == run.stdout
    assert velta("--version").stdout == "2.1.0\n"
    for command in COMMANDS:
        run = velta(command, "--help")
        assert (run.status, run.stderr) == (0, "")
        assert f" velta {command} " in run.stdout.split("Example")[1], run.stdout


def test_environment_stands_in_for_link_and_joints(velta, sim):
    environment = {"VELTA_LINK": sim("-n", 2), "VELTA_JOINTS": "2"}
    assert velta("ping", "--count", 1, env=environment).status == 0
    assert velta("ping", "--count", 1, "-n", 3, env=environment).status == 1
    assert "VELTA_LINK" in velta("ping", "--help").stdout


@pytest.mark.parametrize("line, error", [
    ("pign -n 3 tcp://127.0.0.1:1", "there is no command 'pign' (did you mean 'ping'?); see velta --help"),
    ("ping --cuont 5 -n 3 tcp://127.0.0.1:1",
     "velta ping has no option '--cuont' (did you mean '--count'?); see velta ping --help"),
    ("ping tcp://127.0.0.1:1", "--joints is required; see velta ping --help"),
    ("ping -n 3 tcp://127.0.0.1:1 more", "'more' is one argument too many; see velta ping --help"),
])
def test_names_what_is_wrong_with_the_line(velta, line, error):
    run = velta(*line.split())
    assert (run.status, run.stdout, run.stderr) == (2, "", f"velta: {error}\n")


def a_recording(folder):
    """Of 3 joints: a command, a status and a minute later another command."""
    return recording(folder / "recorded.vrec", 3, (0, TO_CONTROLLER, frames.command(1, 3)),
                     (1, TO_HOST, frames.status(1, 0, 3)), (60, TO_CONTROLLER, frames.command(2, 3)))


@pytest.mark.parametrize("line, status, complaint", [
    ("sim -n 3", 2, "give an endpoint"),
    ("sim -n 3 serial:///dev/ttyS0", 2, "pty:"),
    ("sim -n 3 HERE --script FOLDER/note", 1, "note:1: not a JSON object"),
    ("sim -n 3 HERE pty:FOLDER/note", 1, "does not lead to a pty"),
    ("sim -n 3 HERE pty:FOLDER/mine", 1, "does not lead to a pty"),
    ("sim -n 3 tcp://192.0.2.1:0", 1, "cannot listen on tcp://192.0.2.1:0"),
    ("fault unix:FOLDER/none no-echo corrupt=2", 2, "bad fault 'corrupt=2': "),
    ("fault unix:FOLDER/none corrupt", 1, "none: No such file or directory"),
    (f"fault unix:FOLDER/{200 * 'x'} corrupt", 1, "the path is too long for a socket"),
    ("record -n 3 NOWHERE", 2, "FILE is required"),
    ("record -n 3 NOWHERE FOLDER/new", 1, "tcp://127.0.0.1:1: Connection refused"),
    ("record -n 3 udp://127.0.0.1:9 /dev/full --force", 1, "/dev/full: No space left on device"),
    ("record -n 3 NOWHERE FOLDER/new --via udp://127.0.0.1:0", 2, "udp:// goes with udp://"),
    ("record -n 3 udp://127.0.0.1:9 TAPE", 1, "there is such a file already"),
    ("convert FOLDER/note", 1, "not a recording"),
    ("convert TAPE -o FOLDER/no/file", 1, "No such file"),
    ("convert TAPE -o /dev/full", 1, "cannot write"),
    ("convert TAPE --from 2s --to 1s", 2, "--from"),
    ("plot TAPE -o FOLDER/new.jpg", 2, "a plot is a .png or a .svg"),
    ("plot TAPE --fields position,speed", 2, "no field 'speed'"),
    ("play TAPE NOWHERE -n 1", 1, "no good command frame to play for 1 joint"),
    ("ping -n 3 tcp://no-such-host.invalid:5000", 1, "no-such-host.invalid"),
    ("monitor -n 3 serial:///dev/null", 1, "not a serial device"),
])
def test_refuses_in_one_line_and_changes_nothing(velta, tmp_path, line, status, complaint):
    tape = a_recording(tmp_path)
    (tmp_path / "note").write_text("precious")
    (tmp_path / "mine").symlink_to("note")
    before = {path.name: path.read_bytes() for path in tmp_path.iterdir()}
    for name, meaning in (("FOLDER", tmp_path), ("TAPE", tape), ("NOWHERE", "tcp://127.0.0.1:1"),
                          ("HERE", "tcp://127.0.0.1:0")):
        line = line.replace(name, str(meaning))
    run = velta(*line.split(" "))
    assert (run.status, run.stdout) == (status, "")
    assert run.stderr.startswith("velta: ") and complaint in run.stderr and run.stderr.count("\n") == 1
    assert {path.name: path.read_bytes() for path in tmp_path.iterdir()} == before


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
    ("doctor -n 3 LINK", "[ ok ] opened ", 1, "velta: interrupted: the examination is not complete\n"),
]


@pytest.mark.parametrize("line, at_work, status, end", STOPS)
def test_ends_with_its_summary_when_asked_to(velta, listener, tmp_path, line, at_work, status, end):
    line = line.replace("FOLDER", str(tmp_path)).replace("TAPE", str(a_recording(tmp_path)))
    program = velta.start(*line.replace("LINK", listener.link).split(" "))
    if at_work is None:
        assert len(listener.read(67)) == 67
    else:
        program.line(at_work)
    asked = time.monotonic()
    program.stop()
    assert time.monotonic() - asked < 10  # not when its own time is over
    assert program.status == status
    assert end.replace("LINK", listener.link) in (program.stderr if status == 1 else program.stdout)


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
