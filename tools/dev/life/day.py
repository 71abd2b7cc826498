"""The terminal's day: when it sleeps, when it installs updates, what time it has."""

import contextlib
import datetime
import re
import socket
import struct
import threading
import time

from .account import unlocked
from .stage import SIMULATED, WINDOWS_UPDATE

UPDATES = ("2026-11 Cumulative Update (KB5050001)", "Security Intelligence Łódź (KB2267602)")
TIME_SERVER = "time.windows.com"
BEHIND = 90  # seconds that the simulated network's time server is ahead of this computer


def power_policy():
    """It is time to sleep now: a sleep that comes more than ten minutes late would be skipped."""
    now = datetime.datetime.now()
    return {"screenOffMinutes": 15, "sleepMinutes": 0,
            "schedule": {"enabled": True, "sleepAt": f"{now:%H:%M}", "wakeAt": f"{now + datetime.timedelta(hours=8):%H:%M}",
                         "days": [1, 2, 3, 4, 5]}}


def updates_policy():
    """Its window is far from now: nothing is installed unasked while somebody watches."""
    soon = datetime.datetime.now() + datetime.timedelta(hours=8)
    later = soon + datetime.timedelta(hours=3)
    return {"automatic": True, "window": {"start": f"{soon:%H:%M}", "end": f"{later:%H:%M}", "days": [0, 1, 2, 3, 4, 5, 6]}}


def the_computer_follows_the_portals_day(stage):
    """Power and updates: the scheme, the two scheduled tasks and the update window are the portal's."""
    # Applied right after the branding came, the active scheme last.
    stage.check_soon(lambda: any("power: screen off 15 min" in line for line in stage.terminal.log()),
                     "the power policy is in force", 30)
    before, now = stage.machine_lines("scheme values", "task ")
    changed = sorted(set(now) - set(before))
    # Display off and sleep in seconds, wake timers; each on mains and on battery.
    stage.check(sum(line.endswith("= 900 900 0 0 1 1") for line in changed) == 2,
                "the active power scheme turns the display off after 15 minutes and lets the computer be woken", changed)
    tasks = {name: dict(re.findall(rf"^task {name} (\S+) = (.*)$", "\n".join(now), re.M))
             for name in ("Norvane Kiosk Sleep", "Norvane Kiosk Wake")}
    schedule = stage.portal.terminals()[-1]["settings"]["power"]["schedule"]
    for name, start, argument, wakes in (("Norvane Kiosk Sleep", f"T{schedule['sleepAt']}:00", "--sleep-now", "0"),
                                         ("Norvane Kiosk Wake", f"T{schedule['wakeAt']}:00", "--wake-now", "1")):
        task = tasks[name]
        stage.show(f"   {name}: " + ", ".join(f"{key} {task[key]}" for key in sorted(task)
                                              if key in ("Arguments", "DaysOfWeek", "Path", "StartBoundary", "WakeToRun")))
        stage.check(start in task.get("StartBoundary", "") and task.get("Arguments") == argument
                    and task.get("WakeToRun") == wakes, f'Task Scheduler has "{name}" at its time', task)
    asleep = int(stage.terminal.value("Suspends", SIMULATED + r"\Power") or "0x0", 16)
    stage.check(stage.terminal.machine("due", "1", schedule["sleepAt"]) == 0 and
                int(stage.terminal.value("Suspends", SIMULATED + r"\Power"), 16) == asleep + 1,
                f"on Monday at {schedule['sleepAt']} the computer goes to sleep")
    stage.check(stage.terminal.machine("due", "2", schedule["wakeAt"]) == 0,
                f"on Tuesday at {schedule['wakeAt']} the other one runs")
    code, text = stage.kioskctl("updates", unlocked(stage), development=True)
    window = stage.portal.terminals()[-1]["settings"]["updates"]["window"]
    stage.check(code == 0 and f"maintenance window {window['start']} to {window['end']}, Sun Mon" in text,
                "the update window is the portal's", text)


def an_override_at_the_terminal(stage):
    """An administrator at the terminal decides otherwise, and lets the portal decide again."""
    token = unlocked(stage)
    portals = stage.machine_lines("scheme values", "task ")[1]
    code, text = stage.kioskctl("power", token, "241", "0", development=True)
    stage.check(code == 1 and "[invalid]" in text, "241 minutes are refused", text)
    code, text = stage.kioskctl("power", token, "20", "60", '{"enabled":false,"sleepAt":"22:00","wakeAt":"06:30","days":[]}',
                                development=True)
    stage.check(code == 0 and "In force is what was set here" in text, "the override is in force", text)
    now = stage.machine_lines("scheme values", "task ")[1]
    stage.check(sum("= 1200 1200 3600 3600" in line for line in now) == 2, "the power scheme is that of the override", now)
    stage.check(not [line for line in now if line.startswith("task ")], "the scheduled tasks are gone", now)
    code, text = stage.kioskctl("power", token, "portal", development=True)
    stage.check(code == 0 and "In force is the portal's policy (tenant)" in text, "the portal decides again", text)
    now = stage.machine_lines("scheme values", "task ")[1]
    stage.check(now == portals, "scheme and tasks are what they were", now)


def updates_are_installed(stage):
    """Updates: a search, and an installation with its progress."""
    for title in UPDATES:
        stage.terminal.machine("update", title)
    for milliseconds, what in ((600, "search"), (3000, "download"), (3000, "install")):
        stage.terminal.machine("agent", str(milliseconds), what)
    token = unlocked(stage)
    code, text = stage.kioskctl("updates", token, "check", development=True)
    stage.check(code == 0 and "searching" in text and all(title in text for title in UPDATES), "both updates are found", text)
    code, text = stage.kioskctl("install-updates", token, development=True)
    steps = [int(number) for number in re.findall(r"installing, (\d+) %", text)]
    stage.check(code == 0 and "No update is missing." in text, "both are installed", text)
    stage.check(len(steps) >= 3 and steps == sorted(steps) and steps[0] < 50 <= steps[-1],
                f"the progress rose to the end: {steps}")


class TimeServer(threading.Thread):
    """Answers SNTP requests on loopback: ahead at first, then right, for the clock of this computer is never really set."""

    def __init__(self):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.ahead = BEHIND

    def run(self):
        with contextlib.suppress(OSError):  # closed
            while True:
                request, sender = self.socket.recvfrom(512)
                now = int((time.time() + self.ahead + 2_208_988_800) * 2**32)
                stamp = struct.pack(">Q", now)
                # Version 4, a server, stratum 2; then reference, origin, reception and transmission.
                reply = struct.pack(">BBBb11xB", 0x24, 2, 6, -20, 1) + stamp + request[40:48] + stamp + stamp
                self.socket.sendto(reply, sender)
                self.ahead = 0


def the_clock_is_set(stage):
    """Time: Windows is made to set its clock, and the terminal says how far it was out."""
    server = TimeServer()
    server.start()
    host = rf"{SIMULATED}\Hosts\{TIME_SERVER}"
    stage.terminal.set_string("Address", "127.0.0.1", host)
    stage.terminal.set_dword("Port", server.port, host)
    code, text = stage.kioskctl("time-sync", unlocked(stage), development=True)
    server.socket.close()
    out = re.search(r"synchronised with (\S+); it was (-?\d+) ms out", text)
    stage.check(code == 0 and out and out[1] == TIME_SERVER, "the clock was synchronised", text)
    stage.check(abs(int(out[2]) - BEHIND * 1000) < 5000, "and was out by as much as the time server is ahead", text)
    stage.check(stage.terminal.value("Syncs", SIMULATED + r"\TimeService") == "0x1", "Windows was asked to do it, once")


def windows_leaves_restarts_to_the_service(stage):
    """Outside of the update window Windows restarts no more by itself; the service sees to it within a minute."""
    if stage.patient:  # the others need not wait: unit tests have the whole of it
        stage.check_soon(lambda: stage.terminal.value("SetActiveHours", WINDOWS_UPDATE) == "0x1", "active hours are set", 70)
        window = stage.portal.terminals()[-1]["settings"]["updates"]["window"]
        hours = [int(stage.terminal.value(name, WINDOWS_UPDATE) or "-1", 16) for name in ("ActiveHoursStart", "ActiveHoursEnd")]
        stage.show(f"   the update window is from {window['start']} to {window['end']}, active hours from {hours[0]} to {hours[1]}")
        stage.check(hours[1] == int(window["start"][:2]), "and end when the update window begins", hours)
