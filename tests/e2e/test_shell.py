"""The example of a kiosk shell: a terminal's first hour with it."""

import pathlib
import re
import sys
import tempfile
import threading
import unittest

TOOLS = pathlib.Path(__file__).resolve().parents[2] / "tools"
sys.path[:0] = [str(TOOLS / "devportal"), str(TOOLS / "dev")]
from devportal import Portal  # noqa: E402
from life import Stage, beginning  # noqa: E402
from life.settings import ADAPTER  # noqa: E402
from life.stage import PROGRAMS, SERVICE  # noqa: E402
from terminal import BUILD, PROGRAM_FOLDER, Terminal  # noqa: E402


class Shell(unittest.TestCase):
    PROGRAMS = (*PROGRAMS, "shell_example.exe", "messages.json")

    def test_pairs_a_terminal_then_unlocks_and_installs_updates(self):
        with (tempfile.TemporaryDirectory() as folder, Portal(https_too=folder) as portal,
              Terminal(programs=self.PROGRAMS, service=SERVICE) as terminal):
            stage = Stage(portal, terminal, patient=False)
            beginning.a_computer_and_its_owner(stage)
            said = self.talk(terminal, lambda line, enter: self.pair(portal, line, enter))
            self.assertIn("This terminal is paired.\n", said)
            stage.check_soon(stage.restart_requested, "the shell has Windows restart at once", 6)
            beginning.restart_into_the_kiosk(stage)

            terminal.machine("update", "An update")
            terminal.machine("agent", "3000", "install")
            words = iter(["unlock", "wrong", "install", "unlock", beginning.EXIT_PASSWORD, "in", "install", "power 20 0", "quit"])
            said = self.talk(terminal, lambda line, enter: line.endswith(("?", ":")) and enter(next(words)))
            self.assertRegex(said, r"^Terminal Hall 3 – Łódź\n")
            self.assertIn("That is not the exit password. It is set in the portal. [wrong_password]\n", said)
            self.assertIn("The settings have been locked again. Enter the exit password. [not_unlocked]\n", said)
            self.assertIn("The settings are open for 600 s.\n", said)
            self.assertRegex(said, r"Installing: \d+ %\n(.*\n)*Nothing is going on.\n")
            self.assertIn("effective.screenOffMinutes: 20\n", said)
            self.replies_are_as_written(terminal)

    def replies_are_as_written(self, terminal):
        """ask() holds each against docs/schemas."""
        self.assertTrue(terminal.ask(cmd="session.report", signedIn=False)["ok"])
        token = terminal.ask(cmd="unlock", password=beginning.EXIT_PASSWORD)["unlockToken"]
        self.assertEqual(terminal.ask(cmd="net.set", unlockToken=token, adapter=ADAPTER, mode="static", address="10.1.2.3",
                                      prefixLength=24, dns=[])["address"], "10.1.2.3")
        for request in ({"cmd": "net.set", "adapter": ADAPTER, "mode": "dhcp"}, {"cmd": "power.get"}, {"cmd": "os.updates"},
                        {"cmd": "power.set", "useOrganisation": True}, {"cmd": "proxy.set", "mode": "none"},
                        {"cmd": "proxy.set", "mode": "manual", "server": "proxy.test:8080"},
                        {"cmd": "proxy.set", "mode": "auto", "pacUrl": "http://proxy.test/pac"},
                        {"cmd": "maintenance"}):
            self.assertTrue(terminal.ask(unlockToken=token, **request)["ok"], request)

    def pair(self, portal, line, enter):
        if code := re.search(r"portal: ([A-Z0-9]{8})$", line):
            portal.claim(code[1], exitPassword=beginning.EXIT_PASSWORD, name="Hall 3 – Łódź")
        if line.endswith("at once."):
            enter("")

    def shell(self, terminal):
        return terminal.start("shell_example.exe", PROGRAM_FOLDER + r"\messages.json", stdin=-1, stderr=None)

    def talk(self, terminal, hear):
        """Runs the shell to its end; `hear` gets each line and a function that enters one. Returns all that it said."""
        with self.shell(terminal) as shell:
            patience = threading.Timer(200, shell.kill)
            patience.start()
            said = ""
            for line in shell.stdout:
                said += line

                def enter(text):
                    shell.stdin.write(text + "\n")
                    shell.stdin.flush()
                hear(line.rstrip(), enter)
            patience.cancel()
        self.assertEqual(shell.returncode, 0, said)
        return said.replace("\r", "")
