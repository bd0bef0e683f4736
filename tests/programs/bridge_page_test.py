# SPDX-License-Identifier: MIT
"""The bridge's page in Chromium, against a simulated controller. VELTA_PICTURES names a folder for screenshots."""

import os
import pathlib
import re
import signal
import time
import urllib.parse

import pytest
from selenium import webdriver
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.chrome.service import Service

from bridge import bridge
from conftest import wait_until

QUIET = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
         "--disable-component-update --disable-sync --window-size=1280,900").split()


class Page:
    """A window with the page."""

    def __init__(self, browser, url):
        self.browser = browser
        self.window = browser.current_window_handle
        browser.get(url)

    def connected(self):
        wait_until(lambda: self.text("#health") == "connected")
        return self

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.one(selector).text

    def click(self, label):
        self.browser.execute_script("scrollTo(0, 0)")  # from under the header
        button = self.one(f"#{label.lower().replace(' ', '-').replace('-control', '').replace('give-back', 'give')}")
        assert button.text == label
        wait_until(button.is_enabled, f"{label} enabled")
        button.click()

    def cell(self, joint, column):
        columns = {"position": 2, "mode": 6, "servo": 7, "trajectory": 8, "fault": 9}
        return self.text(f"tbody tr:nth-child({joint}) td:nth-child({columns[column]})")

    def position(self, joint):
        return float(self.cell(joint, "position"))

    def jog(self, joint, direction):
        return self.one(f"button[aria-label='Jog joint {joint} {direction}']")

    def hold(self, element):
        ActionChains(self.browser).click_and_hold(element).perform()

    def release(self):
        ActionChains(self.browser).release().perform()

    def settled(self, joint):
        """Waits until the joint rests; returns its position."""
        seen = [None] * 4

        def rests():
            seen.append(self.position(joint))
            time.sleep(0.25)
            return len(set(seen[-4:])) == 1

        wait_until(rests, "the joint at rest")
        return seen[-1]

    def begin(self):
        self.click("Take control")
        self.click("Servo on")
        wait_until(lambda: self.cell(1, "servo") == "on")

    def picture(self, name):
        folder = os.environ.get("VELTA_PICTURES")
        if folder:
            time.sleep(0.5)
            self.browser.save_screenshot(str(pathlib.Path(folder, f"{name}.png")))


@pytest.fixture(scope="module")
def chromium(tmp_path_factory):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in [*QUIET, f"--user-data-dir={tmp_path_factory.mktemp('profile')}"]:
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    running = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    yield running
    running.quit()


@pytest.fixture
def browser(chromium):
    """The browser with a new window, in front of one that stays empty."""
    empty = chromium.current_window_handle
    chromium.switch_to.new_window("window")
    chromium.get_log("browser")
    yield chromium
    chromium.switch_to.window(empty)
    for window in set(chromium.window_handles) - {empty}:
        chromium.execute_cdp_cmd("Target.closeTarget", {"targetId": window.split("-")[-1]})


@pytest.fixture
def page(sim, bridge, browser):
    link = sim("-n", 6)
    program = bridge(link, "-n", 6, "--allow-commands", "--control-timeout", "5s")  # also on a busy machine
    shown = Page(browser, program.url).connected()
    shown.program, shown.arm = program, link
    return shown


def test_a_person_moves_the_arm_and_stops_it(page, browser):
    page.begin()
    page.hold(page.jog(2, "+"))
    wait_until(lambda: browser.find_elements(By.CSS_SELECTOR, "tbody tr:nth-child(2) td.lit"))
    wait_until(lambda: page.position(2) > 3)
    assert page.cell(2, "mode") == "position"
    low, high = map(float, page.text("figure .range").split(" … "))
    assert low <= 0 and high > 2, "the plot shows the motion"
    page.picture("bridge-page")
    page.release()
    rest = page.settled(2)
    assert page.position(1) == 0
    page.hold(page.jog(2, "-"))
    wait_until(lambda: page.position(2) < rest - 1)
    ActionChains(browser).move_to_element(page.one("h1")).perform()  # the pointer leaves while it is pressed
    assert page.jog(2, "-").get_attribute("class") == "", "no longer active"
    page.settled(2)
    page.release()
    page.hold(page.jog(2, "+"))
    browser.execute_script("dispatchEvent(new Event('blur'))")  # as when another window comes to the front
    assert page.jog(2, "+").get_attribute("class") == ""
    page.release()
    page.jog(3, "+").send_keys(Keys.NULL)  # focused
    ActionChains(browser).key_down(Keys.ENTER, page.jog(3, "+")).perform()
    wait_until(lambda: page.position(3) > 1)
    ActionChains(browser).key_up(Keys.ENTER).perform()
    page.settled(3)
    goal = page.one("input[aria-label='Position for joint 4']")
    goal.send_keys("2.5", Keys.ENTER)
    wait_until(lambda: page.position(4) == 2.5)
    page.one("#trajectory summary").click()
    wait_until(page.one("#points").is_displayed)
    page.one("#points").send_keys("0.2,30\n60,90,,,,45")
    page.click("Run")
    wait_until(lambda: page.cell(1, "trajectory") == "moving" and page.position(1) > 20)
    page.one("#points").send_keys(Keys.SPACE)  # wherever the focus is
    wait_until(lambda: page.cell(1, "trajectory") == "cancelled")
    wait_until(lambda: "was stopped" in page.text("#banner"))
    assert not page.one("#servo-on").is_enabled()
    page.settled(1)
    page.click("Rearm")
    page.click("Servo off")
    wait_until(lambda: page.cell(6, "servo") == "off")
    page.click("Give back")
    wait_until(lambda: page.text("#holder") == "Nobody holds control.")
    assert [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"] == []


def test_a_second_window_cannot_command_but_stop(page, browser):
    page.begin()
    browser.switch_to.new_window("window")
    second = Page(browser, page.program.url).connected()
    wait_until(lambda: second.text("#holder") == "Somebody else holds control.")
    assert not second.one("#take").is_enabled() and not second.jog(1, "+").is_enabled()
    browser.execute_script("command(everyJoint(ORDER.servoOff))")
    wait_until(lambda: "refused: control not held" in second.text("#log"))
    second.click("STOP")
    wait_until(lambda: "was stopped" in second.text("#banner"))
    browser.switch_to.window(page.window)
    browser.refresh()
    wait_until(lambda: "was stopped" in page.connected().text("#banner"))
    assert page.cell(1, "servo") == "on"


def test_motion_ends_with_its_window(page, browser):
    watcher = page.window
    browser.switch_to.new_window("window")
    mover = Page(browser, page.program.url).connected()
    mover.begin()
    mover.hold(mover.jog(1, "+"))
    wait_until(lambda: mover.position(1) > 1)
    browser.close()
    browser.switch_to.window(watcher)
    wait_until(lambda: page.text("#holder") == "Nobody holds control.")
    wait_until(lambda: "was stopped" in page.text("#banner"))
    page.settled(1)


def test_a_page_keeps_control_until_it_is_hidden(page, browser):
    page.begin()
    sent = browser.execute_script("return lastSent")
    wait_until(lambda: browser.execute_script("return lastSent") > sent, "a heartbeat")
    browser.execute_script("Object.defineProperty(document, 'hidden', {get: () => true});"
                           "document.dispatchEvent(new Event('visibilitychange'))")
    wait_until(lambda: page.one("#take").is_enabled())
    assert page.text("#banner") == "", "which stops nothing"


def test_what_is_gone_shows_and_comes_back(page, bridge):
    page.arm.process.send_signal(signal.SIGSTOP)
    wait_until(lambda: page.text("#health") == "arm away")
    wait_until(lambda: re.search(r"numbers are [1-9]\d* s old", page.text("#banner")))
    assert "stale" in page.one("body").get_attribute("class")
    page.arm.process.send_signal(signal.SIGCONT)
    page.connected().program.stop(signal.SIGKILL)
    wait_until(lambda: page.text("#health") == "bridge gone" and "bridge is gone" in page.text("#banner"))
    bridge(page.arm, "-n", 6, "--web", urllib.parse.urlsplit(page.program.url).netloc)
    wait_until(lambda: "View only" in page.connected().text("#holder"))


def test_the_token_comes_from_the_fragment(sim, bridge, browser, tmp_path):
    secret = tmp_path / "token"
    secret.write_text("s3cret")
    program = bridge(sim(), "--token-file", secret)
    wrong = Page(browser, program.url + "#wrong")
    wait_until(lambda: "wrong token" in wrong.text("#log"))
    assert wrong.text("tbody") == ""
    browser.get("about:blank")
    right = Page(browser, program.url + "#s3cret").connected()
    wait_until(lambda: "View only" in right.text("#holder"))


def test_a_fault_is_red_and_a_phone_has_everything_in_sight(page, browser):
    page.begin()
    browser.execute_script("command([jointCommand(4, 255, 12)])")
    wait_until(lambda: page.cell(5, "fault") == "0x0000000c")
    assert "faulty" in page.one("tbody tr:nth-child(5)").get_attribute("class")
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                            {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True})
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
    browser.execute_script("scrollTo(0, 2000)")
    assert browser.execute_script("return document.documentElement.scrollWidth") <= 390
    top = browser.execute_script("return document.getElementById('stop').getBoundingClientRect().top")
    assert 0 <= top < 844
    browser.execute_script("scrollTo(0, 0)")
    page.picture("bridge-page-phone")
