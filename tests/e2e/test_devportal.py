"""The development portal itself: its two HTTP interfaces, its memory, and the switches that other tests rely on."""

import http.client
import json
import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools" / "devportal"
sys.path.insert(0, str(TOOL))

from devportal import Portal, PortalError, Reply  # noqa: E402
import policy  # noqa: E402

FACTS = {"hostname": "łódź-3", "platform": "Windows", "osVersion": "10.0.19045", "appVersion": "1", "screenCount": 2}
POWER = {"screenOffMinutes": 15, "sleepMinutes": 0,
         "schedule": {"enabled": True, "sleepAt": "22:00", "wakeAt": "07:00", "days": [1, 5]}}
UPDATES = {"automatic": False, "window": {"start": "22:00", "end": "02:00", "days": [5]}}


def ask(portal, method, path, body=None, headers=(), context=None):
    """Returns (status, parsed body, headers)."""
    if context:
        connection = http.client.HTTPSConnection("localhost", portal.port, timeout=5, context=context)
    else:
        connection = http.client.HTTPConnection("127.0.0.1", portal.port, timeout=5)
    try:
        data = body if body is None or isinstance(body, bytes) else json.dumps(body).encode()
        connection.request(method, path, data, dict(headers))
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
    return ask(portal, "POST", "/api/kiosk/check-in", body or {}, {"Authorization": f"Bearer {token}"})[:2]


class WithPortal(unittest.TestCase):
    def setUp(self):
        self.portal = self.enterContext(Portal())

    def api(self, method, path, body=None, **headers):
        return ask(self.portal, method, "/api/kiosk/" + path, body, headers)

    def page(self, path, body=None, **headers):
        headers = {"X-Devportal": "test", **headers}
        return ask(self.portal, "GET" if body is None else "POST", "/page/api/" + path, body, headers)


class Terminals(WithPortal):
    def test_pairing_hands_the_token_out_once(self):
        status, reply, _ = self.api("POST", "pair", FACTS)
        self.assertEqual((status, reply["expiresInSeconds"]), (201, 900))
        self.assertRegex(reply["pairingCode"], "^[A-HJKMNP-Z2-9]{8}$")
        poll = "pair/" + reply["pairingCode"]
        self.assertEqual(self.api("GET", poll)[0], 202)
        self.assertEqual(self.page("claim", {"code": "nothing"})[0], 404)
        typed = f" {poll[5:9].lower()}-{poll[9:]} "  # as people type it
        self.assertEqual(self.page("claim", {"code": typed, "name": "a\nb"})[1]["faults"].keys(), {"name"})
        self.assertEqual([self.page("claim", {"code": typed, "name": "Lobby"})[0] for _ in range(2)], [201, 409])
        status, reply, _ = self.api("GET", poll)
        self.assertEqual(check_in(self.portal, reply["deviceToken"]), (200, {"status": "enrolled", "name": "Lobby"}))
        self.assertEqual(self.api("GET", poll)[0], 409)
        self.assertEqual(self.api("GET", "pair/AAAAAAAA")[0], 404)
        with Portal(code_lifetime=0) as portal, self.assertRaisesRegex(PortalError, "expired"):
            portal.claim(ask(portal, "POST", "/api/kiosk/pair", FACTS)[1]["pairingCode"])

    def test_bad_requests(self):
        for body in (b"{", b"[]", b'{"a":1e999}', b'{"a":"\\ud800"}', b'{"a":"\xff"}', b"[" * 50000):
            self.assertEqual(self.api("POST", "pair", body)[0], 400, body[:20])
        self.assertEqual(self.api("POST", "pair", b'{"a":"%s"}' % (b"x" * 65536))[0], 413)

    def test_state_outlives_a_restart_and_holds_no_token(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, "portal.sqlite")
            with Portal(str(file)) as portal:
                token = enrol(portal, name="Kept")[1]
            self.assertNotIn(token.encode(), file.read_bytes())
            self.assertEqual(file.stat().st_mode & 0o777, 0o600)
            with Portal(str(file)) as portal:
                self.assertEqual(check_in(portal, token), (200, {"status": "enrolled", "name": "Kept"}))


class Switches(WithPortal):
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
        self.assertTrue(self.portal.wait(lambda: self.portal.requests[-1].status))
        self.assertEqual([request.status for request in self.portal.requests], [503, 0, 0, 201])
        self.assertEqual(json.loads(self.portal.requests[0].body), FACTS)

    def test_close_ends_held_connections(self):
        self.portal.script("/api/kiosk/slow", [Reply(body=b"x" * 1000, dribble=60)])
        with socket.create_connection(("127.0.0.1", self.portal.port), timeout=5) as held:
            held.sendall(b"GET /api/kiosk/slow HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertTrue(self.portal.wait(lambda: self.portal.requests))
            started = time.monotonic()
            self.portal.close()
            self.assertLess(time.monotonic() - started, 2)

    def test_scripted_replies(self):
        replies = [Reply(307, {}, {"Location": "/elsewhere"}), None, Reply(raw=b"HTTP/1.1 200 OK\r\n\r\npartial"),
                   Reply(body={"a": 1}, dribble=0.001), Reply(body="0123456789", cut=4)]
        self.portal.script("/api/kiosk/pair/", replies)
        status, _, headers = self.api("GET", "pair/AAAAAAAA")
        self.assertEqual((status, headers["Location"]), (307, "/elsewhere"))
        self.assertEqual(self.api("GET", "pair/AAAAAAAA")[0], 404)
        self.assertEqual([self.api("GET", "pair/AAAAAAAA")[1] for _ in range(2)], [b"partial", {"a": 1}])
        with self.assertRaises(http.client.IncompleteRead) as caught:
            self.api("GET", "pair/AAAAAAAA")
        self.assertEqual(caught.exception.partial, b"0123")
        self.portal.script("/api/kiosk/pair/", lambda request: Reply(418, {}) if request.path.endswith("B") else None)
        self.assertEqual([self.api("GET", "pair/AAAAAAA" + last)[0] for last in "AB"], [404, 418])


class Page(WithPortal):
    def test_only_the_page_itself_gets_in(self):
        for host, expected in (("evil.example", 403), ("localhost.evil.example", 403), ("localhost:1", 200), ("[", 403)):
            self.assertEqual(ask(self.portal, "GET", "/page/api/state", None, {"Host": host})[0], expected, host)
        self.assertEqual(ask(self.portal, "POST", "/page/api/outage", {"mode": "off"})[0], 403)
        for address in ("0.0.0.0", "192.0.2.1", "::"):
            with self.assertRaises(ValueError):
                Portal(address=address)
        self.assertIn("default-src 'none'", ask(self.portal, "GET", "/")[2]["Content-Security-Policy"])

    def test_settings_are_saved_whole_or_not_at_all(self):
        path = f"terminals/{enrol(self.portal, name='Old')[0]}"
        status, reply, _ = self.page(path, {"name": "New", "power": '{\n"sleepMinutes": }', "colour": 1})
        self.assertEqual(status, 422)
        self.assertIn("line 2, column 17", reply["faults"]["power"][0])
        self.assertIn("colour", reply["faults"])
        self.assertEqual(self.portal.terminals()[0]["settings"], {"name": "Old"})
        for sent, kept in (({"name": "New", "power": json.dumps(POWER)}, {"name": "New", "power": POWER}),
                           ({"name": "", "power": " "}, {})):
            self.assertEqual(self.page(path, sent)[1]["settings"], kept)
        self.assertEqual(self.page("terminals/99/revoke", {})[0], 404)

    def test_photos_go_to_the_terminals_that_list_them(self):
        terminal, token = enrol(self.portal)
        for kind, content in (("text/html", b"x"), ("image/png", b"")):
            self.assertEqual(self.page("photos", content, **{"Content-Type": kind})[0], 422)
        large = bytes(range(256)) * 512  # more than other requests may bring
        listed = self.page("photos", large, **{"Content-Type": "image/png"})[1]
        path = "branding/photos/" + listed["sha256"]
        self.assertEqual(self.api("GET", path, Authorization=f"Bearer {token}")[0], 404)
        self.portal.set(terminal, branding={"displayName": "T", "photos": [listed]})
        for answer, expected, size in ((None, 200, len(large)), ("wrong", 200, len(large) + 1), ("empty", 200, 0),
                                       ("redirect", 302, 0), ("oversized", 200, 16 * 1024 * 1024 + 1)):
            self.portal.set(terminal, photoAnswer=answer)
            status, content, _ = self.api("GET", path, Authorization=f"Bearer {token}")
            self.assertEqual((status, len(content)), (expected, size), answer)
        self.assertEqual(self.api("GET", path, Authorization="Bearer x")[:2], (401, {"status": "unknown"}))
        self.assertNotIn("photoAnswer", check_in(self.portal, token)[1])


class Policies(unittest.TestCase):
    def change(self, base, path, value):
        copy = json.loads(json.dumps(base))
        *parents, last = path.split(".")
        holder = copy
        for name in parents:
            holder = holder[name]
        holder[last] = value
        if value is Ellipsis:
            del holder[last]
        return copy

    def test_each_rule_names_its_member(self):
        sign_in = {"microsoft": True, "email": True, "extraHosts": ["a-b.example", "1.2"]}
        branding = {"displayName": "D", "signInSubtitle": "S", "photos": [{"sha256": "0f" * 32, "width": 1920}] * 16}
        bad_values = [
            (policy.check_power, POWER, {
                "screenOffMinutes": (241, -1, 2.5, "15", None, True, ..., 1e300), "schedule": (..., []), "surplus": (1,),
                "schedule.enabled": (1, "true", ...), "schedule.sleepAt": ("7:00", "24:00", "12.00", 7, "0٣:00", "07:00\n"),
                "schedule.wakeAt": ("22:00",), "schedule.days": ([1, 1], [7], [1.5], [True], ["1"], "1", [])}),
            (policy.check_updates, UPDATES, {
                "automatic": (1,), "window": (...,), "window.start": ("2:00",), "window.end": ("22:00",),
                "window.days": ([],)}),
            (policy.check_sign_in, sign_in, {
                "email": ("1",), "extraHosts": [[f"h{n}.de" for n in range(11)]] + [
                    [host] for host in ("A.example", "plain", "-a.example", "a..example", 5, "x" * 64 + ".example")]}),
            (policy.check_branding, branding, {
                "displayName": (1,), "signInSubtitle": ("x" * 201,), "colour": ("red",),
                "photos": ({}, [{"sha256": "a" * 64}] * 17)}),
        ]
        for check, good, members in bad_values:
            self.assertEqual(check(good), good)
            for path, values in members.items():
                for value in values:
                    with self.subTest(path=path, value=value), self.assertRaises(policy.Invalid) as caught:
                        check(self.change(good, path, value))
                    self.assertTrue(caught.exception.messages[0].startswith(path + " "), caught.exception.messages)
        for photo in ({"sha256": "A" * 64}, {"sha256": "a" * 63}, {}, 1, {"sha256": "a" * 64, "width": "1"}):
            with self.assertRaisesRegex(policy.Invalid, r"photos\[0\]"):
                policy.check_branding({"photos": [photo]})


class Program(unittest.TestCase):
    def test_serves_https_and_ends_on_sigterm(self):
        with tempfile.TemporaryDirectory() as folder:
            command = [sys.executable, str(TOOL / "devportal.py"), "--port", "0", "--database", ":memory:"]
            command += ["--tls", folder]
            process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            try:
                address, authority = process.stdout.readline().split()[-1], process.stdout.readline().split()[-1]
                self.port = int(address.rstrip("/").rsplit(":", 1)[1])
                trusting = ssl.create_default_context(cafile=authority)
                self.assertEqual(ask(self, "POST", "/api/kiosk/pair", FACTS, context=trusting)[0], 201)
                with self.assertRaises(ssl.SSLCertVerificationError):
                    ask(self, "GET", "/", context=ssl.create_default_context())
                self.assertFalse(pathlib.Path(folder, "ca.key").exists())
            finally:
                process.terminate()
                _, errors = process.communicate(timeout=5)
            self.assertEqual((process.returncode, errors), (0, ""))


if __name__ == "__main__":
    unittest.main()
