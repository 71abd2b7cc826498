"""Real signed programs that call a signed service: who is admitted, who is refused, and what the log says of it."""

import json
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from signing import Authority
from terminal import BUILD, PROGRAM_FOLDER, Terminal

SUBJECT = "/C=PL/O=Norvane Łódź/CN=Norvane"
REFUSED = {"ok": False, "error": "caller_refused"}
NOT_VALID = "is not validly signed"
NOT_OURS = "is not signed by this service's publisher"


class Signatures(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="norvane-signing-")
        cls.addClassCleanup(folder.cleanup)
        cls.made = pathlib.Path(folder.name)
        authority = Authority(cls.made / "trusted", "Trusted Test Authority")
        stranger = Authority(cls.made / "unknown", "Unknown Test Authority")
        client, service = BUILD / "pipe_client.exe", BUILD / "NorvaneKiosk.exe"
        for issuer, name, subject in ((authority, "ours", SUBJECT), (authority, "other", SUBJECT + " Ltd"),
                                      (authority, "reordered", "/C=PL/CN=Norvane/O=Norvane Łódź"),
                                      (stranger, "untrusted", SUBJECT)):
            issuer.publisher(name, subject)
            issuer.sign(name, client, cls.made / f"{name}.exe")
        shutil.copy(client, cls.made / "unsigned.exe")
        tampered = bytearray((cls.made / "ours.exe").read_bytes())
        tampered[len(tampered) // 3] ^= 1
        (cls.made / "tampered.exe").write_bytes(tampered)

        cls.terminal = cls.enterClassContext(Terminal(programs=()))  # DevAllowUnsigned is set, and must not matter
        cls.terminal.trust(authority.certificate)
        cls.terminal.put(authority.sign("ours", service, cls.made / "NorvaneKiosk.exe"))
        for name in ("ours", "other", "reordered", "untrusted", "unsigned", "tampered"):
            cls.terminal.put(cls.made / f"{name}.exe")
        cls.terminal.install()

    def ask(self, program):
        code, out, err = self.terminal.run(program, '{"cmd":"status"}')
        self.assertEqual(code, 0, (program, err))
        return json.loads(out)

    def refusals(self):
        return [line for line in self.terminal.log() if "caller refused" in line]

    def check_refusal(self, program, reason, before):
        self.assertEqual(self.refusals()[len(before):], [f"WARN caller refused: {PROGRAM_FOLDER}\\{program} {reason}"])

    def test_each_caller_gets_what_its_signature_deserves(self):
        self.assertEqual([line for line in self.terminal.log() if "not signed (a dev build)" in line], [])
        before = self.refusals()
        self.assertTrue(self.ask("ours.exe")["ok"])
        self.assertEqual(self.refusals(), before)
        for program, reason in (("other.exe", NOT_OURS), ("reordered.exe", NOT_OURS), ("untrusted.exe", NOT_VALID),
                                ("tampered.exe", NOT_VALID), ("unsigned.exe", NOT_VALID)):
            with self.subTest(program):
                before = self.refusals()
                self.assertEqual(self.ask(program), REFUSED)
                self.check_refusal(program, reason, before)

    def test_a_name_outside_ascii_reaches_the_log(self):
        self.terminal.put(self.made / "unsigned.exe", "Łódź – Halle 3.exe")
        before = self.refusals()
        self.assertEqual(self.ask("Łódź – Halle 3.exe"), REFUSED)
        self.check_refusal("Łódź – Halle 3.exe", NOT_VALID, before)

    def test_a_program_replaced_or_gone_while_it_runs_is_judged_by_what_lies_there_now(self):
        for successor, reason in (("unsigned.exe", NOT_VALID), ("other.exe", NOT_OURS), (None, NOT_VALID)):
            with self.subTest(successor):
                path = self.terminal.path(self.terminal.put(self.made / "ours.exe", "running.exe"))
                with self.terminal.start("running.exe", "--wait", '{"cmd":"status"}', stdin=subprocess.PIPE) as process:
                    self.assertEqual(process.stdout.readline(), "ready\n")
                    path.rename(path.with_name("moved.exe"))
                    if successor:
                        self.terminal.put(self.made / successor, "running.exe")
                    before = self.refusals()
                    out, _ = process.communicate("go\n", timeout=60)
                self.assertEqual(json.loads(out), REFUSED)
                self.check_refusal("running.exe", reason, before)


if __name__ == "__main__":
    unittest.main()
