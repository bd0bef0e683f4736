# SPDX-License-Identifier: MIT
import json
import os
import shutil
import socket
import stat

import pytest
from conftest import VELTA

WORKS = "the link works; mind the warnings"
FAILS = "this keeps the link from working"


@pytest.mark.parametrize("endpoint, options, finding, verdict", [
    ("tcp://127.0.0.1:0", "", "[warn] joints 0/1/2 have their servo off: velta send LINK servo-on --select 0/1/2", WORKS),
    ("udp://127.0.0.1:0", "--on-command", " good statuses of 3 joints, only in answer to commands", WORKS),
    ("pty:", "", "[ ok ] the controller echoes 30 of 30 commands, ", WORKS),
    ("pty:", "--fault drop-status", "[FAIL] the device is open, but silent", FAILS),
    ("tcp://127.0.0.1:0", "--fault refuse", "refuses: the machine is there, but nothing listens on port ", FAILS),
    ("tcp://127.0.0.1:0", "--fault wrong-joints=5 --on-command", "the controller is set to 5 joints; use -n 5", FAILS),
    ("tcp://127.0.0.1:0", "--fault no-echo --fault freeze", "[FAIL] statuses arrive, but the echo never comes",
     "begin with the first failure"),
    ("tcp://127.0.0.1:0", "--fault reset=100", "[FAIL] the controller closed the link", "begin with the first failure"),
])
def test_names_the_cause(velta, sim, endpoint, options, finding, verdict):
    run = velta("doctor", "-n", 3, sim(*options.split(), endpoint=endpoint))
    assert run.status == (0 if verdict == WORKS else 1) and run.stderr == ""
    assert finding in run.stdout
    if "reset" not in options:  # it may strike before or after the first command
        assert run.stdout.endswith(f"\nverdict: {verdict}\n"), run.stdout


def test_is_content_with_a_healthy_arm(velta, sim):
    link = sim()
    assert velta("send", link, "-n", 3, "servo-on", "--select", "all", "--confirm").status == 0
    run = velta("doctor", "-n", 3, link, "--json")
    report = json.loads(run.stdout)
    assert (run.status, report["verdict"]) == (0, "healthy")
    assert {finding["kind"] for finding in report["findings"]} == {"ok"}
    assert report["findings"][0]["text"] == f"opened {link}"


@pytest.mark.parametrize("link, status, finding", [
    ("udp://127.0.0.1:9", 1, "refuses: the machine is there, but nothing listens on that UDP port"),
    ("serial:///no/such/tty", 1, "[FAIL] /no/such/tty does not exist: plug the adapter in"),
    ("serial:///dev/null", 1, "not a serial device"),
])
def test_names_the_cause_without_a_controller(velta, link, status, finding):
    run = velta("doctor", "-n", 3, link)
    assert run.status == status and finding in run.stdout


def test_looks_host_names_up(velta, sim):
    run = velta("doctor", "-n", 3, sim().replace("127.0.0.1", "localhost"))
    assert run.status == 0 and run.stdout.startswith("[ ok ] 'localhost' is 127.0.0.1\n[ ok ] opened tcp://127.0.0.1:")


def test_waits_its_timeout_for_a_connection(velta):
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full:
        waiting = [socket.socket() for _ in range(4)]
        for each in waiting:
            each.setblocking(False)
            each.connect_ex(full.getsockname())
        run = velta("doctor", "-n", 3, "tcp://127.0.0.1:%d" % full.getsockname()[1], "--timeout", "600ms")
        for each in waiting:
            each.close()
    assert (run.status, run.stdout.splitlines()[0]) == (
        1, "[FAIL] cannot reach 127.0.0.1: check power, cable, address, netmask and firewall")
    assert 0.6 <= run.seconds < 4.5  # 5 s is usual


def test_looks_at_the_serial_device_itself(velta, sim, run, tmp_path):
    link = sim(endpoint="pty:")
    device = link.split("://")[1]
    with open(device, "rb", buffering=0):
        assert f"[warn] another process holds {device}: " in velta("doctor", "-n", 3, link).stdout
    refused = velta("doctor", "-n", 3, link + "?baud=123457")
    assert refused.status == 1 and f"{device} cannot be set to 123457 baud" in refused.stdout

    command = [VELTA, "doctor", "-n", 3, link]
    if os.getuid() == 0:  # for whom every device is open: as nobody, who may not enter every folder
        for each in (tmp_path, *tmp_path.parents[:2]):
            each.chmod(0o755)
        program = shutil.copy(VELTA, tmp_path)
        libraries = os.pathsep.join([str(tmp_path)])
        for library in VELTA.parents[1].glob("libvelta.so*"):
            shutil.copy(library, tmp_path)
        command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "env", f"LD_LIBRARY_PATH={libraries}",
                   program, *command[1:]]
    os.chmod(device, 0)
    try:
        refused = run(*command)
    finally:
        os.chmod(device, stat.S_IRUSR | stat.S_IWUSR)
    assert refused.status == 1
    assert f"[FAIL] no permission on {device}: join its group with sudo usermod -aG " in refused.stdout


def test_notices_another_host(velta, sim):
    link = sim()
    velta.start("ping", "-n", 3, link, "--count", 100000)
    run = velta("doctor", "-n", 3, link)
    assert run.status == 0
    assert "[warn] the controller also echoes commands that are not from here: another host drives it" in run.stdout
