#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures what the bridge's page costs Chromium while 12 joints move at 50 Hz: the share of one core, of each process.

usage: bridge_page.py BUILD [JOINTS [SECONDS]]"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

BUILD = pathlib.Path(sys.argv[1])
JOINTS = sys.argv[2] if len(sys.argv) > 2 else "12"
SECONDS = float(sys.argv[3]) if len(sys.argv) > 3 else 10


def start(*command):
    """A program, and what it listens on."""
    program = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    return program, program.stdout.readline().split()[-1]


def seconds_used(folder):
    """Processor seconds of each of the browser's processes, by kind and number."""
    used = {}
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            command = (entry / "cmdline").read_text().replace("\0", " ")
            fields = (entry / "stat").read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if "chromium" in command.split(" ")[0] and folder in command:
            kind = re.search(r"--type=(\S+)|$", command)[1] or "browser"
            used[f"{kind} {entry.name}"] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return used


def main():
    folder = tempfile.mkdtemp()
    arm, link = start(BUILD / "tools/velta", "sim", "-n", JOINTS, "tcp://127.0.0.1:0")
    bridge, url = start(BUILD / "bridge/velta-bridge", "-n", JOINTS, link, "--web", "127.0.0.1:0")
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in "--headless", "--no-sandbox", "--disable-gpu", "--window-size=1280,900", f"--user-data-dir={folder}":
        options.add_argument(argument)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        browser.get(url)
        for words in ["servo-on"], ["ref-position", "1000"]:  # moves for a minute
            subprocess.run([BUILD / "tools/velta", "send", "-n", JOINTS, link, *words, "--select", "all", "--confirm"], check=True)
        time.sleep(11)  # until the plots are full
        before, began = seconds_used(folder), time.monotonic()
        states = browser.execute_script("return history.count")
        time.sleep(SECONDS)
        after, took = seconds_used(folder), time.monotonic() - began
        states = (browser.execute_script("return history.count") - states) / took
    finally:
        browser.quit()
        for program in bridge, arm:
            program.terminate()
            program.wait(20)
    shares = {name: 100 * (after[name] - before.get(name, 0)) / took for name in after}
    print(f"{JOINTS} joints, {states:.1f} states a second: {sum(shares.values()):.1f} % of a core")
    for name, share in sorted(shares.items(), key=lambda each: -each[1]):
        print(f"  {share:5.1f} %  {name}")


main()
