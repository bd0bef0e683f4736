# SPDX-License-Identifier: MIT
"""The archive of `velta doctor --report`."""

import platform
import tarfile

from frames import records

LIST = ["doctor.txt", "versions.txt", "realtime.txt", "recording.vrec"]


def test_holds_what_it_lists(velta, sim, tmp_path):
    file = tmp_path / "case7.tar.gz"
    link = sim("-n", 2)
    run = velta("doctor", "-n", 2, link, "--report", file, "--report-time", "300ms", env={"SECRET": "much too private"})
    assert (run.status, run.stderr) == (0, "")
    lines = run.stdout.splitlines()
    assert lines[0] == f"{file} will hold"
    assert [line.split()[0] for line in lines[1:5]] == LIST
    assert (lines[5], lines[-1]) == ("and no environment variables, no host names", f"wrote {file}")
    with tarfile.open(file, "r:gz") as archive:
        assert archive.getnames() == [f"case7/{name}" for name in LIST]
        content = {name: archive.extractfile(f"case7/{name}").read() for name in LIST}
    assert content["doctor.txt"].decode().splitlines() == lines[6:-1]
    assert "velta: 2.1.0\n" in content["versions.txt"].decode() and platform.release() in content["versions.txt"].decode()
    settings = dict(line.split(": ", 1) for line in content["realtime.txt"].decode().splitlines())
    with open("/proc/sys/kernel/sched_rt_runtime_us") as setting:
        assert settings["/proc/sys/kernel/sched_rt_runtime_us"] == setting.read().strip()
    everything = b"".join(content.values())
    assert b"much too private" not in everything
    (tmp_path / "run.vrec").write_bytes(content["recording.vrec"])
    recorded_link, joints, passed = records(tmp_path / "run.vrec")
    assert (recorded_link, joints) == (link, 2)
    assert [event for event, *_ in passed][::len(passed) - 1] == [2, 3]
    assert 0.1 < (passed[-1][2] - passed[0][2]) / 1e9
    assert velta("check", tmp_path / "run.vrec", "--jitter", 0, "--gap", 0).status == 0


def test_is_written_for_a_link_that_fails_too(velta, tmp_path):
    file = tmp_path / "case.tar.gz"
    run = velta("doctor", "-n", 2, "tcp://localhost:1", "--report", file)
    assert run.status == 1
    with tarfile.open(file) as archive:
        assert archive.getnames() == [f"case/{name}" for name in LIST[:3]]
        said = archive.extractfile("case/doctor.txt").read().decode()
    assert "localhost" not in said and "(host name)" in said and "refuses" in said
