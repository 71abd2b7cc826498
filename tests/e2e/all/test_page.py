"""The development portal's page in a real browser: what a person does with a terminal from its code to its removal, and
whether everybody can: axe-core looks at each state of the page.

Pictures go to the folder that NORVANE_SCREENSHOTS names, or to a temporary one.
"""

import contextlib
import hashlib
import json
import os
import pathlib
import sys
import tempfile
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.wait import WebDriverWait

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(REPOSITORY / "tests" / "e2e"))
from test_devportal import FACTS, UPDATES, Portal, ask  # noqa: E402

AXE = REPOSITORY / "build/tools/axe/node_modules/axe-core/axe.min.js"
RECORD = {"version": "1.1", "host": "LOBBY-PC", "short_message": "worker: " + "a long line " * 20, "timestamp": 1.5e9,
          "level": 4, "_component": "Kiosk", "_machine": "LOBBY-PC", "_tenant": "", "_site": "", "_seq": 1, "_pid": 7,
          "_started": 1.5e9, "_app_version": "1"}
MARKUP = "<img src=x onerror=document.title=1>"


class Terminal:
    """A terminal made of plain requests."""

    def __init__(self, portal, hostname="LOBBY-PC"):
        self.portal, self.headers = portal, {}
        self.code = self.ask("POST", "pair", FACTS | {"hostname": hostname})[1]["pairingCode"]

    def ask(self, method, path, body=None):
        return ask(self.portal, method, "/api/kiosk/" + path, body, self.headers)[:2]

    def collect(self):
        self.headers = {"Authorization": "Bearer " + self.ask("GET", "pair/" + self.code)[1]["deviceToken"]}

    def check_in(self, **report):
        return self.ask("POST", "check-in", {"appVersion": "1"} | report)


class PageTest(unittest.TestCase):
    def setUp(self):
        self.portal = Portal()
        self.addCleanup(self.portal.close)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self.addCleanup(profile.cleanup)
        for argument in ("headless=new", "no-sandbox", "disable-dev-shm-usage", "disable-gpu", "window-size=1280,1000",
                         "user-data-dir=" + profile.name):
            options.add_argument("--" + argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.addCleanup(self.browser.quit)
        folder = os.environ.get("NORVANE_SCREENSHOTS")
        self.pictures = pathlib.Path(folder or tempfile.mkdtemp(prefix="devportal-page-"))
        self.pictures.mkdir(parents=True, exist_ok=True)
        print(f"pictures in {self.pictures}")

    def until(self, condition, what):
        return WebDriverWait(self.browser, 10, poll_frequency=0.05).until(lambda browser: condition(), what)

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def field(self, terminal, name):
        return self.card(terminal, f"[name={name}]")

    def card(self, terminal, selector=""):
        return self.find(f"[data-terminal='{terminal}'] {selector}".strip())

    def type(self, field, text):
        field.send_keys(Keys.CONTROL, "a")
        field.send_keys(text)

    def says(self, terminal, text):
        self.until(lambda: text in self.card(terminal, "form .message").text, f"no message with {text!r}")

    @contextlib.contextmanager
    def width(self, width, height=1000):
        """Phones get their touch layout by the width alone."""
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})
        yield
        self.browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})

    def look(self, name):
        """Nothing hinders people seriously, and nothing needs scrolling sideways: on a desktop and on a phone."""
        for width in (1280, 390):
            with self.width(width):
                self.assertLessEqual(self.browser.execute_script("return document.documentElement.scrollWidth"), width, name)
                self.browser.execute_script("if (!window.axe) (0, eval)(arguments[0])", AXE.read_text())
                found = self.browser.execute_async_script(
                    "axe.run({resultTypes: ['violations']}).then(arguments[0], e => arguments[0](String(e)))")
                serious = [f"{each['impact']}: {each['id']}: {each['help']}: {[node['html'] for node in each['nodes']]}"
                           for each in found["violations"] if each["impact"] in ("serious", "critical")]
                self.assertEqual(serious, [], f"{name}, {width} px")
                height = self.browser.execute_script("return document.documentElement.scrollHeight")
            with self.width(width, height):
                self.assertTrue(self.browser.save_screenshot(str(self.pictures / f"{name}-{width}.png")))

    def test_a_terminal_from_its_code_to_its_removal(self):
        self.browser.get(self.portal.url + "/")
        self.until(lambda: "now: 0" in self.find("#waiting").text, "the empty page")
        self.look("empty")
        terminal = Terminal(self.portal)
        self.until(lambda: "now: 1" in self.find("#waiting").text, "the waiting code")

        code = self.find("#code")
        code.send_keys("WRONG", Keys.ENTER)
        self.until(lambda: "No terminal shows this code" in self.find("#pair-message").text, "the refusal")
        self.look("wrong-code")
        self.type(code, f"{terminal.code[:4]} {terminal.code[4:]}".lower() + Keys.ENTER)
        self.until(lambda: self.browser.find_elements(By.CSS_SELECTOR, "[data-terminal]"), "a card")
        number = self.portal.terminals()[0]["id"]
        self.until(lambda: self.card(number, ".badge").text == "waiting for the terminal", "the waiting state")
        self.look("waiting")
        terminal.collect()

        # What somebody is typing survives the list's refresh, which goes on around it.
        name = self.field(number, "name")
        self.type(name, "Front desk – Łódź")
        terminal.check_in(powerError="scheme refused " + MARKUP)
        self.until(lambda: MARKUP in self.card(number, "pre").text, "the report as plain text")
        self.assertEqual(name.get_attribute("value"), "Front desk – Łódź")
        name.send_keys(Keys.ENTER)
        self.says(number, "Saved")

        # A broken policy is refused with its member named, a good one is delivered.
        power = self.field(number, "power")
        self.type(power, '{"screenOffMinutes": 300, "sleepMinutes": 0}')
        self.card(number, ".save").click()
        self.says(number, "nothing was saved")
        self.assertIn("screenOffMinutes must be a whole number from 0 to 240", self.find(f"#faults-{number}-power").text)
        self.assertEqual(power.get_attribute("aria-invalid"), "true")
        self.assertEqual(self.browser.switch_to.active_element, power)
        self.look("fault")
        self.card(number, "[data-example=power]").click()
        self.type(self.field(number, "updates"), json.dumps(UPDATES))
        self.field(number, "powerSource").send_keys("tenant")
        self.type(self.field(number, "exitPassword"), "Open Sesame")
        self.field(number, "email").click()
        self.type(self.field(number, "signIn"), "login.example.org")
        self.card(number, ".save").click()
        self.says(number, "Saved")
        self.assertEqual(self.find(f"#faults-{number}-power").text, "")
        reply = terminal.check_in()[1]
        self.assertEqual(reply["power"]["schedule"]["days"], [1, 2, 3, 4, 5])
        self.assertLessEqual({
            "powerSource": "tenant", "updatesSource": "device", "updates": UPDATES, "exitPassword": "Open Sesame",
            "signIn": {"microsoft": True, "email": False, "extraHosts": ["login.example.org"]}}.items(), reply.items())

        # What the terminal says of itself: its own power settings, the last update run, and the week they give.
        terminal.check_in(powerLocal=dict(reply["power"], screenOffMinutes=5), osUpdates={
            "lastRunAt": "2026-10-15T02:10:00Z", "lastResult": "failed", "error": "download_failed 0x80240022", "pending": 3,
            "restartRequired": True})
        self.until(lambda: "screen off 5 min" in self.card(number, "dl").text, "the power settings of the terminal")
        self.assertIn("failed, 3 pending, restart required, download_failed 0x80240022", self.card(number, "dl").text)
        asleep = [part.get_attribute("width") for part in self.card(number).find_elements(By.CSS_SELECTOR, ".week .sleep")]
        # Monday to Friday, 22:00 to midnight and on to 07:00; from Friday evening through the week's end to Monday.
        self.assertEqual(sorted(map(float, asleep)), [40] * 5 + [140] * 5 + [480] * 2)
        # A photo is uploaded into the branding, and comes to the terminal.
        self.card(number, "[data-example=branding]").click()
        picture = os.path.join(self.pictures, "photo.png")
        with open(picture, "wb") as file:
            file.write(b"not really a picture")
        self.card(number, ".photo").send_keys(picture)
        self.says(number, "Photo added")
        self.card(number, ".save").click()
        self.says(number, "Saved")
        digest = hashlib.sha256(b"not really a picture").hexdigest()
        self.assertEqual(terminal.check_in()[1]["branding"]["photos"], [{"sha256": digest, "contentType": "image/png"}])

        # A change made elsewhere appears in a field that nobody touched.
        self.portal.set(number, name="Renamed elsewhere")
        self.until(lambda: name.get_attribute("value") == "Renamed elsewhere", "the other change")
        self.portal.claim(Terminal(self.portal, hostname=MARKUP).code)
        self.until(lambda: MARKUP in self.find("#terminals").text, "a host name as plain text")
        self.assertEqual(ask(self.portal, "POST", "/api/log", RECORD)[0], 202)
        self.until(lambda: "a long line" in self.find("#log-lines").text, "the log line")
        self.type(self.find("#log-config textarea"), '{"minLevel": 9}')
        self.find("#log-config button").click()
        self.until(lambda: "minLevel" in self.find("#log-config .faults").text, "the refusal of the log's configuration")
        self.look("terminals")

        # Outage, removal.
        self.find("#outage input[value='503']").click()
        self.until(lambda: terminal.check_in()[0] == 503, "the outage")
        self.find("#outage input[value='off']").click()
        self.until(lambda: terminal.check_in()[0] == 200, "the end of the outage")
        for action, answer in (("revoke", "revoked"), ("forget", "unknown")):
            self.card(number, "." + action).click()
            self.browser.switch_to.alert.dismiss()
            self.assertNotEqual(terminal.check_in()[1]["status"], answer)
            self.card(number, "." + action).click()
            self.browser.switch_to.alert.accept()
            self.until(lambda: terminal.check_in() == (401, {"status": answer}), answer)
            if action == "revoke":
                self.until(lambda: self.card(number, ".age").text.startswith("told so"), "that the terminal heard of it")
                self.look("revoked")
        self.until(lambda: not self.browser.find_elements(By.CSS_SELECTOR, f"[data-terminal='{number}']"), "no card")
        # The browser logs the refusals of the wrong code and of the broken policy, and must have nothing else to say.
        said = [entry["message"] for entry in self.browser.get_log("browser")]
        self.assertEqual([text for text in said if "status of 404 " not in text and "status of 422 " not in text], [])
        self.assertEqual(self.browser.title, "Development portal")
        self.portal.close()
        self.until(lambda: "does not answer" in self.find("#offline").text, "that the portal is gone")
        self.look("offline")
