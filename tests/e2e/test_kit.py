"""The proof kit, on the simulation with NorvaneKioskSim.exe and under Wine with the shipping program."""

import contextlib
import hashlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

from terminal import BUILD, REPOSITORY, Terminal, wait_for

JOURNAL_FOLDER = r"C:\ProgramData\NorvaneProof"
REPORT = r"C:\report"
WINLOGON = r"HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Winlogon"
SIMULATED = r"HKLM\SOFTWARE\SimulatedWindows"
ROOTS = r"HKLM\Software\Microsoft\SystemCertificates\Root\Certificates"
OWNER = "Owner"
OWNERS_PASSWORD = "correct horse"


CUT_SHORT = "kiosk_proof: a run was cut short here; kiosk_proof --undo puts everything back\n"


class Kit:
    """The kit on a computer of somebody's."""

    def __init__(self, terminal, program):
        self.terminal = terminal
        self.program = program
        self.reports = 0
        self.computer = terminal.computer_name()

    def run(self, *words, timeout=300):
        return self.terminal.run(self.program, *words, timeout=timeout)

    def start(self, *words):
        """The arguments of a run with a report of its own, started; the report is then `self.report()`."""
        self.reports += 1
        return self.terminal.start(self.program, "--run", "--report", f"{REPORT}{self.reports}", "--computer", self.computer,
                                   *words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def begin(self, *words):
        """Starts a run that `end` waits for, to the end of the module."""
        self.process = unittest.enterModuleContext(self.start(*words))
        unittest.addModuleCleanup(self.process.kill)

    def end(self):
        """(exit code, report)"""
        return self.process.wait(600), self.report()

    def report(self):
        """None while there is none; what is written is always whole."""
        with contextlib.suppress(FileNotFoundError):
            return json.loads(self.terminal.path(f"{REPORT}{self.reports}\\report.json").read_text("utf-8"))

    def last_line(self):
        """Of the report for people; None while there is none."""
        with contextlib.suppress(FileNotFoundError):
            return self.terminal.path(f"{REPORT}{self.reports}\\report.txt").read_text("utf-8").splitlines()[-1]

    def has_come_to(self, step):
        """A short step may be over before anybody looks."""
        report = self.report() or {"lines": []}
        return report.get("running") == step or any(line["id"] == step for line in report["lines"])

    def kill(self):
        """Ends every process of the kit, as a power cut would."""
        while process := self.terminal.process(self.program):
            os.kill(process, signal.SIGKILL)
            wait_for(lambda: self.terminal.process(self.program) != process, "a killed process to be gone")

    def undo(self):
        return self.run("--undo")


def verdicts(report, *wanted):
    return [f"{line['verdict']} {line['id']} ({line['caller']}): {line['answered']}" for line in report["lines"]
            if line["verdict"] in wanted]


def pack(*options):
    """What tools/proof/pack makes, in a folder that goes at the end of the module."""
    folder = unittest.enterModuleContext(tempfile.TemporaryDirectory(prefix="norvane-kit-"))
    subprocess.run([REPOSITORY / "tools/proof/pack", *options, BUILD, folder], check=True)
    return pathlib.Path(folder)


@contextlib.contextmanager
def terminal_with(folder, *programs):
    """A computer with what was packed."""
    with Terminal(programs=programs, service=None, unsigned=False) as terminal:
        for file in folder.rglob("*.*"):
            terminal.put(file, str(file.relative_to(folder)).replace("/", "\\"))
        yield terminal


def simulated_terminal():
    return terminal_with(simulated_folder, "sim_machine.exe")


def furnish(terminal):
    """A computer that has an owner, whom Windows signs in by itself."""
    terminal.machine("user", OWNER, OWNERS_PASSWORD)
    for name, text in (("AutoAdminLogon", "1"), ("DefaultUserName", OWNER), ("DefaultDomainName", ".")):
        terminal.set_string(name, text, WINLOGON)
    terminal.set_string("DefaultPassword", OWNERS_PASSWORD, SIMULATED + r"\Secrets")
    terminal.machine("signout", str(terminal.machine("signin", OWNER)))


def setUpModule():
    """The lives take their time, most of it waiting: they go on beside the other tests."""
    global simulated, shipping, simulated_folder, kit_folder
    simulated_folder, kit_folder = pack("--simulated"), pack()
    terminal = unittest.enterModuleContext(simulated_terminal())
    furnish(terminal)
    simulated = Kit(terminal, "kiosk_proof_sim.exe")
    simulated.before = terminal.dump_machine()
    simulated.begin("--restarts", "--only", "life")
    shipping = Kit(unittest.enterModuleContext(terminal_with(kit_folder)), "kiosk_proof.exe")
    shipping.begin("--quick", "--only", "life")


class OnTheSimulation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.terminal = cls.enterClassContext(simulated_terminal())
        furnish(cls.terminal)
        cls.kit = Kit(cls.terminal, "kiosk_proof_sim.exe")
        cls.kit.before = cls.terminal.dump_machine()

    def check_as_before(self, kit=None):
        kit = kit or self.kit
        self.assertEqual(kit.terminal.dump_machine(), kit.before)
        self.assertFalse(kit.terminal.path(JOURNAL_FOLDER).exists())
        self.assertFalse(kit.terminal.path(r"C:\ProgramData\Norvane").exists())

    def test_without_an_option_it_changes_nothing(self):
        code, out, err = self.kit.run()
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(out.startswith("Nothing was changed."), out[:200])
        self.assertIn("life/pair: ", out)
        self.assertIn("contract/files/", out)
        self.check_as_before()

    def test_contract_cases_are_asked_by_both_callers(self):
        with self.kit.start("--only", "contract/p") as process:
            code = process.wait(120)
        report = self.kit.report()
        self.assertEqual((code, verdicts(report, "broken", "known", "could not run")), (0, []))
        for case in ("contract/proxy/default", "kit/cases"):
            callers = {line["caller"] for line in report["lines"] if line["id"] == case}
            self.assertEqual(callers, {"administrator", "the agent's account"})
        self.check_as_before()

    def test_what_is_left_behind_is_broken(self):
        with self.kit.start("--only", "life/install") as process:
            wait_for(lambda: self.kit.last_line() == "not finished: life/install", "the kit to come to a step", 60)
            self.terminal.machine("user", "Stranger", "x")
            code = process.wait(120)
        report = self.kit.report()
        self.terminal.registry("delete", SIMULATED + r"\Users\Stranger", "/f")
        broken = verdicts(report, "broken")
        self.assertEqual((code, len(broken)), (1, 1), broken)
        self.assertRegex(broken[0], r"^broken kit/undo .*\+ user Stranger S-1-5-21-")
        self.assertEqual(self.kit.last_line(), summary(report))
        self.check_as_before()

    def test_the_whole_life(self):
        code, report = simulated.end()
        self.assertEqual(verdicts(report, "broken"), [])
        self.assertEqual(code, 0)
        self.assertEqual(report["differences"], [])
        print(f"\n  simulation: {summary(report)}", file=sys.stderr)
        check_life(self, report, "life/unlock", "life/system")
        self.check_as_before(simulated)
        self.check_nothing_secret(simulated.terminal.path(f"{REPORT}{simulated.reports}"))

    def check_nothing_secret(self, folder):
        for file in folder.iterdir():
            text = file.read_text("utf-8")
            self.assertNotIn("Open Sesame", text)
            allowed = {json.loads((folder / "report.json").read_text("utf-8"))["head"]["product"]}
            self.assertLessEqual(set(re.findall(r"\b[0-9a-f]{32,}\b", text)), allowed, file.name)

    def test_killed_and_undone(self):
        """Here as a whole; ProofFaults plays every moment. A damaged journal or report changes nothing."""
        with self.kit.start("--restarts", "--quick", "--only", "life"):
            wait_for(lambda: self.kit.has_come_to("life/hive"), "the kit to come to a kiosk", 120)
            secrets = self.secrets()
            self.assertEqual(len(secrets), 2)
            self.kit.kill()
        before = self.terminal.dump_machine()
        self.assertEqual(self.kit.run("--run", "--computer", self.kit.computer), (2, "", CUT_SHORT))
        folder = self.terminal.path(f"{REPORT}{self.kit.reports}")
        for file in folder.iterdir():
            for secret in [*secrets, OWNERS_PASSWORD]:
                self.assertNotIn(secret, file.read_text("utf-8"))
        with self.damaged(self.terminal.path(JOURNAL_FOLDER) / "journal.txt"):
            for words in (("--undo",), ("--run",)):
                code, out, err = self.kit.run(*words)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1))
                self.assertIn("is damaged", err)
        with self.damaged(folder / "report.json"):  # as after a restart, at which the agent comes back
            problem = self.terminal.path(JOURNAL_FOLDER) / "problem.txt"
            wait_for(lambda: problem.exists() or self.net("start") is None, "the agent to come back and end")
        self.assertEqual(self.kit.run("--run"), (2, "", CUT_SHORT.replace(
            "a run was cut short here", f"the report of the run is damaged: {REPORT}{self.kit.reports}")))
        self.assertEqual(self.terminal.dump_machine(), before)
        # A program that the killed kit had started may go on for a moment: then the undo asks to be repeated.
        wait_for(lambda: self.kit.undo()[:2] == (0, "Everything is as before.\n"), "the undo", 60)
        self.check_as_before()

    @contextlib.contextmanager
    def damaged(self, file):
        whole = file.read_bytes()
        file.write_bytes(whole[:-9])
        yield
        file.write_bytes(whole)

    def net(self, verb):
        return subprocess.run(["wine", "net", verb, "NorvaneProofAgent"], env=self.terminal.environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def secrets(self):
        """Of the kiosk that is there now: its password, and the protected token."""
        found = re.findall(r"^secret DefaultPassword (\S+)\s*$", self.terminal.dump_machine(), re.M)
        token = self.terminal.value("DeviceToken")
        return found + ([token[:48]] if token else [])

    def test_refusals_change_nothing(self):
        key = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\WindowsUpdate\Auto Update\RebootRequired"
        named = ("--run", "--computer", self.kit.computer)

        def refused(sentence, *words):
            code, out, err = self.kit.run(*words)
            self.assertEqual((code, out), (2, ""), (sentence, err))
            self.assertIn(sentence, err)
            self.assertEqual(err.count("\n"), 1, err)

        refused("unknown option --everything", "--everything")
        refused("something is missing after --report", "--report")
        refused("this computer is not called ELSE", "--run", "--computer", "ELSE")
        with self.value("x", "1", key):
            refused("Windows waits for a restart", *named)
        with self.value("DeviceToken", "00", r"HKLM\SOFTWARE\Norvane\Tessaly\Kiosk", "REG_BINARY"):
            refused("this computer is paired", *named)
        with self.value("FreeMB", "1", SIMULATED + r"\Disk", "REG_DWORD"):
            refused("the disk is full", *named)
        self.terminal.machine("user", "NorvaneKiosk", "x")
        refused("there is a user NorvaneKiosk already", *named)
        self.terminal.registry("delete", SIMULATED + r"\Users\NorvaneKiosk", "/f")
        for what, sentence in (("NoRights", "this needs an administrator's rights (5)"),
                               ("InDomain", "this computer is in a domain; if nobody needs it, type its name"),
                               ("Managed", "this computer is under a device management"),
                               ("Battery", "this computer has a battery"), ("Metal", "this is no virtual machine"),
                               ("NoDesktop", "there is no desktop where this runs")):
            with self.value(what, "5", SIMULATED + r"\Computer", "REG_DWORD"):
                refused(sentence, "--run")
                if what != "NoRights":  # whoever types the name means it, and comes to the next reason
                    with self.value("x", "1", key):
                        refused("Windows waits for a restart", *named)
        report = self.terminal.path(r"C:\old")
        report.mkdir()
        (report / "report.json").write_text("{}")
        refused("there is a report in that folder already", *named, "--report", r"C:\old")
        self.check_as_before()

    @contextlib.contextmanager
    def value(self, name, text, key, type="REG_SZ"):
        self.terminal.set_string(name, text, key, type)
        yield
        self.assertEqual(self.terminal.registry("delete", key, "/f")[0], 0)


class UnderWine(unittest.TestCase):
    def test_the_shipping_program(self):
        code, report = shipping.end()
        self.assertEqual(verdicts(report, "broken"), [])
        self.assertEqual(code, 0)
        print(f"\n  Wine: {summary(report)}", file=sys.stderr)
        check_life(self, report)
        self.assertFalse(shipping.terminal.path(JOURNAL_FOLDER).exists())
        self.assertIsNone(shipping.terminal.service_process())
        authority = hashlib.sha1((kit_folder / "signed/authority.cer").read_bytes()).hexdigest().upper()
        self.assertNotIn(authority, shipping.terminal.registry("query", ROOTS)[1])


class Comparison(unittest.TestCase):
    def compare(self, *texts):
        with tempfile.TemporaryDirectory() as folder:
            files = []
            for text in texts:
                files.append(os.path.join(folder, f"{len(files)}.json"))
                with open(files[-1], "w", encoding="utf-8") as file:
                    file.write(text)
            done = subprocess.run([REPOSITORY / "tools/dev/proof-compare", *files], capture_output=True, text=True)
            return done.returncode, done.stdout, done.stderr

    def report(self, caller="LocalSystem", **answers):
        return json.dumps({"lines": [{"id": f"contract/{name.replace('_', '/')}", "caller": caller, "verdict": verdict,
                                      "asked": "", "answered": "why" if verdict == "broken" else ""}
                                     for name, verdict in answers.items()]})

    def test_it_names_what_answers_otherwise(self):
        for caller in ("LocalSystem", "administrator"):  # the latter: what tools/dev/contract leaves
            code, out, _ = self.compare(self.report(lsa_store="held", lsa_delete="broken", http_cut="could not run"),
                                        self.report(caller, lsa_store="held", lsa_delete="held", http_cut="held"))
            self.assertEqual(code, 1)
            self.assertIn("contract/lsa/delete (agent): broken there, held here", out)
            self.assertIn("LsaStorePrivateData", out)
            self.assertIn("1 answer alike, 1 otherwise, 1 could not run on one side", out)
        same = self.report(lsa_store="held")
        self.assertEqual(self.compare(same, same)[0], 0)

    def test_a_damaged_report_is_one_sentence(self):
        for damaged in ("", "{", "[]", '{"lines": [{"id": 1}]}', '{"lines": 5}'):
            code, out, err = self.compare(damaged, self.report(lsa_store="held"))
            self.assertEqual((code, out, err.count("\n")), (2, "", 1), (damaged, err))


def check_life(test, report, *more):
    """What a life must not fail to come to, and a fault of what was packed."""
    held = {line["id"] for line in report["lines"] if line["verdict"] == "held"}
    test.assertLessEqual({"life/unsigned callers", "life/callers", "life/renamed program", "life/held program",
                          "life/unsigned service", *more}, held)
    test.assertNotIn("without their texts", "\n".join(report["log"]))


def summary(report):
    return ", ".join(f"{len(verdicts(report, verdict))} {verdict}" for verdict in ("held", "broken", "known", "could not run"))


if __name__ == "__main__":
    unittest.main()
