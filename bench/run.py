#!/usr/bin/env python3
"""Prints one table of what the product costs, each line against a peer measured in the same run.

Usage: bench/run.py BUILD_FOLDER [LOG_FILES] (of the Windows build, with the target "benchmarks" built; a log folder of so
many files, 5,000 unless told). A missed aim is shown and fails nothing: the machine is shared. What cannot be measured
at all is a failure.
"""

import collections
import pathlib
import re
import subprocess
import sys
import tempfile
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(REPOSITORY / "tests" / "e2e"), str(REPOSITORY / "tools" / "devportal")]
from devportal import Portal  # noqa: E402
from signing import Authority  # noqa: E402
from terminal import PROGRAM_FOLDER, Terminal, wait_for  # noqa: E402

IDLE_SECONDS = 10


def row(name, value, unit, aim, limit):
    reached = "reached" if value <= limit else "MISSED"
    print(f"{name:<28} ours {value:>10.2f} {unit}  {aim} {limit:g} {unit} {reached}", flush=True)


def show(terminal, program, *arguments):
    code, out, err = terminal.run(program, *arguments, timeout=300)
    print(out.replace("\r\n", "\n"), end="", flush=True)
    if code != 0:
        sys.exit(f"{program} failed ({code}): {err}")


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


def idle_service(terminal, build):
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
        time.sleep(2)  # what a check-in leaves running
        before = wakes(service)
        time.sleep(IDLE_SECONDS)
        ended = sum(count - before.get(thread, 0) for thread, count in wakes(service).items())
        print(f"{'waits that ended while idle':<28}      {ended:>10} in {IDLE_SECONDS} s, all threads "
              "(the worker alone has one each 30 s)")
        empty = start_empty_service(terminal, build)
        row("memory above empty service", private_megabytes(service) - private_megabytes(empty), "MB", "aim <=", 3)
        terminal.put(build / "checkin_bench.exe")
        show(terminal, "checkin_bench.exe")


def windows_calls(build):
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
    print(f'Windows calls of one "status" ({sum(counted.values())} on the service\'s side, accepting included):')
    line = "  "
    for name, times in sorted(counted.items()):
        word = f"{name}{f' x{times}' if times > 1 else ''}, "
        if len(line) + len(word) > 118:
            print(line.rstrip())
            line = "  "
        line += word
    print(line.rstrip(", "), flush=True)


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    row("size of NorvaneKiosk.exe", (build / "NorvaneKiosk.exe").stat().st_size / 1e6, "MB", "aim <=", 1.2)
    with Terminal() as terminal, tempfile.TemporaryDirectory() as folder:
        for program in ("json_bench.exe", "log_bench.exe"):
            terminal.put(build / program)
            show(terminal, program)
        authority = Authority(pathlib.Path(folder) / "authority", "Benchmark Authority")
        terminal.trust(authority.certificate)
        authority.publisher("norvane", "/O=Norvane")
        signed = authority.sign("norvane", build / "kioskctl.exe", pathlib.Path(folder) / "signed.exe")
        terminal.put(build / "service_bench.exe")
        terminal.put(signed)
        terminal.install(url="http://127.0.0.1:9")
        with terminal.start("service_bench.exe", "echo") as echo:
            try:
                show(terminal, "service_bench.exe", "measure", PROGRAM_FOLDER + r"\signed.exe")
            finally:
                echo.kill()
        assert terminal.net("stop") == 0
        install_empty_service(terminal, build)
        show(terminal, "service_bench.exe", "life")
    with Terminal(programs=(), service=None) as terminal:
        terminal.put(build / "prune_bench.exe")
        show(terminal, "prune_bench.exe", sys.argv[2] if len(sys.argv) > 2 else "5000")
    with Terminal() as terminal:
        idle_service(terminal, build)
    windows_calls(build)


if __name__ == "__main__":
    main()
