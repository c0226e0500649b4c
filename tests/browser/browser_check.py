"""Opens every page of a running Guardian in a browser, clicks every link and looks for the effect.

Ends with 0 when all is as it should be, else with 1 and one line about the first thing that is not.
"""

import os
import re
import shutil
import signal
import sys
import tempfile
import time
import traceback
import urllib.parse

from selenium.common.exceptions import WebDriverException

from browser import Browser
from check import CheckFailed, await_that, require
from guardian import MAIN_PAGE, PORT, Guardian, refuse_what_is_in_use

TITLE = "Vellumark Guardian 1.50, Build 10"
EFFECT_SECONDS = 3
WHOLE_CHECK_SECONDS = 110

START_LINK = "Click here to start the VellumarkCL daemon"
LINKS = [
    ("Click here to see the log files", "logfiles.php"),
    ("Click here to see the thread report", "threadreport.php"),
    (START_LINK, "startdaemon.php"),
    ("Click here to stop the VellumarkCL daemon gracefully", "stopdaemon.php"),
    ("Click here to send a STOP signal to the VellumarkCL daemon", "terminatedaemon.php"),
    ("Click here to kill the VellumarkCL daemon", "killdaemon.php"),
    ("Click here to terminate the Guardian process", "terminateguardian.php"),
]

# Page, its answer, and the line that tells of the deed.
ENDING_PAGES = [
    ("stopdaemon.php", "VellumarkCL will be asked to stop.",
     "Executed {daemon} stop, Result: VellumarkCL stopped, PID {pid}."),
    ("terminatedaemon.php", "STOP signal will be sent to VellumarkCL",
     "Executed kill {pid}, Result:"),
    ("killdaemon.php", "KILL signal will be sent to VellumarkCL",
     "Executed kill -9 {pid}, Result:"),
]

# Newest first, as the page lists them; the daemon's own log is newer still.
LOG_FILES = [
    (b"plain.log", "a plain line\n"),
    (b"odd name \"100%\" <b>'x'&amp; #1?.log", "<b>no markup</b> &amp; \"quotes\"\n"),
    ("übergröße.log".encode(), "line one\n\n  line three\n"),
    (b"latin \xe4.log", "its name is no UTF-8\n"),
    (b"empty.log", ""),
]


def say(text):
    print(f"browser check: {text}", flush=True)


def link_text_of(page):
    return next(text for text, href in LINKS if href == page)


def write_log_files(folder):
    for age, (name, content) in enumerate(LOG_FILES, start=1):
        path = os.path.join(os.fsencode(folder), name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        os.utime(path, times=(1_700_000_000 - age, 1_700_000_000 - age))


def await_healthy(browser, guardian):
    def healthy():
        browser.open(MAIN_PAGE)
        status = f": MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID={guardian.daemon_pid()}"
        return guardian.daemon_runs() and browser.count("b") == 1 and status in browser.bold_text()

    seconds = await_that("all of MutexOK, PipeStatusOK and ServiceOK on the main page", healthy, 45)
    say(f"main page shows a healthy daemon after {seconds:.1f} s")


def check_main_page(browser, guardian):
    require(browser.title() == TITLE, f"the main page's title is {browser.title()!r}")
    text = browser.text()
    for part in (TITLE, f"Daemon Path: {guardian.daemon_path}, Exists: Y", "Mutex Path: ",
                 f"Running as user ID: {os.getuid()}", "Additional Information", "Command Line: ",
                 "Allocated Memory: ", f"Log Path: {guardian.logs_folder}",
                 "Process List (ps) as of ", "Guardian Activity Log:", "INFO: Guardian Service",
                 "Initial output: TMP=", "Detailed Activity Log:", "Guardian started, v1.50"):
        require(part in text, f"the main page does not show {part!r}")
    require(browser.links() == LINKS, f"the main page's links are {browser.links()}")
    browser.shot("main-page")
    browser.require_clean()


def check_log_files(browser, guardian):
    browser.open(MAIN_PAGE)
    browser.click(link_text_of("logfiles.php"))
    require("Log Files in Reverse Order" in browser.text(), "the log list lacks its heading")
    shown = [text for text, _ in browser.links()]
    names = ["daemon.log"] + [name.decode("utf-8", "replace") for name, _ in LOG_FILES]
    require(shown == names, f"the log list shows {shown} instead of {names}")
    require(browser.count("b") == 0, "a file's name became markup on the log list")
    browser.shot("log-files")
    browser.require_clean()
    contents = [None] + [content for _, content in LOG_FILES]
    for index, (name, content) in enumerate(zip(names, contents)):
        browser.click_into_new_tab(index)
        check_download(browser, guardian, name, content)
        browser.shot(f"download-{index + 1}")
        browser.close_tab()
    browser.require_clean()
    say(f"the log list and its {len(names)} files are as they should be")


def check_download(browser, guardian, name, content):
    shown = browser.raw_text()
    if content is not None:
        require(shown == content, f"the file {name!r} shows {shown!r} instead of {content!r}")
        return
    with open(os.path.join(guardian.logs_folder, name), encoding="utf-8") as file:
        written = file.read()
    require(shown and written.startswith(shown), f"the file {name!r} is not shown as it stands")


def check_thread_report(browser, guardian):
    browser.open(MAIN_PAGE)
    browser.click(link_text_of("threadreport.php"))
    lines = browser.text().splitlines()
    require(lines[0] == "Thread Report", f"the thread report begins with {lines[0]!r}")
    threads = [line for line in lines if re.match(r"Thread \d+, CP: ", line)]
    count = f"Number of threads: {len(threads)}"
    require(len(threads) >= 2 and count in lines, f"the thread report lacks {count!r}, 2 or more")
    main_thread = f"Thread {guardian.pid()}, CP: "
    require(threads[0].startswith(main_thread), f"the thread report lacks {main_thread!r}")
    browser.shot("thread-report")
    browser.require_clean()


def check_pages_without_link(browser):
    browser.open(MAIN_PAGE + "status.php")
    answer = f"Guardian running and accessible via port {PORT}."
    require(browser.text() == answer, f"status.php shows {browser.text()!r}")
    browser.shot("status")
    browser.open(MAIN_PAGE + "nosuchpage.php")
    require(browser.text() == TITLE, f"an unknown page shows {browser.text()!r}")
    browser.shot("unknown-page")
    browser.require_clean()


def check_link_from_another_site(browser, guardian):
    pid = guardian.daemon_pid()
    page = f'<a href="{MAIN_PAGE}killdaemon.php">elsewhere</a>'
    browser.open("data:text/html," + urllib.parse.quote(page))
    browser.click("elsewhere")
    require(browser.text() == "Refused: the request comes from another site.",
            f"another site's link to killdaemon.php shows {browser.text()!r}")
    browser.shot("refused-from-another-site")
    browser.require_clean(expected_console_text="403")
    require(guardian.daemon_pid() == pid and guardian.daemon_runs(),
            "another site ended the daemon")


def click_control_page(browser, page, answer):
    """Returns the moment of the click."""
    browser.open(MAIN_PAGE)
    clicked_at = time.monotonic()
    browser.click(link_text_of(page))
    require(browser.text() == answer, f"{page} answers {browser.text()!r}")
    browser.shot(page.removesuffix(".php"))
    return clicked_at


def await_effect(browser, page, shows_effect, clicked_at):
    def seen():
        browser.open(MAIN_PAGE)
        return shows_effect()

    try:
        seconds = await_that(f"the effect of {page} on the main page", seen, EFFECT_SECONDS,
                             clicked_at)
    except CheckFailed as failure:
        browser.shot(page.removesuffix(".php") + "-without-effect")
        raise CheckFailed(f"{failure}, which shows {browser.bold_text()!r}") from None
    browser.shot(page.removesuffix(".php") + "-effect")
    browser.require_clean()
    say(f"the effect of {page} was seen after {seconds:.1f} s")


def check_ending_page(browser, guardian, page, answer, line):
    """The daemon cannot start meanwhile, so that the watchdog does not hide the effect."""
    guardian.order_fault("start-fails")
    pid = guardian.daemon_pid()
    line = line.format(daemon=guardian.daemon_path, pid=pid)
    clicked_at = click_control_page(browser, page, answer)
    await_effect(browser, page, lambda: line in browser.text(), clicked_at)
    await_that(f"the end of the daemon by {page}", lambda: not guardian.daemon_runs(), 3)
    guardian.order_fault("")


def check_start_page(browser, guardian):
    executed = f"Executed {guardian.daemon_path} start, Result: VellumarkCL started."
    browser.open(MAIN_PAGE)
    before = browser.text().count(executed)
    clicked_at = click_control_page(browser, "startdaemon.php", "VellumarkCL will be started")

    def started():
        return (browser.text().count(executed) > before and guardian.daemon_runs() and
                browser.bold_text().endswith(f", ServiceOK=Y, PID={guardian.daemon_pid()}"))

    await_effect(browser, "startdaemon.php", started, clicked_at)


def check_terminate_page(browser, guardian):
    clicked_at = click_control_page(browser, "terminateguardian.php", "Guardian stopped.")
    seconds = await_that("the Guardian's end by terminateguardian.php", guardian.has_ended,
                         EFFECT_SECONDS, clicked_at)
    require(guardian.exit_code() == 0, f"the Guardian's exit code is {guardian.exit_code()}")
    browser.require_clean()
    try:
        browser.open(MAIN_PAGE)
    except WebDriverException as error:
        require("ERR_CONNECTION_REFUSED" in error.msg, f"after the Guardian's end: {error.msg}")
    else:
        raise CheckFailed("the main page still answers after terminateguardian.php")
    browser.shot("guardian-ended")
    require(guardian.daemon_runs(), "the daemon did not outlive the Guardian")
    require(not guardian.left_in_temp_folder(), f"left behind: {guardian.left_in_temp_folder()}")
    say(f"the effect of terminateguardian.php was seen after {seconds:.1f} s")


def check_all(browser, guardian):
    write_log_files(guardian.logs_folder)
    guardian.start()
    browser.start()
    await_healthy(browser, guardian)
    check_main_page(browser, guardian)
    check_log_files(browser, guardian)
    check_thread_report(browser, guardian)
    check_pages_without_link(browser)
    check_link_from_another_site(browser, guardian)
    for page, answer, line in ENDING_PAGES:
        check_ending_page(browser, guardian, page, answer, line)
        check_start_page(browser, guardian)
    check_terminate_page(browser, guardian)
    browser.quit()


def check_in_folder(bin_folder, folder, screenshot_folder):
    guardian = Guardian(bin_folder, os.path.join(folder, "guardian"))
    browser = None
    try:
        browser = Browser(os.path.join(folder, "browser"), screenshot_folder)
        check_all(browser, guardian)
    except BaseException:
        print(f"What the Guardian printed:\n{guardian.output()}", file=sys.stderr)
        raise
    finally:
        # A second signal must not leave anything running.
        for number in INTERRUPTIONS:
            signal.signal(number, signal.SIG_IGN)
        try:
            if browser is not None:
                browser.end()
        finally:
            guardian.end()


INTERRUPTIONS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGALRM)


def interrupt(number, _frame):
    reason = f"it took more than {WHOLE_CHECK_SECONDS} s" if number == signal.SIGALRM \
        else f"interrupted by {signal.Signals(number).name}"
    raise CheckFailed(reason)


def main(bin_folder, screenshot_folder):
    for number in INTERRUPTIONS:
        signal.signal(number, interrupt)
    signal.alarm(WHOLE_CHECK_SECONDS)
    # A proxy would take the browser's and the driver's talk off this machine.
    for name in [name for name in os.environ if name.lower().endswith("_proxy")]:
        del os.environ[name]
    shutil.rmtree(screenshot_folder, ignore_errors=True)
    os.makedirs(screenshot_folder)
    say(f"screenshots go to {screenshot_folder}")
    try:
        refuse_what_is_in_use()
        with tempfile.TemporaryDirectory(prefix="guardian-browser-",
                                         ignore_cleanup_errors=True) as folder:
            for name in ("guardian", "browser"):
                os.mkdir(os.path.join(folder, name))
            check_in_folder(bin_folder, folder, screenshot_folder)
    except CheckFailed as failure:
        say(f"FAILED: {failure}")
        return 1
    except Exception as error:  # Of the driver, mostly: its first line says what is wrong.
        traceback.print_exc()
        say(f"FAILED: {type(error).__name__}: {str(error).splitlines()[:1]}")
        return 1
    say("passed")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
