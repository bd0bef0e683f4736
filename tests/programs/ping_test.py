# SPDX-License-Identifier: MIT
import json

import pytest
from frames import command, status


@pytest.mark.parametrize("endpoint, options", [
    ("tcp://127.0.0.1:0", []), ("udp://127.0.0.1:0", []), ("pty:", []),
    ("tcp://127.0.0.1:0", ["--fault", "stale-echo"]),  # each echo comes with the resend, but counts from the first frame
])
def test_measures_every_kind_of_link(velta, sim, endpoint, options):
    link = sim(*options, endpoint=endpoint)
    run = velta("ping", "-n", 3, link, "--count", 10, "--timeout", "40ms", "--json")
    report = json.loads(run.stdout)
    assert (run.status, run.stderr) == (0, "")
    assert (report["sent"], report["confirmed"], report["discarded_bytes"]) == (10, 10, 0)
    ranks = list(report["round_trip_us"].values())
    assert ranks == sorted(ranks) and ranks[0] > (39e3 if options else 0)
    assert report["status"]["count"] >= 10


@pytest.mark.parametrize("fault, first, verdict", [
    ("no-echo", "10 commands, 0 echoed, 100.0 % lost, 40 resends", "the controller sends statuses, but echoes no command"),
    ("close=5", "", "look at the link: it was lost"),
])
def test_says_where_to_look(velta, sim, fault, first, verdict):
    run = velta("ping", "-n", 3, sim("--fault", fault), "--count", 12, "--timeout", "10ms")
    assert run.status == 1 and run.stdout.startswith(first) and "\nverdict     " + verdict in run.stdout


def test_waits_its_timeout_for_each_of_five_attempts(velta, sim):
    run = velta("ping", "-n", 3, sim("--fault", "no-echo"), "--count", 1, "--timeout", "300ms")
    assert run.stdout.startswith("1 command, 0 echoed, 100.0 % lost, 4 resends\n") and run.seconds >= 1.5
    assert velta("ping", "-n", 3, sim(), "--count", 4, "--interval", "200ms").seconds >= 0.6


@pytest.mark.parametrize("tool", ["ping", "doctor", "monitor"])
def test_only_idle_commands_are_sent(velta, listener, tool):
    velta.start(tool, "-n", 2, listener.link)
    frame = listener.read(49)
    assert frame == command(int.from_bytes(frame[2:10], "little"), 2)


@pytest.mark.parametrize("check", [["ping", "--check"], ["sim", "--check"]])
def test_check_says_whether_a_controller_answers(velta, sim, check):
    late = sim("--fault", "refuse=300")
    run = velta(*check, late, "-n", 3)
    assert run.status == 0 and run.stdout.startswith(f"{late} answers, after ")
    assert json.loads(velta(*check, late, "-n", 3, "--json").stdout)["link"] == late


@pytest.mark.parametrize("options, trouble", [
    (["--fault", "no-echo"], "status frames arrive, but none echoes a command"),
    (["-n", 4], "no status frame arrives, but other bytes do; check the joint count"),
    (["--fault", "refuse"], "Connection refused"),
])
def test_check_says_how_far_it_came(velta, sim, options, trouble):
    link = sim(*options)
    run = velta("ping", "--check", link, "-n", 3, "--timeout", "300ms")
    assert (run.status, run.stdout) == (1, "")
    assert run.stderr == f"velta: no controller answers: {link}: {trouble}\n"
    assert 0.3 <= run.seconds < 1.9  # neither at once nor after the 2 s that are usual


def test_check_is_not_content_with_another_hosts_echo(velta, listener):
    run = velta.start("ping", "--check", listener.link, "-n", 1, "--timeout", "500ms")
    stamp = int.from_bytes(listener.read(31)[2:10], "little")
    listener.send(b"".join(status(i, stamp + offset, 1) for i, offset in enumerate((-1, 1))))
    assert "none echoes a command" in run.wait().stderr
