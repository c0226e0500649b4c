# Opens the Guardian's pages in headless Chromium, under their content policy, and clicks.
#   browser_check.py BIN_FOLDER AXE
# AXE is the script of the accessibility check.
# Ends with 77, skipped, where no browser is installed. "scripts/setup browser" installs one.

import http.server
import os
import signal
import sys
import tempfile
import threading

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
except ImportError:
    print("browser check: skipped, selenium is not installed")
    sys.exit(77)

from installation import PORT, Installation, await_that, require

MAIN_PAGE = f"http://localhost:{PORT}/"
# As a box of the network is called; a browser says less about its requests than to localhost.
BOX_PAGE = f"http://box:{PORT}/"
# What a stranger may let point anywhere.
REBOUND_PAGE = f"http://rebound.example:{PORT}/"
CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
# Chromium looks for updates and accounts by itself; without names it reaches nobody.
FLAGS = ("--headless", "--no-sandbox", "--disable-dev-shm-usage", "--disable-component-update",
         "--no-proxy-server", "--window-size=1100,2400",
         "--host-resolver-rules=MAP box 127.0.0.1, MAP neighbour 127.0.0.1, "
         "MAP rebound.example 127.0.0.1, MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1")
# Would run in a page without a content policy.
INTRUDER = "document.body.setAttribute('onclick', 'document.title = 1'); document.body.click()"


class Browser:
    def __init__(self, folder):
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for flag in (*FLAGS, f"--user-data-dir={folder}"):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.driver.set_page_load_timeout(10)

    # Opens the page and returns what a reader sees.
    def open(self, page="", site=MAIN_PAGE):
        self.driver.get(site + page)
        return self.text()

    def click(self, page):
        self.driver.find_element(By.CSS_SELECTOR, f'a[href="{page}"]').click()
        return self.text()

    def show_as(self, scheme, width):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": width < 500})

    def text(self):
        return self.driver.find_element(By.TAG_NAME, "body").text

    # No error in the console since the last call but those that are expected. A request to anywhere
    # would be one: the content policy forbids it.
    def require_clean(self, *expected):
        errors = [entry["message"] for entry in self.driver.get_log("browser")
                  if entry["level"] == "SEVERE"]
        require(len(errors) == len(expected) and all(map(str.count, errors, expected)),
                f"errors in the console, expected {expected}: {errors}")


def check_content_policy(browser):
    browser.open()
    browser.driver.execute_script(INTRUDER)
    require("Vellumark" in browser.driver.title, "a foreign script runs in the main page")
    browser.require_clean("Content Security Policy")


# The page of another web server, whose only link leads to the address that it is asked with.
class Neighbour(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        policy, _, target = self.path[1:].partition("?")
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(f'<a href="{target}" referrerpolicy="{policy}">x</a>'.encode())


def check_links_of_other_sites(browser):
    another = "Refused: the request comes from another site."
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Neighbour) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        for site, host, policy, refusal in (
                (MAIN_PAGE, "neighbour", "unsafe-url", another),
                (MAIN_PAGE, "localhost", "no-referrer", another),
                (BOX_PAGE, "neighbour", "unsafe-url", another),
                (BOX_PAGE, "neighbour", "no-referrer", "Refused: the browser does not say"),
                (REBOUND_PAGE, "rebound.example", "", "The Guardian does not answer to the name")):
            target = site + "killdaemon.php"
            browser.driver.get(f"http://{host}:{server.server_port}/{policy}?{target}")
            shown = browser.click(target)
            require(shown.startswith(refusal), f"{target} from {host}, {policy}: {shown!r}")
        server.shutdown()
    browser.driver.get_log("browser")  # The refusals stand there as errors.


# No page of these is worse for a phone, for a keyboard or for weak eyes than the check demands. The
# refreshing page has a link to one that stands still.
def check_accessibility(browser, axe):
    with open(axe, encoding="utf-8") as file:
        script = file.read()
    for page, rules in (("overview.html?still", {}),
                        ("overview.html", {"meta-refresh": {"enabled": False}}),
                        ("confirm.html?killdaemon.php", {}), ("hold.html?minutes=5", {}),
                        ("overview.html?still", {}), ("release.html", {})):
        for scheme, width in (("light", 390), ("dark", 390), ("light", 1280), ("dark", 1280)):
            browser.show_as(scheme, width)
            browser.open(page)
            browser.driver.execute_script(script)
            found = browser.driver.execute_async_script(
                "axe.run({rules: arguments[0]}).then(arguments[1])", rules)
            problems = [f"{each['id']}: {each['help']}" for each in found["violations"]]
            require(not problems and len(found["passes"]) > 5,
                    f"{page}, {scheme}, {width} px: {problems}, {len(found['passes'])} passed")
            require(browser.driver.execute_script("return document.body.scrollWidth") <= width,
                    f"{page} is wider than {width} px")
    browser.require_clean()


# From the overview over the question to the deed.
def check_overview(browser, installation, pid):
    require("All is well" in browser.open("overview.html"), "the overview of a healthy daemon")
    browser.click("confirm.html?killdaemon.php")
    require(installation.daemon_pid() == pid, "the question alone killed the daemon")
    browser.click("overview.html")
    require("On hold for 30 minutes" in browser.click("hold.html?minutes=30"), "no hold")
    require("On hold until" in browser.click("overview.html"), "the overview shows no hold")
    require("No hold any more" in browser.click("release.html"), "no release")
    browser.click("overview.html")
    browser.require_clean()


# A click on the page, an address that is typed after it, and the browser's history, which repeats
# nothing.
def check_control_pages(browser, installation, pid):
    browser.open()
    require(installation.daemon_pid() == pid, "a link of another site ended the daemon")
    for site, press in ((MAIN_PAGE, browser.click),
                        (BOX_PAGE, browser.click),
                        (BOX_PAGE, lambda page: browser.open(page, BOX_PAGE))):
        await_that("the daemon on the main page", lambda: f"PID={installation.daemon_pid() or '?'}"
                   in browser.open(site=site), 20)
        pid = installation.daemon_pid()
        shown = press("killdaemon.php")
        require(shown == "KILL signal will be sent to VellumarkCL", f"{site} shows {shown!r}")
        await_that("the daemon's end", lambda: installation.daemon_pid() != pid, 5)
        browser.driver.back()
        browser.driver.forward()
        await_that("the deed on the main page",
                   lambda: f"Executed kill -9 {pid}, Result:" in browser.open(site=site), 5)
    browser.click("stopdaemon.php")
    await_that("the last deed",
               lambda: "Trying to stop the service." in browser.open(site=BOX_PAGE), 5)
    repeated = browser.text().count("Executed kill")
    require(repeated == 3, f"{repeated} kills for 3 clicks")
    browser.require_clean()


def main(bin_folder, axe):
    if not all(map(os.path.exists, (CHROMIUM, DRIVER, axe))):
        print("browser check: skipped, chromium, its driver or axe-core is not installed")
        sys.exit(77)
    os.environ["no_proxy"] = "localhost,127.0.0.1"  # The driver's talk stays on this machine.
    with tempfile.TemporaryDirectory(prefix="guardian-browser-") as folder, \
            Installation(bin_folder, f"{folder}/guardian", "FastGuardian") as installation:
        signal.alarm(100)
        installation.start_guardian()
        browser = Browser(f"{folder}/browser")
        await_that("a healthy daemon on the main page",
                   lambda: "MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y" in browser.open(), 45)
        pid = installation.daemon_pid()
        check_links_of_other_sites(browser)
        check_content_policy(browser)
        check_overview(browser, installation, pid)
        check_accessibility(browser, axe)
        check_control_pages(browser, installation, pid)
    print("browser check: passed")


if __name__ == "__main__":
    main(*sys.argv[1:])
