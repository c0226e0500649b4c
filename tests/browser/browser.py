"""Headless Chromium, held to loopback, with an eye on its console and on what it requests."""

import ipaddress
import json
import os
import signal
import subprocess
import urllib.parse

from selenium import webdriver
from selenium.webdriver.common.by import By

from check import CheckFailed, await_that, require
from guardian import PORT

PAGE_LIMIT_SECONDS = 10
WINDOW_WIDTH = 1100
MIN_HEIGHT = 200
MAX_HEIGHT = 6000
FRAME_HEIGHT = 220  # What a window needs besides its page.

# Chromium looks for updates and accounts on its own account; without names it reaches nobody.
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--no-proxy-server",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost")


class Browser:
    def __init__(self, folder, screenshot_folder):
        self._net_log = os.path.join(folder, "net-log.json")
        self._screenshot_folder = screenshot_folder
        self._shots = 0
        self._driver = None
        self._driver_output = os.path.join(folder, "driver.out")
        with open(self._driver_output, "wb") as output:
            # A process group of its own, which the browser joins: they are ended together.
            self._driver_process = subprocess.Popen(
                ["chromedriver", "--port=0"], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, start_new_session=True,
                env={**os.environ, "HOME": folder, "TMPDIR": folder})
        self._profile = os.path.join(folder, "profile")

    def start(self):
        await_that("chromedriver's line about its port", self._driver_port, 20)
        options = webdriver.ChromeOptions()
        for flag in FLAGS:
            options.add_argument(flag)
        options.add_argument(f"--user-data-dir={self._profile}")
        options.add_argument(f"--log-net-log={self._net_log}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self._driver = webdriver.Remote(f"http://127.0.0.1:{self._driver_port()}", options=options)
        self._driver.set_page_load_timeout(PAGE_LIMIT_SECONDS)
        # The browser's own first page is none of ours.
        self._driver.get("about:blank")
        self._take_requests()
        self._driver.get_log("browser")

    def quit(self):
        """Closes the browser; what it sent anywhere but to loopback is a failure."""
        self._driver.quit()
        found = _outside_traffic(self._net_log)
        require(not found, f"traffic left loopback: {found}")

    def end(self):
        """Ends whatever still runs, without asking it: it may hang."""
        try:
            os.killpg(self._driver_process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self._driver_process.wait(5)

    def open(self, url):
        self._driver.get(url)

    def click(self, link_text):
        self._driver.find_element(By.LINK_TEXT, link_text).click()

    def links(self):
        """Text and address as written of every link of the page, in order."""
        return [(link.text, link.get_dom_attribute("href"))
                for link in self._driver.find_elements(By.TAG_NAME, "a")]

    def click_into_new_tab(self, index):
        """Clicks the page's link of that index, which opens a tab of its own, and goes there."""
        before = set(self._driver.window_handles)
        self._driver.find_elements(By.TAG_NAME, "a")[index].click()
        await_that("a tab for the link", lambda: set(self._driver.window_handles) - before, 3)
        self._driver.switch_to.window((set(self._driver.window_handles) - before).pop())
        await_that("the tab's page", lambda: self._driver.current_url != "about:blank", 3)

    def close_tab(self):
        self._driver.close()
        self._driver.switch_to.window(self._driver.window_handles[0])

    def title(self):
        return self._driver.title

    def text(self):
        """The page as a reader sees it."""
        return self._driver.find_element(By.TAG_NAME, "body").text

    def raw_text(self):
        """The page's text with every blank and line feed that it has."""
        return self._driver.execute_script("return document.body.textContent")

    def bold_text(self):
        return self._driver.find_element(By.TAG_NAME, "b").text

    def count(self, tag_name):
        return len(self._driver.find_elements(By.TAG_NAME, tag_name))

    def shot(self, name):
        """A picture of the whole page, numbered in the order of the check."""
        self._shots += 1
        # A page without a doctype is as high as its window, so that is made low first.
        for height in (MIN_HEIGHT, None):
            height = height or self._driver.execute_script("return document.body.scrollHeight")
            self._driver.set_window_size(WINDOW_WIDTH, min(height + FRAME_HEIGHT, MAX_HEIGHT))
        path = os.path.join(self._screenshot_folder, f"{self._shots:02}-{name}.png")
        require(self._driver.save_screenshot(path), f"the screenshot cannot be written: {path}")

    def require_clean(self, expected_console_text=None):
        """No error in the console, but for the one that is expected, which then must be there; no
        request of a page but to the Guardian."""
        errors = [entry["message"] for entry in self._driver.get_log("browser")
                  if entry["level"] == "SEVERE"]
        expected = [text for text in errors if expected_console_text and
                    expected_console_text in text]
        unexpected = [text for text in errors if text not in expected]
        require(not unexpected, f"console error: {unexpected[:1]}")
        require(expected or not expected_console_text, f"no console error {expected_console_text}")
        for url in self._take_requests():
            parts = urllib.parse.urlsplit(url)
            ours = parts.scheme == "http" and parts.netloc == f"localhost:{PORT}"
            require(ours or parts.scheme == "data", f"request that leaves the Guardian: {url}")

    def _take_requests(self):
        messages = (json.loads(entry["message"])["message"]
                    for entry in self._driver.get_log("performance"))
        return [message["params"]["request"]["url"] for message in messages
                if message["method"] == "Network.requestWillBeSent"]

    def _driver_port(self):
        if self._driver_process.poll() is not None:
            raise CheckFailed(f"chromedriver ended with {self._driver_process.returncode}")
        with open(self._driver_output, encoding="utf-8", errors="replace") as file:
            for line in file:
                if "started successfully on port" in line:
                    return int(line.split()[-1].rstrip("."))
        return 0


def _outside_traffic(net_log):
    """Where the whole browser, not only its pages, connected or sent to outside of loopback."""
    try:
        with open(net_log, encoding="utf-8", errors="replace") as file:
            log = json.load(file)
    except (OSError, ValueError) as error:
        raise CheckFailed(f"the browser's log of its traffic cannot be read: {error}") from error
    names = {number: name for name, number in log["constants"]["logEventTypes"].items()}
    udp_peers = {}
    outside = set()
    connects = 0
    for event in log["events"]:
        name, source = names[event["type"]], event["source"]["id"]
        address = event.get("params", {}).get("address")
        if name == "UDP_CONNECT" and address:
            udp_peers[source] = address  # Sends nothing yet.
        elif name == "UDP_BYTES_SENT":
            outside.add(address or udp_peers.get(source, "unknown"))
        elif name == "TCP_CONNECT_ATTEMPT" and address:
            connects += 1
            outside.add(address)
    require(connects, "the browser's log of its traffic holds no connection at all")
    return sorted(address for address in outside if not _is_loopback(address))


def _is_loopback(address):
    try:
        return ipaddress.ip_address(address.rpartition(":")[0].strip("[]")).is_loopback
    except ValueError:
        return False
