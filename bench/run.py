#!/usr/bin/env python3
"""Prints one table of what the product costs, each line against a peer measured in the same run, and what goes with it.

BUILD is the folder of the Windows build, with the target "benchmarks" built. A missed aim is shown and fails nothing: the
machine is shared. What cannot be measured at all is a failure.
"""

import argparse
import collections
import datetime
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(REPOSITORY / "tests" / "e2e"), str(REPOSITORY / "tools" / "devportal")]
sys.path[:0] = [str(REPOSITORY / "tools" / "dev")]
import life  # noqa: E402
from devportal import Portal  # noqa: E402
from life.stage import PROGRAMS, SERVICE  # noqa: E402
from signing import Authority  # noqa: E402
from terminal import PROGRAM_FOLDER, Terminal, wait_for  # noqa: E402

PAGE = REPOSITORY / "docs" / "performance.md"
HEAD = ["| what | the service | beside | ratio | aim | |", "| --- | --- | --- | --- | --- | --- |"]
IDLE_SECONDS = 10


class Report:
    """The table, shown line by line as it grows, and what is said below it."""

    def __init__(self):
        self.table = []
        self.notes = []
        for line in HEAD:
            self.say(line)

    def say(self, line):
        if line.startswith("|"):
            print(line, flush=True)
            self.table.append(line)
        else:
            self.notes.append(line)

    def most(self, name, value, limit):
        self.say(f"| {name} | {value:.2f} MB |  |  | at most {limit:g} MB | "
                 + ("reached |" if value <= limit else "**missed** |"))

    def show(self, terminal, program, *arguments):
        code, out, err = terminal.run(program, *arguments, timeout=600)
        for line in out.splitlines():
            self.say(line)
        if code != 0:
            sys.exit(f"{program} failed ({code}): {err}")

    def renew(self):
        """Puts the table into the page, in place of the one that stands there."""
        old = re.compile(re.escape("\n".join(HEAD)) + r"\n(?:\|.*\n)*")
        text, replaced = old.subn("\n".join(self.table).replace("\\", r"\\") + "\n", PAGE.read_text())
        assert replaced == 1, f"{PAGE} has no such table"
        PAGE.write_text(text)


def private_megabytes(process):
    text = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text()
    return sum(int(kb) for kb in re.findall(r"^Private_(?:Clean|Dirty): +(\d+)", text, re.M)) / 1024


def wakes(process):
    """How often each thread of the process has waited so far."""
    return {status.parent.name: int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", status.read_text(), re.M)[1])
            for status in pathlib.Path(f"/proc/{process}/task").glob("*/status")}


def install_empty_service(terminal, build):
    path = terminal.put(build / "empty_service.exe")
    key = r"HKLM\SYSTEM\CurrentControlSet\Services\NorvaneEmpty"
    subprocess.run(["wine", "sc", "create", "NorvaneEmpty", "binPath=", path], env=terminal.environment,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    assert terminal.registry("query", key)[0] == 0


def start_empty_service(terminal, build):
    install_empty_service(terminal, build)
    subprocess.run(["wine", "net", "start", "NorvaneEmpty"], env=terminal.environment, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    return wait_for(lambda: terminal.process("empty_service"), "the empty service")


def idle_service(report, terminal, build):
    """Paired and between two check-ins, as it stands almost all of its life."""
    with Portal() as portal:
        terminal.install(url=portal.url)
        begun = terminal.ask(cmd="pair.begin")
        portal.claim(begun["code"])
        checked = terminal.ask(cmd="pair.check", code=begun["code"])
        assert checked == {"ok": False, "error": "no_client"}, checked  # paired, with no client to set up a kiosk for
        portal.wait(lambda: portal.terminals()[0]["checkIns"] >= 2, 20)
        service = terminal.service_process()
        wait_for(lambda: len(list(pathlib.Path(f"/proc/{service}/task").iterdir())) < 12, "idle threads to settle", 5)
        time.sleep(6)  # what a check-in leaves running, and the pool's threads
        before = wakes(service)
        time.sleep(IDLE_SECONDS)
        ended = sum(count - before.get(thread, 0) for thread, count in wakes(service).items())
        report.say(f"While paired and idle, {ended} waits of all threads ended in {IDLE_SECONDS} s (the worker has one "
                   "each 30 s).")
        empty = start_empty_service(terminal, build)
        report.most("memory above empty service", private_megabytes(service) - private_megabytes(empty), 3)
        terminal.put(build / "checkin_bench.exe")
        report.show(terminal, "checkin_bench.exe")


def pairing(report):
    """From the code's confirmation to the account that is ready, over the simulated Windows, by the log's own times."""
    with (tempfile.TemporaryDirectory() as folder, Portal(https_too=folder) as portal,
          Terminal(programs=PROGRAMS, service=SERVICE) as terminal):
        stage = life.Stage(portal, terminal, show=lambda text: None)
        life.play(stage, life.PAIRED[:1])
        code = terminal.ask(cmd="pair.begin")["code"]
        portal.claim(code)
        before = datetime.datetime.now()
        assert terminal.ask(cmd="pair.check", code=code)["restarting"]
        lines = re.findall(r"^\[(\d\d):(\d\d):(\d\d)\.(\d{3})\] \w+ (.*)$", terminal.log_bytes().decode(), re.M)
    steps = (("the token is held", "paired: device token held"), ("first check-in", "kiosk sign-in methods now"),
             ("account made", "created NorvaneKiosk"), ("sign-in and lockdown set up", "provisioned: "),
             ("restart announced", "enrolled: restarting"))
    for name, begin in steps:
        hour, minute, second, milliseconds = next(map(int, line[:4]) for line in lines if line[4].startswith(begin))
        at = before.replace(hour=hour, minute=minute, second=second, microsecond=milliseconds * 1000)
        report.say(f"| pairing, simulated: {name} | {(at - before).total_seconds():.2f} s |  |  |  |  |")
        before = at


def windows_calls(report, build):
    """The Windows calls of one "status", seen on the service's side of the pipe."""
    with Terminal(programs=(), service=None) as terminal:
        terminal.set_string("TerminalName", "Hall 3")
        environment = terminal.environment | {"WINEDEBUG": "+relay"}
        trace = subprocess.run(["wine", build / "service_bench.exe", "once"], env=environment, stderr=subprocess.PIPE,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=True).stderr.decode("latin-1")
    client = re.search(r'^(\w+):Call .*"trace begins"', trace, re.M)[1]
    inside = trace[trace.index("trace begins"):trace.index("trace ends")]
    calls = re.findall(r"^(\w+):Call (\w+)\.(\w+)\(.*ret=1400[0-9a-f]+$", inside, re.M)
    counted = collections.Counter(name for thread, library, name in calls
                                  if thread != client and library.lower() != "msvcrt")
    words = ", ".join(f"{name}{f' x{times}' if times > 1 else ''}" for name, times in sorted(counted.items()))
    report.say(f'Windows calls of one "status": {sum(counted.values())} on the service\'s side, accepting included:')
    report.say(textwrap.fill(words, 118, initial_indent="  ", subsequent_indent="  "))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, metavar="BUILD")
    parser.add_argument("--files", default=5000, type=int, help="in the log folder that is pruned (5000)")
    parser.add_argument("--renew", action="store_true", help=f"puts the table into {PAGE.relative_to(REPOSITORY)}")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    report = Report()
    report.most("size of NorvaneKiosk.exe", (build / "NorvaneKiosk.exe").stat().st_size / 1e6, 1.2)
    with Terminal() as terminal, tempfile.TemporaryDirectory() as folder:
        for program in ("json_bench.exe", "log_bench.exe"):
            terminal.put(build / program)
            report.show(terminal, program)
        authority = Authority(pathlib.Path(folder) / "authority", "Benchmark Authority")
        terminal.trust(authority.certificate)
        authority.publisher("norvane", "/O=Norvane")
        signed = authority.sign("norvane", build / "kioskctl.exe", pathlib.Path(folder) / "signed.exe")
        terminal.put(build / "service_bench.exe")
        terminal.put(signed)
        terminal.install(url="http://127.0.0.1:9")
        with terminal.start("service_bench.exe", "echo") as echo:
            try:
                report.show(terminal, "service_bench.exe", "measure", PROGRAM_FOLDER + r"\signed.exe")
            finally:
                echo.kill()
        assert terminal.net("stop") == 0
        install_empty_service(terminal, build)
        report.show(terminal, "service_bench.exe", "life")
    with Terminal(programs=(), service=None) as terminal:
        terminal.put(build / "prune_bench.exe")
        report.show(terminal, "prune_bench.exe", str(arguments.files))
    with Terminal() as terminal:
        idle_service(report, terminal, build)
    pairing(report)
    windows_calls(report, build)
    print("\n" + "\n".join(report.notes), flush=True)
    if arguments.renew:
        report.renew()


if __name__ == "__main__":
    main()
