"""kioskctl-dev serve: a shell without a kiosk. The example of a shell meets the example of a script."""

import concurrent.futures
import json
import re
import subprocess
import sys
import unittest

from terminal import PROGRAM_FOLDER, REPOSITORY, Terminal

sys.path.insert(0, str(REPOSITORY / "tools" / "devportal"))
import schemas  # noqa: E402

EXAMPLE = REPOSITORY / "examples" / "shell" / "replies.json"
MESSAGES = REPOSITORY / "docs" / "messages.json"
SCRIPT = PROGRAM_FOLDER + r"\script.json"


class Serve(unittest.TestCase):
    def test_the_example_is_what_the_service_might_answer(self):
        rules = json.loads(EXAMPLE.read_text("utf-8"))
        for rule in rules:
            self.assertEqual(schemas.faults(f"pipe-replies.json#/$defs/{rule['cmd']}", rule["reply"]), [], rule)
        self.assertEqual({rule["cmd"] for rule in rules}, schemas.definitions("pipe-requests.json").keys() - {"unlockToken"})

    def test_in_the_services_place(self):
        with Terminal(programs=("kioskctl-dev.exe", "shell_example.exe", "pipe_client.exe"), service=None) as terminal:
            self.each_code_and_what_a_script_may_not_say(terminal)
            terminal.put(MESSAGES)
            self.write_without_waits(terminal)
            # As a service of its name, or the shell would not talk to it.
            self.assertEqual(self.sc(terminal, "create", "NorvaneKiosk", "binPath=",
                                     rf'"{PROGRAM_FOLDER}\kioskctl-dev.exe" serve "{PROGRAM_FOLDER}\replies.json"'), 0)
            self.assertEqual(terminal.net("start"), 0)
            said = self.talk(terminal, "")
            self.assertEqual(re.findall(r"portal: (\w+)$", said, re.M),
                             ["UNKNOWN1", "EXPIRED1", "CLAIMED1", "REVOKED1", "NOTSTORE", "K7WQ2MZP"])
            self.assertIn("This terminal is paired.\n", said)
            unlocks = [each["code"] for each in json.loads(MESSAGES.read_text()) if "unlock" in each.get("commands", ())]
            said = self.talk(terminal, *(word for code in unlocks for word in ("unlock", code)), "unlock", "x", "install",
                             "install", "power 241 0", "power 1 0", "dhcp failed", "proxy failed", "time", "time", "quit")
            self.assertIn("Terminal Hall 3 – Łódź\n", said)
            self.assertEqual(re.findall(r"\[(\w+)\]$", said, re.M), [
                *unlocks, "busy", "invalid", "wake_unavailable", "failed", "failed", "unreachable", "sync_failed"])
            self.assertIn("Installing: 10 %\nInstalling: 60 %\nA restart finishes the installation.\n", said)
            self.assertEqual(terminal.net("stop"), 0)

    def each_code_and_what_a_script_may_not_say(self, terminal):
        codes = {}  # by command
        for each in json.loads(MESSAGES.read_text()):
            for command in each.get("commands", ["pair.begin"]):
                codes.setdefault(command, []).append(each["code"])
        self.assertEqual(terminal.run("kioskctl-dev.exe", "serve", SCRIPT)[0], 2)
        script = terminal.path(SCRIPT)
        for text, wrong in (("", "unexpected end"), ("{}", "no JSON array"), ('[{"reply":{}}]', 'rule 1: "cmd" is no text'),
                            ('[{"cmd":"x"}]', '"reply" is no object'), ('[{"cmd":"x","reply":{},"times":0.5}]', '"times" is no'),
                            ('[{"cmd":"x","reply":{},"delay":-1}]', '"delay" is no'),
                            ('[{"cmd":"x","reply":{},"when":1}]', '"when" is no object')):
            script.write_text(text)
            code, out, err = terminal.run("kioskctl-dev.exe", "serve", SCRIPT)
            self.assertEqual((code, out), (2, ""), text)
            self.assertIn(wrong, err)
        script.write_text(json.dumps([{"cmd": command, "times": 1, "reply": {"ok": False, "error": code}}
                                      for command, said in codes.items() for code in said]))
        with terminal.start("kioskctl-dev.exe", "serve", SCRIPT, "os.install=locked") as serving:
            try:
                self.assertEqual(serving.stdout.readline().strip(), "Serving the pipe; Ctrl-C ends it.")
                self.ask(terminal, "os.install", "locked", "locked")
                self.assertEqual([serving.stdout.readline().strip() for _ in range(2)],
                                 ['> {"cmd": "os.install"}', '< {"ok":false,"error":"locked"}'])
                del codes["os.install"]
                with concurrent.futures.ThreadPoolExecutor(4) as pool:
                    list(pool.map(lambda command: self.ask(terminal, command, *codes[command], "unknown_command"), codes))
            finally:
                serving.kill()
                serving.communicate()

    def ask(self, terminal, command, *expected):
        for each in expected:
            code, out, err = terminal.run("pipe_client.exe", json.dumps({"cmd": command}))
            self.assertEqual((code, json.loads(out)), (0, {"ok": False, "error": each}), err)

    def sc(self, terminal, *words):
        return subprocess.run(["wine", "sc", *words], env=terminal.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def talk(self, terminal, *words):
        """Runs the shell to its end, entering those lines; returns all that it said."""
        with terminal.start("shell_example.exe", PROGRAM_FOLDER + r"\messages.json", stdin=-1, stderr=None) as shell:
            said = shell.communicate("".join(word + "\n" for word in words), timeout=60)[0]
        self.assertEqual(shell.returncode, 0, said)
        return said.replace("\r", "")

    def write_without_waits(self, terminal):
        """The example without what makes a shell wait for seconds."""
        rules = [rule for rule in json.loads(EXAMPLE.read_text("utf-8"))
                 if rule["cmd"] != "pair.check" or "when" in rule or "times" not in rule]
        for rule in rules:
            rule.pop("delay", None)
        terminal.path(PROGRAM_FOLDER + r"\replies.json").write_text(json.dumps(rules), "utf-8")
