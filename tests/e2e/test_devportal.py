"""The development portal itself: its two HTTP interfaces, its memory, and the switches that other tests rely on."""

import http.client
import json
import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
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


def photo(portal, token, digest):
    headers = {"Authorization": f"Bearer {token}"}
    return ask(portal, "GET", "/api/kiosk/branding/photos/" + digest, headers=headers)


class WithPortal(unittest.TestCase):
    def setUp(self):
        self.portal = Portal()
        self.addCleanup(self.portal.close)

    def page(self, path, body=None, **headers):
        headers = {"X-Devportal": "test", **headers}
        return ask(self.portal, "GET" if body is None else "POST", path, body, headers)


class Terminals(WithPortal):
    def test_pairing_hands_the_token_out_once(self):
        status, reply, _ = ask(self.portal, "POST", "/api/kiosk/pair", FACTS)
        self.assertEqual((status, reply["expiresInSeconds"]), (201, 900))
        code = reply["pairingCode"]
        self.assertRegex(code, "^[A-HJKMNP-Z2-9]{8}$")
        poll = "/api/kiosk/pair/" + code
        self.assertEqual(ask(self.portal, "GET", poll)[0], 202)
        self.portal.claim(code, name="Lobby")
        with self.assertRaises(PortalError) as caught:
            self.portal.claim(code)
        self.assertEqual(caught.exception.status, 409)
        self.assertEqual(self.portal.terminals()[0]["state"], "waiting")
        status, reply, _ = ask(self.portal, "GET", poll)
        self.assertEqual(status, 200)
        self.assertEqual(check_in(self.portal, reply["deviceToken"]), (200, {"status": "enrolled", "name": "Lobby"}))
        self.assertEqual(ask(self.portal, "GET", poll)[0], 409)
        self.assertEqual(ask(self.portal, "GET", "/api/kiosk/pair/AAAAAAAA")[0], 404)

    def test_expired_code(self):
        with Portal(code_lifetime=0) as portal:
            code = ask(portal, "POST", "/api/kiosk/pair", FACTS)[1]["pairingCode"]
            self.assertEqual(ask(portal, "GET", "/api/kiosk/pair/" + code)[0], 410)
            with self.assertRaisesRegex(PortalError, "expired"):
                portal.claim(code)

    def test_check_in_carries_what_is_set_and_keeps_the_report(self):
        terminal, token = enrol(self.portal)
        self.portal.set(terminal, power=POWER, updates=UPDATES, updatesSource="tenant", name="Halle 3 – Łódź",
                        exitPassword="Open", tenantId="t1")
        report = {"appVersion": "2", "osUpdates": {"pending": 3}}
        status, reply = check_in(self.portal, token, report)
        self.assertEqual(status, 200)
        self.assertEqual(reply, {
            "status": "enrolled", "name": "Halle 3 – Łódź", "power": POWER, "powerSource": "device",
            "updates": UPDATES, "updatesSource": "tenant", "exitPassword": "Open", "tenantId": "t1"})
        self.portal.set(terminal, power=None, updates=None, updatesSource=None, name="", exitPassword=None)
        self.assertEqual(check_in(self.portal, token, report)[1], {"status": "enrolled", "tenantId": "t1"})
        self.portal.set(terminal, unchecked=True, power={"sleepMinutes": -1})
        self.assertEqual(check_in(self.portal, token, report)[1]["power"], {"sleepMinutes": -1})
        shown = self.portal.terminals()[0]
        self.assertEqual((shown["report"], shown["facts"], shown["checkIns"]), (report, FACTS, 3))
        self.assertLess(time.time() - shown["lastCheckIn"], 5)

    def test_revoked_and_unknown(self):
        terminal, token = enrol(self.portal)
        self.portal.revoke(terminal)
        self.assertEqual(check_in(self.portal, token), (401, {"status": "revoked"}))
        self.portal.forget(terminal)
        self.assertEqual(check_in(self.portal, token), (401, {"status": "unknown"}))
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/check-in", {})[:2], (401, {"status": "unknown"}))
        self.assertEqual(self.portal.terminals(), [])

    def test_bad_requests(self):
        deep = b"[" * 50000
        for body in (b"", b"{", b"[]", b"nul", b'{"a":NaN}', b'{"a":1e999}', b'{"a":"\\ud800"}', b'{"a":"\xff"}', deep):
            with self.subTest(body=body[:20]):
                status, reply, _ = ask(self.portal, "POST", "/api/kiosk/pair", body)
                self.assertEqual(status, 400)
                self.assertTrue(reply["error"])
        pad = b'{"a":"%s"}'
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/pair", pad % (b"x" * (65536 - 8)))[0], 201)
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/pair", pad % (b"x" * (65536 - 7)))[0], 413)
        self.assertEqual(ask(self.portal, "GET", "/api/kiosk/pair")[0], 405)
        self.assertEqual(ask(self.portal, "GET", "/api/kiosk/nothing")[0], 404)
        chunked = {"Transfer-Encoding": "chunked"}
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/pair", b"0\r\n\r\n", chunked)[0], 411)

    def test_state_outlives_a_restart_and_holds_no_token(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, "portal.sqlite")
            with Portal(str(file)) as portal:
                terminal, token = enrol(portal)
                portal.set(terminal, name="Kept")
            self.assertNotIn(token.encode(), file.read_bytes())
            self.assertEqual(file.stat().st_mode & 0o777, 0o600)
            with Portal(str(file)) as portal:
                self.assertEqual(check_in(portal, token), (200, {"status": "enrolled", "name": "Kept"}))


class Switches(WithPortal):
    def test_outages_spare_the_page(self):
        self.portal.outage("503")
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/pair", FACTS)[0], 503)
        self.portal.outage("silent")
        with self.assertRaises(http.client.RemoteDisconnected):
            ask(self.portal, "POST", "/api/kiosk/pair", FACTS)
        self.portal.outage("hang")
        outcome = []
        thread = threading.Thread(target=lambda: outcome.append(self.raised(http.client.RemoteDisconnected)))
        thread.start()
        self.assertTrue(self.portal.wait(lambda: len(self.portal.requests) == 3))
        self.assertEqual(self.page("/page/api/state")[1]["outage"], "hang")
        self.assertEqual(outcome, [])
        self.assertEqual(self.page("/page/api/outage", {"mode": "off"})[0], 200)
        thread.join(5)
        self.assertEqual(outcome, [True])
        self.assertEqual(ask(self.portal, "POST", "/api/kiosk/pair", FACTS)[0], 201)
        self.assertTrue(self.portal.wait(lambda: self.portal.requests[-1].status))
        self.assertEqual([request.status for request in self.portal.requests], [503, 0, 0, 201])
        self.assertEqual(json.loads(self.portal.requests[0].body), FACTS)

    def raised(self, error):
        try:
            ask(self.portal, "POST", "/api/kiosk/pair", FACTS)
        except error:
            return True

    def test_close_ends_held_connections(self):
        for mode in ("hang", "dribble"):
            portal = Portal()
            portal.outage("hang" if mode == "hang" else "off")
            portal.script("/api/kiosk/slow", [Reply(body=b"x" * 1000, dribble=60)])
            held, idle = (socket.create_connection(("127.0.0.1", portal.port), timeout=5) for _ in range(2))
            with held, idle:
                held.sendall(b"GET /api/kiosk/slow HTTP/1.1\r\nHost: localhost\r\n\r\n")
                self.assertTrue(portal.wait(lambda: portal.requests))
                started = time.monotonic()
                portal.close()
                self.assertLess(time.monotonic() - started, 2)

    def test_scripted_replies(self):
        replies = [Reply(307, {}, {"Location": "/elsewhere"}), None, Reply(raw=b"HTTP/1.1 200 OK\r\n\r\npartial"),
                   Reply(body="0123456789", cut=4), Reply(body={"a": 1}, dribble=0.001)]
        self.portal.script("/api/kiosk/pair/", replies)
        poll = "/api/kiosk/pair/AAAAAAAA"
        status, _, headers = ask(self.portal, "GET", poll)
        self.assertEqual((status, headers["Location"]), (307, "/elsewhere"))
        self.assertEqual(ask(self.portal, "GET", poll)[0], 404)
        self.assertEqual(ask(self.portal, "GET", poll)[1], b"partial")
        with self.assertRaises(http.client.IncompleteRead) as caught:
            ask(self.portal, "GET", poll)
        self.assertEqual(caught.exception.partial, b"0123")
        self.assertEqual(ask(self.portal, "GET", poll)[:2], (200, {"a": 1}))
        self.assertEqual(ask(self.portal, "GET", poll)[0], 404)
        self.portal.script("/api/kiosk/pair/", lambda request: Reply(418, {}) if request.path.endswith("B") else None)
        self.assertEqual([ask(self.portal, "GET", poll[:-1] + last)[0] for last in "AB"], [404, 418])


class Page(WithPortal):
    def test_only_the_page_itself_gets_in(self):
        cases = [
            ({"Host": "evil.example"}, None, 403), ({"Host": "localhost.evil.example"}, None, 403),
            ({"Host": "localhost:1"}, None, 200), ({"Host": "["}, None, 403), ({}, {"mode": "off"}, 403),
        ]
        for headers, body, expected in cases:
            with self.subTest(headers=headers, body=body):
                path = "/page/api/outage" if body else "/page/api/state"
                self.assertEqual(ask(self.portal, "POST" if body else "GET", path, body, headers)[0], expected)
        for address in ("0.0.0.0", "192.0.2.1", "::"):
            with self.assertRaises(ValueError):
                Portal(address=address)
        self.assertIn("default-src 'none'", ask(self.portal, "GET", "/")[2]["Content-Security-Policy"])

    def test_claim_takes_a_code_as_people_type_it(self):
        code = ask(self.portal, "POST", "/api/kiosk/pair", FACTS)[1]["pairingCode"]
        self.assertEqual(self.page("/page/api/state")[1]["pendingCodes"], 1)
        self.assertEqual(self.page("/page/api/claim", {"code": "nothing"})[0], 404)
        self.assertEqual(self.page("/page/api/claim", {"code": code, "name": "a\nb"})[1]["faults"].keys(), {"name"})
        typed = f" {code[:4].lower()}-{code[4:]} "
        self.assertEqual(self.page("/page/api/claim", {"code": typed, "name": "Desk"})[0], 201)
        self.assertEqual(self.page("/page/api/state")[1]["terminals"][0]["settings"], {"name": "Desk"})

    def test_settings_are_saved_whole_or_not_at_all(self):
        terminal, _ = enrol(self.portal, name="Old")
        path = f"/page/api/terminals/{terminal}"
        status, reply, _ = self.page(path, {"name": "New", "power": '{\n"sleepMinutes": }', "colour": 1})
        self.assertEqual(status, 422)
        self.assertIn("line 2, column 17", reply["faults"]["power"][0])
        self.assertIn("colour", reply["faults"])
        self.assertEqual(self.portal.terminals()[0]["settings"], {"name": "Old"})
        status, reply, _ = self.page(path, {"name": "New", "power": json.dumps(POWER)})
        self.assertEqual((status, reply["settings"]), (200, {"name": "New", "power": POWER}))
        self.assertEqual(self.page(path, {"name": "", "power": " "})[1]["settings"], {})
        self.assertEqual(self.page("/page/api/terminals/99/revoke", {})[0], 404)


    def test_photos_go_to_the_terminals_that_list_them(self):
        terminal, token = enrol(self.portal)
        upload = "/page/api/photos"
        self.assertEqual(self.page(upload, b"x", **{"Content-Type": "text/html"})[0], 422)
        self.assertEqual(self.page(upload, b"", **{"Content-Type": "image/png"})[0], 422)
        large = bytes(range(256)) * 512  # more than other requests may bring
        status, reply, _ = self.page(upload, large, **{"Content-Type": "image/png"})
        self.assertEqual((status, reply["contentType"]), (201, "image/png"))
        digest = reply["sha256"]
        self.assertEqual(photo(self.portal, token, digest)[0], 404)
        path, branding = f"/page/api/terminals/{terminal}", {"displayName": "T", "photos": [reply]}
        self.assertEqual(self.page(path, {"branding": json.dumps(branding)})[0], 200)
        self.assertEqual(check_in(self.portal, token)[1]["branding"], branding)
        status, content, headers = photo(self.portal, token, digest)
        self.assertEqual((status, content, headers["Content-Type"]), (200, large, "image/png"))
        self.assertEqual(photo(self.portal, "other", digest)[:2], (401, {"status": "unknown"}))
        for answer, expected, size in (("wrong", 200, len(large) + 1), ("empty", 200, 0), ("redirect", 302, 0),
                                       ("oversized", 200, 16 * 1024 * 1024 + 1)):
            self.portal.set(terminal, photoAnswer=answer)
            status, content, _ = photo(self.portal, token, digest)
            self.assertEqual((status, len(content)), (expected, size), answer)
            self.assertNotEqual(content, large)
        self.assertNotIn("photoAnswer", check_in(self.portal, token)[1])
        self.assertEqual(self.page(path, {"photoAnswer": "late"})[0], 422)
        self.portal.revoke(terminal)
        self.assertEqual(photo(self.portal, token, digest)[:2], (401, {"status": "revoked"}))


class Policies(unittest.TestCase):
    def change(self, base, path, value):
        copy = json.loads(json.dumps(base))
        *parents, last = path.split(".")
        holder = copy
        for name in parents:
            holder = holder[name]
        if value is Ellipsis:
            del holder[last]
        else:
            holder[last] = value
        return copy

    def test_each_rule_names_its_member(self):
        power = [("screenOffMinutes", bad) for bad in (241, -1, 2.5, "15", None, True, ..., 1e300)]
        power += [("schedule", bad) for bad in (..., [], None)]
        power += [("schedule.enabled", bad) for bad in (1, "true", ...)]
        power += [("schedule.sleepAt", bad) for bad in ("7:00", "24:00", "12:60", "12.00", 7, "0٣:00", "07:00\n")]
        power += [("schedule.wakeAt", "22:00"), ("surplus", 1)]
        power += [("schedule.days", bad) for bad in ([1, 1], [7], [1.5], [True], ["1"], [-1], "1", [], list(range(8)))]
        updates = [("automatic", 1), ("window", ...), ("window.start", "2:00"), ("window.end", "22:00")]
        updates += [("window.days", [])]
        sign_in = {"microsoft": True, "email": True, "extraHosts": []}
        hosts = ["A.example", "plain", "-a.example", "a-.example", "a..example", ".a", 5]
        hosts += ["x" * 64 + ".example", "a" + ".b" * 127]
        signs = [("email", "1"), ("extraHosts", [f"h{n}.de" for n in range(11)])]
        signs += [("extraHosts", [host]) for host in hosts]
        branding = {"displayName": "D", "signInSubtitle": "S", "photos": []}
        brandings = [("displayName", 1), ("signInSubtitle", "x" * 201), ("colour", "red"), ("photos", {}),
                     ("photos", [{"sha256": "a" * 64}] * 17)]
        for check, base, cases in ((policy.check_power, POWER, power), (policy.check_updates, UPDATES, updates),
                                   (policy.check_sign_in, sign_in, signs), (policy.check_branding, branding, brandings)):
            self.assertEqual(check(base), base)
            for path, value in cases:
                with self.subTest(path=path, value=value), self.assertRaises(policy.Invalid) as caught:
                    check(self.change(base, path, value))
                self.assertTrue(caught.exception.messages[0].startswith(path + " "), caught.exception.messages)

    def test_accepted_edges_and_kept_form(self):
        for path, value in (("screenOffMinutes", 240), ("sleepMinutes", 0), ("schedule.sleepAt", "00:00")):
            policy.check_power(self.change(POWER, path, value))
        off = self.change(self.change(POWER, "schedule.enabled", False), "schedule.days", [])
        self.assertEqual(policy.check_power(off), off)
        mixed = {"schedule": {"days": [6, 0.0], "wakeAt": "07:00", "sleepAt": "22:00", "enabled": True},
                 "sleepMinutes": 1e1, "screenOffMinutes": 15}
        self.assertEqual(json.dumps(policy.check_power(mixed)), json.dumps(
            {"screenOffMinutes": 15, "sleepMinutes": 10,
             "schedule": {"enabled": True, "sleepAt": "22:00", "wakeAt": "07:00", "days": [0, 6]}}))
        policy.check_sign_in({"microsoft": False, "email": True, "extraHosts": ["a-b.example", "1.2"]})
        policy.check_branding({"photos": [{"sha256": "0f" * 32, "width": 1920, "credit": ""}] * 16})
        for bad in ({"sha256": "A" * 64}, {"sha256": "a" * 63}, {}, 1, {"sha256": "a" * 64, "width": "1"}):
            with self.assertRaises(policy.Invalid) as caught:
                policy.check_branding({"photos": [bad]})
            self.assertTrue(caught.exception.messages[0].startswith("photos[0]"), caught.exception.messages)


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

    def test_refuses_what_it_cannot_do(self):
        other_file = ["--database", str(TOOL / "page.html")]
        for arguments, said in ((["--address", "0.0.0.0"], "loopback"), (other_file, "database")):
            done = subprocess.run([sys.executable, str(TOOL / "devportal.py"), "--port", "0", *arguments],
                                  capture_output=True, text=True, timeout=10)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertIn(said, done.stderr)


if __name__ == "__main__":
    unittest.main()
