"""A headless Chromium without a network, which counts every request that a page makes."""

import json
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
# As root it needs no-sandbox; the others keep it from requests and first-run pages of its own.
SWITCHES = ("headless no-sandbox disable-gpu disable-quic no-first-run disable-sync "
            "disable-background-networking disable-component-update").split()
READY_SECONDS = 30
POLL_SECONDS = 0.02


class Browser(webdriver.Chrome):
    def __init__(self):
        self._profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        options = Options()
        options.binary_location = CHROMIUM
        for switch in SWITCHES:
            options.add_argument("--" + switch)
        options.add_argument("--user-data-dir=" + self._profile.name)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        super().__init__(service=Service(CHROMEDRIVER), options=options)
        self.execute_cdp_cmd("Network.enable", {})
        self.execute_cdp_cmd("Network.emulateNetworkConditions", {
            "offline": True, "latency": 0, "downloadThroughput": 0, "uploadThroughput": 0})

    def quit(self):
        super().quit()
        self._profile.cleanup()

    def set_view(self, width=1400, height=1000, dark=False):
        self.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        scheme = "dark" if dark else "light"
        self.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def open(self, path, address=""):
        """Opens a page from disk; returns the seconds until it was ready."""
        self.get("about:blank")
        for kind in ("browser", "performance"):
            self.get_log(kind)
        begin = time.monotonic()
        self.get("file://" + path + address)
        self.wait("return document.documentElement.dataset.ready === 'true'")
        return time.monotonic() - begin

    def wait(self, script, *arguments):
        """Waits until the script's result is true."""
        WebDriverWait(self, READY_SECONDS, POLL_SECONDS).until(
            lambda _: self.execute_script(script, *arguments), f"never true: {script}")

    def requests(self):
        """The addresses that were requested since the page was opened."""
        events = [json.loads(entry["message"])["message"] for entry in self.get_log("performance")]
        return [event["params"]["request"]["url"] for event in events
                if event["method"] == "Network.requestWillBeSent"]

    def console(self):
        return [entry["message"] for entry in self.get_log("browser")]

    def text(self, selector):
        return next(iter(self.texts(selector)), None)

    def texts(self, selector):
        return self.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map((node) => node.innerText)",
            selector)

    def click(self, selector, shows="html"):
        """Clicks, and waits until the page has what that shows."""
        self.execute_script("document.querySelector(arguments[0]).click()", selector)
        self.wait("return document.querySelector(arguments[0]) !== null", shows)
