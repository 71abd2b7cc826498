"""What the steps of a terminal's life share: the computer, the portal, the screen, and checks that end the run."""

import difflib
import json
import time

from terminal import STATE_KEY, held, wait_for

WINLOGON = r"HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Winlogon"
PASSWORDLESS = r"HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\PasswordLess\Device"
POLICIES = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Policies\System"
WINDOWS_UPDATE = r"HKLM\SOFTWARE\Policies\Microsoft\Windows\WindowsUpdate"
SIMULATED = r"HKLM\SOFTWARE\SimulatedWindows"
LOG_KEY = r"HKLM\SOFTWARE\Norvane\Tessaly\Log"
BRANDING = r"C:\ProgramData\Norvane\Tessaly\Kiosk\Branding"
KIOSK_USER = "NorvaneKiosk"
OWNER = "Owner"
SERVICE = "NorvaneKioskSim.exe"
PROGRAMS = ("kioskctl.exe", "kioskctl-dev.exe", "sim_machine.exe")


class Failure(AssertionError):
    """Something that has to hold does not."""


class Stage:
    """`portal` and `terminal` are up; `patient` waits for what happens by itself, otherwise the service is hurried."""

    def __init__(self, portal, terminal, show=print, patient=True):
        self.portal = portal
        self.terminal = terminal
        self.show = show
        self.patient = patient
        self.terminal_id = None  # the portal's
        self.before = None       # the computer as its owner had it
        self.seconds = []        # (step, how long it took)

    # -- checks -----------------------------------------------------------------------------------------------------

    def check(self, holds, claim, detail=""):
        if not holds:
            raise Failure(f"it is not so that {claim}" + (f": {detail}" if detail else ""))
        self.show(f"   ok: {claim}")

    def check_soon(self, condition, claim, seconds):
        try:
            wait_for(condition, claim, seconds)
        except AssertionError:
            raise Failure(f"it is not so that {claim}, not even after {seconds} s") from None
        self.show(f"   ok: {claim}")

    def check_computer_is_as_before(self):
        """Nobody may be signed in, as nobody was at the first look."""
        now = self.terminal.dump_machine()
        lines = len(self.before.splitlines())
        self.show(f"   accounts, groups, secrets, profiles and settings, {lines} lines, compared with before the pairing: "
                  + ("equal" if now == self.before else "DIFFERENT"))
        if now != self.before:
            difference = difflib.unified_diff(self.before.splitlines(), now.splitlines(), "before", "now", "", "", 0, "")
            raise Failure("the computer was not given back as it was:\n" + "\n".join(difference))

    def check_nobody_misused_windows(self):
        """The simulation notes every call that breaks what Windows documents."""
        code, text = self.terminal.registry("query", SIMULATED + r"\Violations")
        self.check(code != 0 or "REG_" not in text, "no call broke a contract of Windows", text.strip())

    # -- the terminal -----------------------------------------------------------------------------------------------

    def kioskctl(self, *words, development=False):
        """Runs it as whoever the pipe takes its clients for, and shows what it says. Returns (exit code, text)."""
        program = "kioskctl-dev" if development else "kioskctl"
        shown = " ".join(f'"{word}"' if " " in word or not word else word for word in words)
        self.show(f"   > {program} {shown}")
        code, out, err = self.terminal.run(program + ".exe", *words, timeout=120)
        for line in (out + err).splitlines():
            self.show(f"     {line}".rstrip())
        return code, out + err

    def status(self):
        """Shows "kioskctl status" and returns the service's reply."""
        code, text = self.kioskctl("status")
        self.check(code == 0, "the service answers \"status\"", text)
        return self.ask()

    def ask(self):
        code, out, err = self.terminal.run("kioskctl.exe", "--json", "status")
        if not out:
            raise Failure(f"kioskctl gives no answer (exit code {code}): {err}")
        return held({"cmd": "status"}, json.loads(out))

    def hurry(self):
        """The next check-in comes within 30 s by itself; a service that starts makes one at once."""
        if not self.patient:
            self.terminal.restart_service()

    def says(self, line, since=0):
        """Whether the log has the line, after so many lines."""
        return line in self.terminal.log()[since:]

    # -- Windows ----------------------------------------------------------------------------------------------------

    def restart_requested(self):
        return self.terminal.value("Message", SIMULATED + r"\Shutdown")

    def restart_windows(self):
        """Returns the session that Windows signs somebody in to by itself; 0: none."""
        terminal = self.terminal
        terminal.set_string("Request", "5", SIMULATED + r"\ServiceControl")
        wait_for(lambda: terminal.service_process() is None, "the service to stop as Windows shuts down", 45)
        session = terminal.machine("restart")
        terminal.start_service()
        return session

    def machine_lines(self, *beginnings):
        """Those of the computer's lines that begin like this, as before the pairing and as now."""
        return tuple([line for line in text.splitlines() if line.startswith(beginnings)]
                     for text in (self.before, self.terminal.dump_machine()))

    def user_of_session(self, session):
        return self.terminal.value("User", rf"{SIMULATED}\Sessions\{session}")

    def state_values(self):
        """The names of all values in the state key; None when the key is gone."""
        code, text = self.terminal.registry("query", STATE_KEY)
        return None if code != 0 else {line.split()[0] for line in text.splitlines() if " REG_" in line}


def play(stage, steps):
    """One after the other. Every step leaves its time with the stage; the first failure ends it."""
    for step in steps:
        name = step.__doc__.splitlines()[0].rstrip(".")
        number = len(stage.seconds) + 1
        stage.show(f"\n== {number}. {name}")
        stage.seconds.append((name, None))
        started = time.monotonic()
        step(stage)
        stage.seconds[-1] = (name, time.monotonic() - started)
        stage.show(f"   ({stage.seconds[-1][1]:.1f} s)")
