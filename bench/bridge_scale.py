#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures how many arms one broker carries, and what viewers cost an arm's loop. Prints the rows of docs/fleet.md.

usage: bridge_scale.py BUILD [ARMS] [VIEWERS]"""

import asyncio
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

import websockets

BUILD = pathlib.Path(sys.argv[1])
BRIDGE = BUILD / "bridge/velta-bridge"
SECONDS = 10


def cpu(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as any_port:
        any_port.bind(("127.0.0.1", 0))
        return any_port.getsockname()[1]


def fleet(arms):
    port, folder = free_port(), tempfile.mkdtemp()
    config = pathlib.Path(folder, "mosquitto.conf")
    config.write_text(f"listener {port} 127.0.0.1\nallow_anonymous true\n")
    broker = subprocess.Popen(["/usr/sbin/mosquitto", "-c", config], stderr=subprocess.DEVNULL)
    time.sleep(1)
    bridges = [subprocess.Popen([BRIDGE, "-n", "6", "sim:?cycle=10", "--mqtt", f"mqtt://127.0.0.1:{port}/scale/{i}"],
                                stderr=subprocess.DEVNULL) for i in range(arms)]
    time.sleep(5)
    before, began = [cpu(each) for each in (broker, *bridges)], time.monotonic()
    heard = subprocess.run(["mosquitto_sub", "-p", str(port), "-t", "scale/+/state", "-W", str(SECONDS), "-F", "%t %l"],
                           capture_output=True, text=True).stdout.split("\n")[:-1]
    took = time.monotonic() - began
    used = [now - then for now, then in zip([cpu(each) for each in (broker, *bridges)], before)]
    for process in (*bridges, broker):
        process.terminate()
    for process in (*bridges, broker):
        process.wait(20)
    size = sum(int(line.split()[1]) for line in heard) / max(len(heard), 1)
    print(f"{arms} arms of 6 joints: {len(heard) / SECONDS / arms:.1f} Hz each, {len({l.split()[0] for l in heard})} heard, "
          f"{size:.0f} bytes a state; broker {100 * used[0] / took:.1f} % of a core, a bridge {100 * sum(used[1:]) / took / arms:.2f} %")


async def watch(url, until):
    count = 0
    async with websockets.connect(url, max_queue=None, compression=None) as socket_:
        while time.monotonic() < until:
            await socket_.recv()
            count += 1
    return count


def viewers(count):
    bridge = subprocess.Popen([BRIDGE, "-n", "6", "sim:", "--web", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
    url = bridge.stdout.readline().split()[-1]
    time.sleep(1)
    before, began = cpu(bridge), time.monotonic()

    async def crowd():
        until = time.monotonic() + SECONDS
        return await asyncio.gather(*[watch(url.replace("http", "ws") + "ws", until) for _ in range(count)])

    seen = asyncio.run(crowd()) if count else time.sleep(SECONDS) or [0]
    used, took = cpu(bridge) - before, time.monotonic() - began
    session = json.load(urllib.request.urlopen(url + "api/statistics"))["session"]
    bridge.terminate()
    bridge.wait(20)
    print(f"{count} viewers: {sum(seen) / max(count, 1) / SECONDS:.1f} Hz each, {100 * used / took:.1f} % of a core; the arm's "
          f"loop is late by {session['lateness_us']} us, {session['overruns']} overruns in {session['cycles']} cycles")


if __name__ == "__main__":
    fleet(int(sys.argv[2]) if len(sys.argv) > 2 else 50)
    for _ in range(3):
        viewers(0)
        viewers(int(sys.argv[3]) if len(sys.argv) > 3 else 100)
