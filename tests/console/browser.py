"""A browser and the console, for tests: what a person does on the page, and what the page then shows.

Every wait has a limit; a failure's text says what was waited for.
"""
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import time
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select

from paths import ROOT

LIMIT = 60      # seconds for anything that must come; a busy machine takes long for a boot


def until(check, what, limit=LIMIT):
    """What check gives as soon as it is true. An element that the page replaces meanwhile is looked for again."""
    end = time.monotonic() + limit
    while True:
        try:
            result = check()
        except StaleElementReferenceException:
            result = None
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit} s: {what() if callable(what) else what}")
        time.sleep(0.05)


class Console:
    """The console as `make console` starts it, on a port that is free. Its files are in a folder of the test's."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.program = subprocess.Popen(
            [sys.executable, "-B", ROOT / "tools/console/main.py", "--port", "0"], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, env=os.environ | {"TMPDIR": str(folder)}, start_new_session=True)
        ready, _, _ = select.select([self.program.stdout], [], [], LIMIT)
        line = self.program.stdout.readline() if ready else ""
        found = re.search(r"http://\S+", line)
        if not found:
            self.end()
            raise AssertionError(f"the console does not start: {line}")
        self.address = found[0]

    def processes(self):
        """The machine, and all else that the console has started."""
        found = subprocess.run(["ps", "-eo", "pid,ppid,args"], stdout=subprocess.PIPE, text=True, check=True).stdout
        return [line for line in found.splitlines()[1:] if int(line.split()[1]) == self.program.pid]

    def do(self, action, **arguments):
        """What a page asks, without a page."""
        request = urllib.request.Request(f"{self.address}do/{action}", json.dumps(arguments).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=LIMIT) as answer:
            return json.loads(answer.read())

    def end(self):
        """By Ctrl-C; what it has printed since, and how it ended."""
        if self.program.poll() is None:
            os.killpg(self.program.pid, signal.SIGINT)      # to all, as a terminal does
        try:
            text, _ = self.program.communicate(timeout=LIMIT)
        except subprocess.TimeoutExpired:
            self.program.kill()
            text, _ = self.program.communicate()
        return text, self.program.returncode


class Page:
    """A browser that shows the console."""

    def __init__(self, address):
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1280,900"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.driver = webdriver.Chrome(options=options,
                                       service=webdriver.chrome.service.Service("/usr/bin/chromedriver"))
        self.address = address
        self.open()

    def open(self):
        """Anew, as whoever comes to it."""
        self.driver.get(self.address)

    def close(self):
        self.driver.quit()

    # ---- looking ----

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return until(lambda: self.all(selector), f"{selector}")[0]

    def text(self, selector):
        return self.driver.execute_script("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def texts(self, selector):
        """Of all that are shown."""
        return self.driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])].filter((one) => !one.hidden)"
            ".map((one) => one.textContent)", selector)

    def wait_text(self, selector, wanted):
        until(lambda: wanted in self.text(selector), lambda: f"{wanted!r} in {selector}: {self.text(selector)!r}")

    def records(self):
        """The heads of the lines, without their times: "usb → sdcmscanid=scan begin"."""
        return [re.sub(r"^[\d.]+", "", text) for text in self.texts("#list-record .line:not([hidden]) > summary")]

    def wait_record(self, *words):
        until(lambda: any(all(word in line for word in words) for line in self.records()),
              lambda: f"a record with {words} in\n" + "\n".join(self.records()))

    def complaints(self):
        """What the browser's console says."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def asked(self):
        """The addresses of everything that the page has loaded."""
        events = [json.loads(entry["message"])["message"] for entry in self.driver.get_log("performance")]
        return [event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"]

    # ---- ports ----

    def state(self, port):
        return self.driver.execute_script(
            "return document.querySelector(`[data-port='${arguments[0]}'] .lit`)?.dataset.state", port)

    def wait_state(self, port, state):
        until(lambda: self.state(port) == state, lambda: f"{state} at port {port}, which shows {self.state(port)}")

    def trail(self, port):
        return self.texts(f"[data-port='{port}'] .trail li")

    # ---- doing ----

    def press(self, selector):
        def pressed():
            button = self.one(selector)
            if not button.is_enabled():
                return False
            self.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", button)
            button.click()
            return True
        until(pressed, f"a press on {selector}")

    def plug(self, place, kind, **fields):
        self.press(f"[data-plug='{place}']")
        Select(self.one("#plug-kind")).select_by_value(kind)
        self.fill("#plug", fields)
        self.press("#plug button.main")
        until(lambda: not self.one("#plug").is_displayed(), lambda: f"the end of plugging: {self.text('#plug .said')}")
        self.one(f"[data-place='{place}'] strong")

    def pull(self, place):
        buttons = self.one(f"[data-place='{place}']").find_elements(By.XPATH, "./button[text()='Pull']")
        buttons[0].click()
        self.one(f"[data-plug='{place}']")

    def ask(self, request, **fields):
        form = f"form[data-request='{request}']"
        self.driver.execute_script("arguments[0].closest('details').open = true", self.one(form))
        self.fill(form, fields)
        self.press(f"{form} button.main")

    def choose(self, select, label):
        Select(self.one(select)).select_by_visible_text(label)

    def fill(self, form, fields):
        for name, value in fields.items():
            field = self.one(f"{form} [name='{name}']")
            if field.tag_name == "select":
                Select(field).select_by_visible_text(value)
            else:
                self.driver.execute_script("const folded = arguments[0].closest('details:not(.group)');"
                                           "if (folded) folded.open = true", field)
                field.clear()
                field.send_keys(value)
