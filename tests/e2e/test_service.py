"""The shipping program in Wine's service manager, with a real portal over real HTTP."""

import json
import os
import pathlib
import re
import signal
import struct
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(__file__).resolve().parents[2] / "tools"
sys.path[:0] = [str(TOOLS / "devportal"), str(TOOLS / "dev")]
import life  # noqa: E402
from devportal import Portal, Reply  # noqa: E402
from life.stage import PROGRAMS, SERVICE  # noqa: E402
from terminal import BUILD, Terminal, wait_for  # noqa: E402


def pair(terminal, portal, **settings):
    """Pairs through the pipe; returns the portal's id of the terminal. There is no client program to set up a kiosk for."""
    begun = terminal.ask(cmd="pair.begin")
    assert begun["ok"], begun
    terminal_id = portal.claim(begun["code"], **settings)
    checked = terminal.ask(cmd="pair.check", code=begun["code"])
    assert checked == {"ok": False, "error": "no_client"}, checked
    return terminal_id


class Programs(unittest.TestCase):
    def test_hardening_flags_of_the_built_programs(self):
        for program in ("NorvaneKiosk.exe", "kioskctl.exe", "kioskctl-dev.exe"):
            image = (BUILD / program).read_bytes()
            header = struct.unpack_from("<I", image, 0x3C)[0] + 24
            self.assertEqual(struct.unpack_from("<H", image, header)[0], 0x20B)
            flags = struct.unpack_from("<H", image, header + 70)[0]
            for name, bit in (("high-entropy addresses", 0x20), ("address randomisation", 0x40), ("DEP", 0x100)):
                self.assertTrue(flags & bit, f"{program}: {name}")
            relocations = struct.unpack_from("<II", image, header + 112 + 5 * 8)
            self.assertGreater(relocations[1], 0, f"{program}: nothing to relocate, so it would not be randomised")
            self.assertIn("2026-10-15-0001".encode("utf-16-le"), image)
            self.assertIn(b'level="asInvoker"', image)
            self.assertLess(len(image), 1_200_000)


class Life(unittest.TestCase):
    def test_from_pairing_to_revocation_and_uninstall(self):
        with (tempfile.TemporaryDirectory() as folder, Portal(https_too=folder) as portal,
              Terminal(programs=PROGRAMS, service=SERVICE) as terminal):
            stage = life.Stage(portal, terminal, patient=False)
            life.play(stage, life.FIRST_LIFE + life.SECOND_LIFE)


class Support(unittest.TestCase):
    FILES = {"computer.txt", "service.txt", "status.txt", "state.txt", "settings.txt", "tasks.txt", "proxy.txt",
             "certificates.txt", "folders.txt", "logs"}

    def test_while_the_service_runs_hangs_and_is_stopped(self):
        with (tempfile.TemporaryDirectory() as folder, Portal(https_too=folder) as portal,
              Terminal(programs=PROGRAMS, service=SERVICE) as terminal):
            life.play(life.Stage(portal, terminal, patient=False), life.PAIRED)
            plain = next(r.headers["Authorization"] for r in portal.requests if r.headers["Authorization"]).split()[1]
            protected = bytes.fromhex(terminal.value("DeviceToken"))
            self.assertGreater(len(protected), 100)
            secrets = [plain, protected[:24].hex(), protected[:24].hex(" ")]
            self.bundle(terminal, r'"enrolled":true', r"^state 4 ", secrets)
            self.check(terminal, r"ok +service +runs as process \d+ and answers\n", r"ok +portal name +127.0.0.1 is 127.0.0.1\n",
                       r"ok +portal TCP +\S+ takes connections on port \d+\n",
                       r"ok +portal (HTTP|TLS) +the portal answers \(status \d+\)\n", r"ok +clock +\d s (behind|ahead of)",
                       r"ok +pairing +paired, without an error\n")
            process = terminal.service_process()
            os.kill(process, signal.SIGSTOP)
            try:
                self.bundle(terminal, r"no answer \(error \d+\)", r"^state 4 ", secrets)
                self.check(terminal, r"WRONG +service +runs as process \d+ and does not answer \(error (231|1460)\)\n +-> ")
                code, _, err = terminal.run("kioskctl.exe", "status", timeout=20)
                self.assertEqual(code, 3)
                self.assertRegex(err, r"^The kiosk service runs and does not answer \(error (231|1460)\)")
            finally:
                os.kill(process, signal.SIGCONT)
            self.assertEqual(terminal.net("stop"), 0)
            self.bundle(terminal, r"no answer \(error 2\)", r"^state 1 ", secrets)
            self.check(terminal, r"WRONG +service +does not run, state 1 ")

    def check(self, terminal, *findings):
        """Wine lacks most of what is looked at, the account for one, so something is always wrong."""
        code, out, err = terminal.run("kioskctl.exe", "check")
        self.assertEqual((code, err), (1, ""))
        for each in findings:
            self.assertRegex(out.replace("\r", ""), each)
        found = json.loads(terminal.run("kioskctl.exe", "--json", "check")[1])
        self.assertEqual([each["check"] for each in found],
                         [line[7:22].strip() for line in out.splitlines() if not line.startswith(" ")])

    def bundle(self, terminal, status, service, secrets):
        code, out, err = terminal.run("kioskctl.exe", "support-bundle", "C:\\")
        self.assertEqual((code, err), (0, ""))
        folder = terminal.path(re.search(r"^Support bundle: (.+)$", out.replace("\r", ""), re.M)[1])
        self.assertEqual({file.name for file in folder.iterdir()}, self.FILES)
        texts = {file.name: file.read_text("utf-8") for file in folder.glob("*.txt")}
        self.assertRegex(texts["status.txt"], status)
        self.assertRegex(texts["service.txt"], service)
        self.assertRegex(texts["state.txt"], r"(?m)^  DeviceToken \(type 3, \d+ bytes\) withheld$")
        self.assertIn("AuthBaseUrl", texts["state.txt"])
        self.assertIn("HideFastUserSwitching", texts["settings.txt"])
        for name, text in texts.items():
            self.assertNotRegex(text, r"S-1-5-21-\d", name)
        logs = "".join(file.read_text("utf-8") for file in (folder / "logs").iterdir())
        self.assertIn("listening on", logs)
        for secret in secrets:
            self.assertNotIn(secret, "".join(texts.values()) + logs)


class RealHttp(unittest.TestCase):
    """Replies that only a real server and a real client make."""

    def test_answers_to_pairing(self):
        big = b'{"pairingCode":"ABCD1234","x":"' + b"x" * 200_000 + b'"}'
        with Portal() as portal, Terminal() as terminal:
            terminal.install(url=portal.url)
            for reply in (Reply(200, body=big), Reply(200, body=b'{"pairingCode":"ABCD1234"}', cut=10), Reply(500)):
                portal.script("/api/kiosk/pair", [reply])
                self.assertEqual(terminal.ask(cmd="pair.begin"), {"ok": False, "error": "server_error"}, repr(reply))
            portal.script("/api/kiosk/pair", [Reply(raw=b"")])
            for url, said in ((portal.url, "WinHTTP error 12"), ("http://127.0.0.1:9", "WinHTTP error 12029")):
                terminal.set_string("AuthBaseUrl", url)
                self.assertEqual(terminal.ask(cmd="pair.begin"), {"ok": False, "error": "unreachable"})
                self.assertIn("WARN pairing: AuthSystem unreachable (" + said, terminal.log()[-1])

    def test_redirect_keeps_the_token_at_home(self):
        with Portal() as portal, Portal() as elsewhere, Terminal() as terminal:
            terminal.install(url=portal.url)
            portal.script("/api/kiosk/check-in", [Reply(307, headers={"Location": elsewhere.url + "/api/kiosk/check-in"})])
            pair(terminal, portal)
            self.assertEqual(list(elsewhere.requests), [])

    def test_branding_arrives_and_a_slow_photo_ends_with_a_stop(self):
        with Portal() as portal, Terminal() as terminal:
            terminal.install(url=portal.url)
            photo = os.urandom(3_000_000)
            branding = {"displayName": "Łódź", "photos": [{"sha256": portal.add_photo(photo)}]}
            terminal_id = pair(terminal, portal, branding=branding, tenantId="t1")
            folder = terminal.path(r"C:\ProgramData\Norvane\Tessaly\Kiosk\Branding")
            wait_for((folder / "branding.json").exists, "the branding")
            self.assertEqual((folder / branding["photos"][0]["sha256"]).read_bytes(), photo)
            self.assertEqual(json.loads((folder / "branding.json").read_bytes()), branding | {"tenantId": "t1"})
            slow = portal.add_photo(b"slow")
            self.assertEqual(terminal.net("stop"), 0)
            portal.set(terminal_id, branding=branding | {"photos": [*branding["photos"], {"sha256": slow}]},
                       photoAnswer="slow")
            self.assertEqual(terminal.net("start"), 0)
            self.assertTrue(portal.wait(lambda: any(slow in request.path for request in portal.requests), 20))
            self.assertEqual(terminal.net("stop"), 0)
            wait_for(lambda: terminal.service_process() is None, "the service to stop", 5)
            self.assertFalse((folder / slow).exists())
            self.assertNotIn("not cached", "".join(terminal.log()))

    def test_https_only_with_a_trusted_certificate(self):
        with tempfile.TemporaryDirectory() as folder, Portal(tls=folder) as portal, Terminal() as terminal:
            terminal.install(url=portal.url)
            self.assertEqual(terminal.ask(cmd="pair.begin"), {"ok": False, "error": "unreachable"})
            self.assertEqual(list(portal.requests), [])
            terminal.trust(portal.ca_file)
            terminal.net("stop")
            terminal.net("start")
            terminal.wait_until_listening(2)
            pair(terminal, portal, name="TLS")
            self.assertEqual(terminal.ask(cmd="status")["terminalName"], "TLS")
