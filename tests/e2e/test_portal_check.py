"""tools/portal-check, against the development portal as it is and with one planted deviation at a time."""

import concurrent.futures
import contextlib
import hashlib
import pathlib
import re
import ssl
import subprocess
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(__file__).resolve().parents[2] / "tools"
sys.path.insert(0, str(TOOLS / "devportal"))
from devportal import Portal, PortalError, Reply  # noqa: E402
from signing import Authority  # noqa: E402
from test_devportal import POWER, UPDATES  # noqa: E402

PAIR, CHECK_IN = "/api/kiosk/pair", "/api/kiosk/check-in"
PHOTO = b"a photo"
DIGEST = hashlib.sha256(PHOTO).hexdigest()
SETTINGS = {
    "signIn": {"microsoft": True, "email": False, "extraHosts": ["login.example.org"]}, "name": "Łódź", "power": POWER,
    "updates": UPDATES, "updatesSource": "tenant", "exitPassword": "Open Sesame", "tenantId": "4711",
    "branding": {"displayName": "Norvane", "photos": [{"sha256": DIGEST, "width": 1}]}}


def always(path, reply, only=lambda portal, request: True):
    """That reply in place of the portal's own to the requests that `only` names."""
    return lambda portal: portal.script(path, lambda request: reply if only(portal, request) else None)


def third_check_in(reply):
    """The first two are those of strangers."""
    return lambda portal: portal.script(CHECK_IN, [None, None, reply])


def settings(**changes):
    """What no portal should send."""
    return lambda portal: changes


def token_collected(portal, request):
    return any(terminal["state"] == "enrolled" for terminal in portal.terminals())


# (what is planted, what the tool says)
DEVIATIONS = [
    (always(PAIR, Reply(302, headers={"Location": "/elsewhere"})), r"pairing begins: 302.*\n.* do not follow redirects"),
    (always(PAIR, Reply(raw=b"")), r"pairing begins: no answer: "),
    (always(PAIR, Reply(201, {"pairingCode": 12345678})), r"pairingCode is 12345678, not 8 ASCII letters"),
    (always(PAIR, Reply(201, {"pairingCode": "ABCD-1234"})), r'pairingCode is "ABCD-1234"'),
    (always(PAIR, Reply(201, {"pairingCode": "ABCD1234", "expiresInSeconds": "900"})), r"expiresInSeconds is no number"),
    (always(PAIR, Reply(201, {"pairingCode": "ABCD1234"}), lambda portal, request: request.path == PAIR),
     r"two terminals got the same code"),
    (always(PAIR, Reply(201, b"\xef\xbb\xbf{}")), r"byte order mark"),
    (always(PAIR, Reply(201, b'{"a":' + b"[" * 64 + b"]" * 64 + b"}")), r"nested deeper than 64 levels"),
    (always(PAIR, Reply(201, b"{}", {"Content-Encoding": "gzip"})), r"the reply is gzip"),
    (always(PAIR, Reply(201, b"{} {}")), r"the reply is no JSON \("),
    (always(PAIR, Reply(201, b"x" * 70_000)), r"larger than 65536 bytes"),
    (always(PAIR, Reply(201, b'{"pairingCode":"ABCD1234"}', cut=5)), r"the reply ends .*early"),
    (always(PAIR + "/", Reply(204)), r"a code that was never given: 204, not 404 or 410"),
    (always(PAIR + "/", Reply(200, {"deviceToken": "a b"})), r"deviceToken is not text of 1 to 4096"),
    (always(PAIR + "/", Reply(200, {"deviceToken": "again"}), token_collected), r"the token is handed out twice"),
    (always(CHECK_IN, Reply(401, {"status": "revoked"}), lambda portal, request: "Authorization" not in request.headers),
     r'check-in with no token: 401, status "revoked", not 401 with "unknown"'),
    (always(CHECK_IN, Reply(401, {"error": "no"})), r"check-in with a made-up token: 401, status null"),
    (third_check_in(Reply(200, {"status": "ok"})), r'check-in: 200 with the status "ok", not "enrolled"'),
    (third_check_in(Reply(503)), r"check-in: 503, not 200"),
    (third_check_in(Reply(200, {"status": "enrolled"})), r"WRONG  name is in one check-in's reply and missing"),
    (settings(signIn=7), r"signIn is no object\n +-> every method is allowed"),
    (settings(signIn={"email": 1}), r"signIn.email is neither true nor false"),
    (settings(signIn={"extraHosts": ["Login.Example.org"]}), r'signIn.extraHosts holds "Login.Example.org"'),
    (settings(signIn={"extraHosts": ["a.example"] * 11}), r"signIn.extraHosts has 11 entries"),
    (settings(name=7), r"name is no text\n +-> the stored name is deleted"),
    (settings(power=POWER | {"sleepMinutes": 241}), r"power: sleepMinutes must be .*\n +-> all of it is passed over"),
    (settings(updates=UPDATES | {"window": UPDATES["window"] | {"days": []}}), r"updates: window.days needs at least one"),
    (settings(powerSource="portal"), r'powerSource is "portal"'),
    (settings(branding=[]), r"branding is no object\n +-> the cached branding is removed"),
    (settings(branding={"photos": [{"sha256": DIGEST.upper()}]}), r"photos\[0\].sha256 is not 64 "),
    (settings(branding={"photos": [{"sha256": DIGEST}] * 2}), r"photos\[1\] stands there twice"),
    (settings(photoAnswer="wrong"), rf"photo {DIGEST[:8]}: other bytes than its digest says"),
    (settings(photoAnswer="redirect"), rf"photo {DIGEST[:8]}: 302"),
    (settings(colour="red"), r"^note   terminals do not know colour$"),
    (settings(exitPassword=" "), r"^note   without an exit password"),
]


def check(portal, *options, changes=None, remove=Portal.revoke):
    """Runs the tool and does what it asks a person for. Returns (exit code, what it said)."""
    command = [sys.executable, "-B", str(TOOLS / "portal-check"), "--wait", "20", *options, portal.url]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
        said = ""
        for line in process.stdout:
            said += line
            if code := re.search(r"in the portal now: (\w+)$", line):
                with contextlib.suppress(PortalError):  # a planted code, which the portal does not know
                    terminal = portal.claim(code[1], unchecked=True, **SETTINGS | (changes or {}))
            if line.startswith("Remove this terminal"):
                remove(portal, terminal)
    return process.returncode, said


class PortalCheck(unittest.TestCase):
    def test_the_development_portal_keeps_the_contract(self):
        with tempfile.TemporaryDirectory() as folder, Portal(tls=folder) as portal:
            portal.add_photo(PHOTO)
            logs = portal.url + "/api/log"
            code, said = check(portal, "--ca", portal.ca_file, "--log", logs, "--log-config", logs + "/config")
        self.assertEqual((code, re.findall("(?m)^WRONG.*", said)), (0, []), said)
        for line in (r"ok     TLS 1.2: TLSv1.2, ", r"ok     check-in: .*\bpower\b", rf"ok     photo {DIGEST[:8]}: 200",
                     r"ok     check-in of a terminal that was removed: 401, revoked", r"ok     a batch of 60 KiB: 202",
                     r"ok     log configuration: 200", r"note   the certificate ends in \d+ days"):
            self.assertRegex(said, "(?m)^" + line)

    def test_each_planted_deviation_is_named(self):
        with concurrent.futures.ThreadPoolExecutor(6) as pool:
            runs = list(pool.map(self.deviating, (plant for plant, _ in DEVIATIONS)))
        for (_, named), (code, said) in zip(DEVIATIONS, runs):
            with self.subTest(named):
                self.assertRegex(said, re.compile(named, re.M))
                self.assertNotIn("Traceback", said)
                self.assertEqual(code, 0 if named.startswith("^note") else 1, said)

    def deviating(self, plant):
        with Portal() as portal:
            portal.add_photo(PHOTO)
            return check(portal, "--keep", changes=plant(portal))

    def test_a_terminal_that_is_forgotten_is_not_removed(self):
        with Portal() as portal:
            portal.add_photo(PHOTO)
            code, said = check(portal, remove=Portal.forget)
        self.assertEqual(code, 1)
        self.assertRegex(said, r'removed: 401, status "unknown", not 401 with "revoked"')

    def test_a_server_that_only_newer_windows_reaches(self):
        with tempfile.TemporaryDirectory() as folder, Portal(tls=folder) as portal:
            portal._server.tls.minimum_version = ssl.TLSVersion.TLSv1_3
            self.assertRegex(check(portal, "--keep", "--ca", portal.ca_file)[1], r"WRONG  TLS 1.2: no connection")
            authority = Authority(pathlib.Path(folder, "other"), "Other").certificate
            self.assertRegex(check(portal, "--ca", str(authority))[1], r"WRONG  TLS: no connection .*certificate")
