"""The development portal itself: what a developer who uses it would notice."""

import http.client
import json
import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest
from unittest import mock
import urllib.request

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools" / "devportal"
sys.path.insert(0, str(TOOL))

from devportal import Portal, Server  # noqa: E402
import policy  # noqa: E402

FACTS = {"hostname": "łódź-3", "platform": "Windows", "osVersion": "10.0.19045", "appVersion": "1", "screenCount": 2}
POWER = {"screenOffMinutes": 15, "sleepMinutes": 0,
         "schedule": {"enabled": True, "sleepAt": "22:00", "wakeAt": "07:00", "days": [1, 5]}}
UPDATES = {"automatic": False, "window": {"start": "22:00", "end": "02:00", "days": [5]}}


def ask(portal, method, path, body=None, headers=()):
    """Returns (status, parsed body, headers)."""
    connection = http.client.HTTPConnection("127.0.0.1", portal.port, timeout=5)
    try:
        connection.request(method, path, body if body is None or isinstance(body, bytes) else json.dumps(body), dict(headers))
        reply = connection.getresponse()
        content = reply.read()
        is_json = reply.headers.get_content_subtype() == "json"
        return reply.status, json.loads(content) if is_json else content, reply.headers
    finally:
        connection.close()


def enrol(portal, **settings):
    """Pairs a terminal; returns (id, token)."""
    code = ask(portal, "POST", "/api/kiosk/pair", FACTS)[1]["pairingCode"]
    terminal = portal.claim(code, **settings)
    return terminal, ask(portal, "GET", "/api/kiosk/pair/" + code)[1]["deviceToken"]


def check_in(portal, token, body=None):
    return ask(portal, "POST", "/api/kiosk/check-in", body or {"appVersion": "1"}, {"Authorization": f"Bearer {token}"})[:2]


class Developer(unittest.TestCase):
    def setUp(self):
        self.portal = self.enterContext(Portal())

    def api(self, method, path, body=None, **headers):
        return ask(self.portal, method, "/api/kiosk/" + path, body, headers)

    def page(self, path, body=None, **headers):
        headers = {"X-Devportal": "test", **headers}
        return ask(self.portal, "GET" if body is None else "POST", "/page/api/" + path, body, headers)

    def test_pairing_hands_the_token_out_once(self):
        self.assertEqual(self.api("POST", "pair", b"{")[0], 400)
        reply = self.api("POST", "pair", FACTS)[1]
        poll = "pair/" + reply["pairingCode"]
        self.assertEqual(self.api("GET", poll)[0], 202)
        self.assertEqual(self.page("claim", {"code": "nothing"})[0], 404)
        typed = f" {poll[5:9].lower()}-{poll[9:]} "  # as people type it
        self.assertEqual(self.page("claim", {"code": typed, "name": "a\nb"})[1]["faults"].keys(), {"name"})
        self.assertEqual([self.page("claim", {"code": typed, "name": "Lobby"})[0] for _ in range(2)], [201, 409])
        token = self.api("GET", poll)[1]["deviceToken"]
        self.assertEqual(check_in(self.portal, token), (200, {"status": "enrolled", "name": "Lobby"}))
        self.assertEqual(self.api("GET", poll)[0], 409)

    def test_state_outlives_a_restart_and_holds_no_token(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, "portal.sqlite")
            with Portal(str(file)) as portal:
                token = enrol(portal, name="Kept")[1]
            self.assertNotIn(token.encode(), file.read_bytes())
            with Portal(str(file)) as portal:
                self.assertEqual(check_in(portal, token), (200, {"status": "enrolled", "name": "Kept"}))

    def test_outages_spare_the_page(self):
        self.portal.outage("503")
        self.assertEqual(self.api("POST", "pair", FACTS)[0], 503)
        self.portal.outage("silent")
        with self.assertRaises(http.client.RemoteDisconnected):
            self.api("POST", "pair", FACTS)
        self.portal.outage("hang")
        with socket.create_connection(("127.0.0.1", self.portal.port), timeout=5) as held:
            held.sendall(b"GET /api/kiosk/slow HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertTrue(self.portal.wait(lambda: len(self.portal.requests) == 3))
            self.assertEqual(self.page("state")[1]["outage"], "hang")
            self.assertEqual(self.page("outage", {"mode": "off"})[0], 200)
            self.assertEqual(held.recv(1), b"")
        self.assertEqual(self.api("POST", "pair", FACTS)[0], 201)

    def test_only_the_page_itself_gets_in(self):
        for host, expected in (("evil.example", 403), ("localhost.evil.example", 403), ("localhost:1", 200)):
            self.assertEqual(ask(self.portal, "GET", "/page/api/state", None, {"Host": host})[0], expected, host)
        self.assertEqual(ask(self.portal, "POST", "/page/api/outage", {"mode": "off"})[0], 403)
        with self.assertRaises(ValueError):
            Portal(address="0.0.0.0")

    def test_settings_are_saved_whole_or_not_at_all(self):
        path = f"terminals/{enrol(self.portal, name='Old')[0]}"
        status, reply, _ = self.page(path, {"name": "New", "power": '{\n"sleepMinutes": }', "colour": 1})
        self.assertEqual((status, reply["faults"].keys()), (422, {"power", "colour"}))
        self.assertIn("line 2, column 17", reply["faults"]["power"][0])
        self.assertEqual(self.portal.terminals()[0]["settings"], {"name": "Old"})
        self.assertEqual(self.page(path, {"name": "", "power": json.dumps(POWER)})[1]["settings"], {"power": POWER})

    def test_photos_go_to_the_terminals_that_list_them(self):
        terminal, token = enrol(self.portal)
        large = bytes(range(256)) * 512  # more than other requests may bring
        listed = self.page("photos", large, **{"Content-Type": "image/png"})[1]
        path = "branding/photos/" + listed["sha256"]
        self.assertEqual(self.api("GET", path, Authorization=f"Bearer {token}")[0], 404)
        self.portal.set(terminal, branding={"displayName": "T", "photos": [listed]})
        self.assertEqual(self.api("GET", path, Authorization=f"Bearer {token}")[:2], (200, large))

    def test_each_rule_of_a_policy_names_its_member(self):
        sign_in = {"microsoft": True, "email": True, "extraHosts": ["a-b.example", "1.2"]}
        branding = {"displayName": "D", "signInSubtitle": "S", "photos": [{"sha256": "0f" * 32, "width": 1920}] * 16}
        schedule = POWER["schedule"]
        for check, good, faults in (
                (policy.check_power, POWER, {"screenOffMinutes": 241, "sleepMinutes": True, "surplus": 1} | {
                    "schedule": schedule | {"sleepAt": "7:00", "wakeAt": "7:00", "days": [1, 1]}}),
                (policy.check_updates, UPDATES, {"automatic": 1, "window": 7}),
                (policy.check_sign_in, sign_in, {"email": "1", "extraHosts": ["A.example"]}),
                (policy.check_branding, branding, {"displayName": 1, "photos": [{"sha256": "a" * 64}] * 17})):
            self.assertEqual(check(good), good)
            for member, wrong in faults.items():
                with self.subTest(member), self.assertRaisesRegex(policy.Invalid, rf"^{member}\b"):
                    check(good | {member: wrong})

    def test_a_portal_that_cannot_have_its_second_way_in_leaves_nothing_open(self):
        made = []

        def serve(*arguments):
            if made:
                raise OSError("no port")
            made.append(Server(*arguments))
            return made[0]

        with tempfile.TemporaryDirectory() as folder, mock.patch("devportal.Server", serve):
            self.assertRaisesRegex(OSError, "no port", Portal, https_too=folder)
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(made[0].server_address, 5).close()

    def test_the_program_serves_https_and_ends_on_sigterm(self):
        with tempfile.TemporaryDirectory() as folder:
            command = [sys.executable, str(TOOL / "devportal.py"), "--port", "0", "--database", ":memory:"]
            process = subprocess.Popen([*command, "--tls", folder], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            try:
                url, authority = (process.stdout.readline().split()[-1] for _ in range(2))
                with urllib.request.urlopen(url, context=ssl.create_default_context(cafile=authority), timeout=5) as reply:
                    self.assertEqual(reply.status, 200)
            finally:
                process.terminate()
                _, errors = process.communicate(timeout=5)
            self.assertEqual((process.returncode, errors), (0, ""))
