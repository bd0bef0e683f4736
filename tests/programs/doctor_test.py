# SPDX-License-Identifier: MIT
import json
import os
import platform
import socket
import stat
import tarfile

import pytest
from conftest import VELTA
from frames import records

WORKS = "the link works; mind the warnings"
FAILS = "this keeps the link from working"
REPORT = ["doctor.txt", "versions.txt", "realtime.txt", "recording.vrec"]


@pytest.mark.parametrize("endpoint, options, finding, verdict", [
    ("tcp://127.0.0.1:0", "", "[warn] servo off on joints 0/1/2: velta send LINK servo-on --select 0/1/2", WORKS),
    ("udp://127.0.0.1:0", "--on-command", " good statuses of 3 joints, only in answer to commands", WORKS),
    ("pty:", "", " of 30 commands", WORKS),
    ("pty:", "--fault drop-status", "[FAIL] the device is open, but silent", FAILS),
    ("tcp://127.0.0.1:0", "--fault refuse", "refuses: the machine is there, but nothing listens on port ", FAILS),
    ("tcp://127.0.0.1:0", "--fault no-echo --fault freeze", "[FAIL] statuses arrive, but the echo never comes",
     "begin with the first failure"),
    ("tcp://127.0.0.1:0", "--fault reset=100", "[FAIL] the controller closed the link", "begin with the first failure"),
    ("udp://127.0.0.1:9", None, "refuses: the machine is there, but nothing listens on that UDP port", FAILS),
    ("serial:///no/such/tty", None, "[FAIL] /no/such/tty does not exist: plug the adapter in", FAILS),
    ("serial:///dev/null", None, "not a serial device", FAILS),
])
def test_names_the_cause(velta, sim, endpoint, options, finding, verdict):
    link = endpoint if options is None else sim(*options.split(), endpoint=endpoint)
    run = velta("doctor", "-n", 3, link)
    assert run.status == (0 if verdict == WORKS else 1) and run.stderr == ""
    assert finding in run.stdout
    if "closed" not in finding:  # it may strike before or after the first command
        assert run.stdout.endswith(f"\nverdict: {verdict}\n"), run.stdout


def test_is_content_with_a_healthy_arm_of_one_host(velta, sim):
    link = sim()
    assert velta("send", link, "-n", 3, "servo-on", "--select", "all", "--confirm").status == 0
    run = velta("doctor", "-n", 3, link, "--json")
    report = json.loads(run.stdout)
    assert (run.status, report["verdict"]) == (0, "healthy")
    assert {finding["kind"] for finding in report["findings"]} == {"ok"}
    assert report["findings"][0]["text"] == f"opened {link}"
    velta.start("ping", "-n", 3, link, "--count", 1_000_000)
    assert "another host drives it" in velta("doctor", "-n", 3, link).stdout


def test_waits_its_timeout_for_a_connection(velta):
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full:
        waiting = [socket.socket() for _ in range(4)]
        for each in waiting:
            each.setblocking(False)
            each.connect_ex(full.getsockname())
        run = velta("doctor", "-n", 3, "tcp://127.0.0.1:%d" % full.getsockname()[1], "--timeout", "600ms")
    assert (run.status, run.stdout.splitlines()[0]) == (
        1, "[FAIL] cannot reach 127.0.0.1: check power, cable, address, netmask and firewall")
    assert 0.6 <= run.seconds < 4.5  # 5 s is usual


def test_looks_at_the_serial_device_itself(velta, sim, run):
    link = sim(endpoint="pty:")
    device = link.split("://")[1]
    with open(device, "rb", buffering=0):
        assert f"[warn] another process holds {device}: " in velta("doctor", "-n", 3, link).stdout
    refused = velta("doctor", "-n", 3, link + "?baud=123457")
    assert refused.status == 1 and f"{device} cannot be set to 123457 baud" in refused.stdout

    # Root reads and writes every device, unless it gave that up.
    limits = ["setpriv", "--bounding-set=-dac_override", "--inh-caps=-dac_override"] if os.getuid() == 0 else []
    os.chmod(device, 0)
    try:
        refused = run(*limits, VELTA, "doctor", "-n", 3, link)
    finally:
        os.chmod(device, stat.S_IRUSR | stat.S_IWUSR)
    assert refused.status == 1
    assert f"[FAIL] no permission on {device}: join its group with sudo usermod -aG " in refused.stdout


def test_a_report_holds_what_it_lists(velta, sim, tmp_path):
    file = tmp_path / "case7.tar.gz"
    link = sim("-n", 2)
    named = link.replace("127.0.0.1", "localhost")
    run = velta("doctor", "-n", 2, named, "--report", file, "--report-time", "300ms", env={"SECRET": "much too private"})
    assert (run.status, run.stderr) == (0, "")
    lines = run.stdout.splitlines()
    assert lines[0] == f"{file} will hold"
    assert [line.split()[0] for line in lines[1:5]] == REPORT
    assert (lines[5], lines[-1]) == ("and no environment variables, no host names", f"wrote {file}")
    with tarfile.open(file, "r:gz") as archive:
        assert archive.getnames() == [f"case7/{name}" for name in REPORT]
        content = {name: archive.extractfile(f"case7/{name}").read() for name in REPORT}
    assert content["doctor.txt"].decode().replace("(host name)", "localhost").splitlines() == lines[6:-1]
    assert "velta: 2.1.0\n" in content["versions.txt"].decode() and platform.release() in content["versions.txt"].decode()
    settings = dict(line.split(": ", 1) for line in content["realtime.txt"].decode().splitlines())
    with open("/proc/sys/kernel/sched_rt_runtime_us") as setting:
        assert settings["/proc/sys/kernel/sched_rt_runtime_us"] == setting.read().strip()
    everything = b"".join(content.values())
    assert b"much too private" not in everything and b"localhost" not in everything
    (tmp_path / "run.vrec").write_bytes(content["recording.vrec"])
    recorded_link, joints, passed = records(tmp_path / "run.vrec")
    assert (recorded_link, joints) == (link, 2)
    assert [event for event, *_ in passed][::len(passed) - 1] == [2, 3]
    assert 0.1 < (passed[-1][2] - passed[0][2]) / 1e9
    assert velta("check", tmp_path / "run.vrec", "--jitter", 0, "--gap", 0).status == 0
