"""What the documents tell people to type, typed as it stands there."""

import functools
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.request

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(REPOSITORY / folder) for folder in ("tools/dev", "tests/e2e")]
import document_references as documents  # noqa: E402
from terminal import wait_for  # noqa: E402

# What takes long, installs, or needs what only a person has; tests, which run by themselves; what pairs by hand, see below.
NOT_HERE = re.compile(r"\./(run|test)\b|tools/release/(make|stack)\b|tools/dev/(install-packages|measure-portal-load|proof-compare)|"
                      r"cmake |.*-m unittest(?!.* -k )|python3 (bench/|tools/portal-check|tools/devportal/devportal.py($| --database))|"
                      r"wine |\. tools/dev/wine-env|tools/dev/wine-prefix|.*month\.steps")
CODE = r"(?m)^  ([A-Z0-9]{8})   \(valid for"
LONG = 180  # seconds
SHORTER = {"fuzz_one 60": "fuzz_one 1", " 600 4711": " 1 4711", "FILE.steps...": "$(ls -S tests/soak/seeds/*.steps | tail -n 1)"}


class Documents(unittest.TestCase):
    def setUp(self):
        os.chdir(REPOSITORY)

    def test_each_command_succeeds(self):
        typed = set()
        for _, text in documents.blocks():
            typed |= {re.split(r" +#", line)[0] for line in text.splitlines() if re.match(documents.SHELL, line)}
        for command in sorted(each for each in typed if not NOT_HERE.match(each)):
            for long, short in SHORTER.items():
                command = command.replace(long, short)
            with self.subTest(command):
                done = subprocess.run(["bash", "-c", command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                      timeout=LONG)
                print(f"{done.returncode} {command}")
                self.assertEqual(done.returncode, 0, (done.stdout + done.stderr)[-2000:])

    def test_a_stranger_pairs_by_hand(self):
        chapter = documents.text_of("README.md").split("\n## Pairing by hand\n")[1].split("\n## ")[0]
        portal, *computer = documents.blocks_of(chapter)
        folder = self.enterContext(tempfile.TemporaryDirectory())
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = str(free.getsockname()[1])
        place = {"$PWD/build/": folder + "/", "build/wine/": folder + "/wine/", "build/devportal": folder + "/devportal", "8470": port,
                 "support-bundle build": "support-bundle " + folder, "exe check": "exe check || test $? = 1"}
        script, portal = (functools.reduce(lambda text, each: text.replace(*each), place.items(), text)
                          for text in ("set -e\n" + "".join(computer), portal))
        self.addCleanup(subprocess.run, ["wineserver", "-k"], env=os.environ | {"WINEPREFIX": folder + "/wine/mine"})
        self.start([*portal.split(), "--port", port])
        wait_for(lambda: self.listens(port), "the portal")
        said = self.type(script, f"http://127.0.0.1:{port}/page/api/claim")
        for words in ("NorvaneKiosk installed", "This terminal is paired.", "user NorvaneKiosk ", "Kiosk session", " INFO enrolled=",
                      "NorvaneKiosk removed"):
            self.assertIn(words, said)

    @staticmethod
    def listens(port):
        with socket.socket() as client:
            return client.connect_ex(("127.0.0.1", int(port))) == 0

    def start(self, command, output=subprocess.DEVNULL):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def type(self, script, claim):
        """Runs the script, with somebody who enters the code that it shows. Returns what it said."""
        output = self.enterContext(tempfile.TemporaryFile())  # what stays in the background would hold a pipe open
        shell = self.start(["bash", "-c", script], output)

        def said():
            return os.pread(output.fileno(), 1 << 20, 0).decode("utf-8", "replace")
        wait_for(lambda: re.search(CODE, said()) or shell.poll() is not None, "a code", LONG)
        code = re.search(CODE, said())
        self.assertTrue(code, said())
        urllib.request.urlopen(urllib.request.Request(claim, b'{"code": "%s", "name": ""}' % code[1].encode(), {
            "Content-Type": "application/json", "X-Devportal": "test"}), timeout=10).close()
        self.assertEqual(shell.wait(LONG), 0, said())
        return said()
