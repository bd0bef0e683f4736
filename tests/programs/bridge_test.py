# SPDX-License-Identifier: MIT
"""velta-bridge between a simulated controller and programs on its WebSocket."""

import contextlib
import http.client
import json
import os
import pathlib
import random
import signal
import socket
import ssl
import time
import urllib.parse

import pytest
import websockets

from bridge import BRIDGE, MODE, POSITION, REF_POSITION, SERVO_ON, bridge, command, free_port, self_signed, viewer
from conftest import SANITIZED, wait_until


def get(url, path="/", headers=None, method="GET", **options):
    """status, headers, body"""
    address = urllib.parse.urlsplit(url)
    kind = http.client.HTTPSConnection if address.scheme == "https" else http.client.HTTPConnection
    connection = kind(address.hostname, address.port, timeout=30, **options)
    connection.request(method, path, headers=headers or {})
    answer = connection.getresponse()
    with contextlib.closing(connection):
        return answer.status, answer.headers, answer.read().decode()


def statistics(program):
    return json.loads(get(program.url, "/api/statistics")[2])


def refused(program, reason):
    """How many connections ended for this reason; none while the program is too full to say."""
    with contextlib.suppress(ConnectionError):
        return statistics(program)["web"]["refused"].get(reason, 0)
    return 0


def begin_slow_move(commander):
    """A trajectory of a minute for joint 1."""
    assert commander.do(command(SERVO_ON))["outcome"] == "confirmed"
    assert commander.do(command(REF_POSITION, value=1000))["outcome"] == "confirmed"  # mode 0: at 18 units a second
    commander.see("trjStatus", "2", "5", "6")


def test_every_viewer_gets_states_as_the_library_writes_them(sim, bridge, viewer):
    program = bridge(sim(), "--web-hz", 20, "--allow-commands", "--control-timeout", "2s")
    watcher = viewer(program.url)
    watcher.take()
    watcher.send({"control": "give"})
    begin = time.monotonic()
    times = [int(watcher.receive("state")["timestamp"]) for _ in range(60)]
    assert times == sorted(set(times)), "each state once, and never an older one"
    assert time.monotonic() - begin > 59 * 0.04, "not more often than asked"
    assert not statistics(program)["stopped"], "giving control back stops nothing, nor does its time"
    status, headers, body = get(program.url, "/api/state")
    assert (status, headers["Content-Type"]) == (200, "application/json")
    assert list(json.loads(body)) == ["duration", "hostTimestamp", "jointState", "timestamp"]


def test_arm_may_be_away_at_the_start_and_later(velta, bridge, viewer):
    port = free_port()
    program = bridge(f"tcp://127.0.0.1:{port}", "--allow-commands")
    assert get(program.url, "/api/state")[0::2] == (503, '{"error":"no status from the arm"}')
    watcher = viewer(program.url)
    for kind in ("connected", "back"):
        arm = velta.start("sim", "-n", 3, f"tcp://127.0.0.1:{port}")
        watcher.receive("event", lambda event: event["kind"] == kind)
        watcher.receive("state")
        arm.stop()
        watcher.receive("event", lambda event: event["kind"] == "lost")
        assert get(program.url, "/api/state")[0] == 503
        assert statistics(program)["arm"] == "away"


def test_one_commander_at_a_time(sim, bridge, viewer):
    program = bridge(sim(), "--allow-commands", "--control-timeout", "30s")
    one, other = viewer(program.url), viewer(program.url)
    assert one.do(command(SERVO_ON)) == {"id": "1", "outcome": "refused", "reason": "control not held"}
    assert other.receive("control") == {"held": False, "yours": False}
    one.take()
    assert one.ask({"control": "keep"}, "control") == {"held": True, "yours": True}
    assert other.receive("control") == {"held": True, "yours": False}
    assert other.ask({"control": "take"}) == {"outcome": "refused", "reason": "control held by another"}
    for message in {"control": "keep"}, {"control": "give"}, {"rearm": True}, command(SERVO_ON):
        assert other.ask(message) == {"outcome": "refused", "reason": "control not held"}
    assert one.do(command(SERVO_ON)) == {"id": "1", "outcome": "confirmed"}
    assert 0 < statistics(program)["latency_ms"] < 10_000
    one.send(command(MODE, value=POSITION))  # bare, and without an answer
    assert one.ask({"id": 2, "command": command(REF_POSITION, value=1.5)}) == {"id": 2, "outcome": "sent"}
    one.see("position", "1.500000")
    assert one.ask({"id": "3", "command": {"armOrder": 0, "jointCommand": []}})["reason"] == "not a command document"
    assert one.ask({"control": "give"}, "control") == {"held": False, "yours": False}
    other.take()
    assert other.do(command(SERVO_ON))["outcome"] == "confirmed"


@pytest.mark.parametrize("how", ["silent", "disconnected", "stopped by a viewer", "bridge ended"])
def test_arm_stops_without_its_commander(sim, bridge, viewer, how):
    link = sim()
    program = bridge(link, "--allow-commands", "--control-timeout", "2s" if how == "silent" else "30s")
    commander = viewer(program.url)
    commander.take()
    begin_slow_move(commander)
    if how == "disconnected":
        commander.abort()
    if how == "bridge ended":
        assert program.stop(signal.SIGTERM).status == 0
        program = bridge(link, "--allow-commands", "--control-timeout", "30s")
    if how == "silent":
        commander.receive("control", lambda control: not control["held"])
    other = viewer(program.url)
    if how == "stopped by a viewer":
        other.send({"stop": True})
        assert commander.do(command(SERVO_ON))["reason"] == "dead-man"
    other.see("trjStatus", "5", "6")
    if how == "stopped by a viewer":
        commander.send({"control": "give"})
    other.take()
    if how != "bridge ended":
        assert other.do(command(SERVO_ON)) == {"id": "1", "outcome": "refused", "reason": "dead-man"}
        other.send({"rearm": True})
    assert other.do(command(SERVO_ON))["outcome"] == "confirmed"


def test_viewers_may_only_stop(sim, bridge, viewer, tmp_path):
    stop = tmp_path / "stop.json"
    stop.write_text("\n".join(json.dumps(command(MODE, joint, value=1)) for joint in (1, 2)))
    watcher = viewer(bridge(sim(), "--stop-documents", stop).url)
    assert watcher.ask({"control": "take"})["reason"] == "commands not allowed"
    watcher.send({"stop": True})
    watcher.receive("state", lambda state: [joint["ctrlMode"] for joint in state["jointState"]] == ["1", "1", "0"])
    strict = viewer(bridge(sim(), "--no-viewer-stop", "--allow-commands", "--control-timeout", "30s").url)
    assert strict.ask({"stop": True})["reason"] == "stop not allowed"
    strict.take()
    strict.send({"stop": True})
    assert strict.do(command(SERVO_ON))["reason"] == "dead-man"


def test_requests_are_let_in_by_host_origin_and_token(sim, bridge, viewer, tmp_path):
    secret = tmp_path / "token"
    secret.write_text("open sesame\n")
    program = bridge(sim(), "--token-file", secret, "--allow-host", "arm.example", "--allow-commands")
    bearer = {"Authorization": "Bearer open sesame"}
    for path, headers, status in [
        ("/", {}, 200),
        ("/", {"Host": "Arm.Example:1", "Origin": "HTTPS://arm.example"}, 200),
        ("/", {"Host": "localhost", "Origin": "http://localhost:8080"}, 200),
        *(("/", {"Host": host}, 403) for host in ("evil.example", "localhost.evil.example", "localhost:x", "[::1", "")),
        *(("/", {"Origin": origin}, 403) for origin in ("http://evil.example", "http://localhost", "null", "file://127.0.0.1")),
        ("/api/state", {}, 401),
        ("/api/state", {"Authorization": "Bearer open sesam"}, 401),
        ("/api/state", bearer, 200),
        ("/nothing", bearer, 404),
    ]:
        assert get(program.url, path, headers)[0] == status, (path, headers)
    assert get(program.url, "/", {"Content-Length": "9"}, "POST")[0] == 405
    policy = get(program.url)[1]["Content-Security-Policy"]
    assert "frame-ancestors 'none'" in policy and "default-src 'none'" in policy
    for options in ({"origin": "http://evil.example"}, {"extra_headers": {"Authorization": "Bearer x"}}):
        with pytest.raises(websockets.InvalidStatusCode):
            viewer(program.url, **options)
    for first in ({"token": "x"}, {"control": "take"}, None):  # None: nothing within 2 s
        stranger = viewer(program.url)
        if first:
            stranger.send(first)
        assert stranger.close_code() == 1008
    friend = viewer(program.url)
    assert friend.ask({"token": "open sesame"}, "control") == {"held": False, "yours": False}
    viewer(program.url, extra_headers=bearer).receive("state")
    counts = json.loads(get(program.url, "/api/statistics", bearer)[2])["web"]["refused"]
    assert counts == {"host": 5, "method": 1, "no token": 3, "not found": 1, "origin": 5, "wrong token": 3}
    assert "sesame" not in program.stderr and program.stderr.count("refused 127.0.0.1") == 1


def test_other_addresses_need_token_and_tls(sim, bridge, viewer, run, tmp_path):
    link = sim()
    assert "0.0.0.0:0 can be reached from other machines" in run(BRIDGE, "-n", 3, link, "--web", "0.0.0.0:0").stderr
    assert bridge(link, "--web", "0.0.0.0:0", "--insecure").url
    token, (cert, key) = tmp_path / "token", self_signed(tmp_path)
    token.write_text("t")
    program = bridge(link, "--web", "0.0.0.0:0", "--tls-cert", cert, "--tls-key", key, "--token-file", token)
    trust = ssl.create_default_context(cafile=cert)
    url = program.url.replace("0.0.0.0", "127.0.0.1")
    assert url.startswith("https://")
    assert get(url, "/api/state", {"Authorization": "Bearer t"}, context=trust)[0] == 200
    assert viewer(url, ssl=trust).ask({"token": "t"}, "control") == {"held": False, "yours": False}


@pytest.mark.parametrize("messages, code, reason", [
    ([b"\0"], 1003, "binary message"),
    (["[" * 101], 1008, "deep message"),
    (["x" * (64 * 1024 + 1)], 1009, "long message"),
    (["{}"] * 1000, 1008, "too many messages"),
])
def test_messages_beyond_the_limits_close_the_connection(sim, bridge, viewer, messages, code, reason):
    program = bridge(sim())
    noisy = viewer(program.url)
    with contextlib.suppress(websockets.ConnectionClosed):
        for message in messages:
            noisy.send(message)
    assert noisy.close_code() == code
    assert refused(program, reason) == 1
    viewer(program.url).receive("state")


def resident(program):
    return int(pathlib.Path(f"/proc/{program.process.pid}/status").read_text().split("VmRSS:")[1].split()[0])


def test_strangers_cost_neither_memory_nor_the_loop(sim, bridge, viewer):
    program = bridge(sim("-n", 32), "-n", 32, "--allow-commands")
    with contextlib.closing(viewer(program.url)) as first:
        first.receive("state")
    host = ("127.0.0.1", urllib.parse.urlsplit(program.url).port)
    before, began = resident(program), time.monotonic()
    slow = [socket.create_connection(host) for _ in range(20)]
    for i, connection in enumerate(slow):
        connection.send(b"GET / HTTP/1.1\r\nX: " if i % 2 else b"G")
    deaf = socket.socket()
    deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    deaf.connect(host)
    deaf.send(b"GET /ws HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
              b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n")
    choose = random.Random(7)
    pieces = ['{"control":', '"take"', '"keep"', "}", "[", "{", '"id":', "1e999", '"stop"', "\\u0000", '"command":', "null", ","]
    for _ in range(50):
        with contextlib.closing(viewer(program.url)) as noisy:
            for _ in range(200):  # 10,000 messages
                noisy.send("".join(choose.choices(pieces, k=choose.randrange(12))))
    wait_until(lambda: statistics(program)["web"]["slow_viewers"] > 0, "the deaf viewer's end")
    wait_until(lambda: refused(program, "slow request") >= 20, "the slow requests' end")
    assert SANITIZED or resident(program) - before < 4 * 1024
    viewer(program.url).receive("state")
    session = statistics(program)["session"]
    assert session["cycles"] > 100 * (time.monotonic() - began), "the arm's loop goes on"
    crowd = [socket.create_connection(host) for _ in range(140)]
    crowd[-1].settimeout(30)
    assert crowd[-1].recv(1) == b"", "there is no room"
    for connection in slow + crowd + [deaf]:
        connection.close()
    wait_until(lambda: refused(program, "too many connections") >= 12)


def may_have_priority():
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(40))
    except PermissionError:
        return False
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    return True


def test_service_manager_hears_that_it_is_ready_and_alive(sim, run, tmp_path):
    manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    manager.settimeout(30)
    manager.bind(str(tmp_path / "notify"))
    environment = {"NOTIFY_SOCKET": str(tmp_path / "notify"), "WATCHDOG_USEC": "200000"}
    program = run.start(BRIDGE, "-n", 3, sim(), "--web", "127.0.0.1:0", env=environment)
    assert [manager.recv(100) for _ in range(3)] == [b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1"]
    threads = os.listdir(f"/proc/{program.process.pid}/task")
    assert (os.SCHED_FIFO in map(os.sched_getscheduler, map(int, threads))) == may_have_priority(), "the arm's loop comes first"
    assert program.stop().status == 0
    while (said := manager.recv(100)) == b"WATCHDOG=1":
        pass
    assert said == b"STOPPING=1"


@pytest.mark.parametrize("arguments, complaint", [
    (["--web", "127.0.0.1:0", "--stop-documents", "/dev/null"], "/dev/null: document 1 is no command"),
    (["--mqtt", "mqtts://x/y", "--mqtt-ca", "/no.pem"], "cannot read /no.pem"),
    ([], "give --web, --mqtt or both"),
    (["--mqtt", "http://x/y"], "bad --mqtt 'http://x/y': it begins with mqtt://"),
    (["--web", "127.0.0.1:0", "--control-timeout", "1ms"], "bad --control-timeout '1ms'"),
])
def test_bad_usage_and_bad_files(run, arguments, complaint):
    failed = run(BRIDGE, "-n", 3, "tcp://127.0.0.1:1", *arguments)
    assert failed.status == (2 if "see velta-bridge --help" in failed.stderr else 1) and failed.stdout == ""
    assert complaint in failed.stderr and failed.stderr.count("\n") == 1
