#!/usr/bin/env python3
"""Shows a terminal at work: portal, service, pairing, check-ins, a changed policy. See ./run."""

import pathlib
import re
import signal
import sys
import threading

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(REPOSITORY / "tests" / "e2e"), str(REPOSITORY / "tools" / "devportal")]
from devportal import Portal  # noqa: E402
from terminal import Terminal, wait_for  # noqa: E402

SERVICE = "NorvaneKioskSim.exe"


def say(text):
    print(f"\n== {text}", flush=True)


def status(terminal):
    print(terminal.run("kioskctl.exe", "status")[1], end="", flush=True)


def pair_by_hand_of(portal, terminal):
    """Runs `kioskctl pair` and plays the administrator who enters the code on the portal's page."""
    with terminal.start("kioskctl.exe", "pair") as pairing:
        shown = ""
        for line in pairing.stdout:
            print(line, end="", flush=True)
            shown += line
            code = re.search(r"^  (\w{8})   \(valid", shown, re.M)
            if code:
                break
        say(f"an administrator enters {code[1]} in the portal and names the terminal")
        terminal_id = portal.claim(code[1], name="Hall 3 – Łódź")
        for line in pairing.stdout:
            print(line, end="", flush=True)
    if pairing.returncode != 0:
        sys.exit(f"pairing failed: {pairing.returncode}")
    return terminal_id


def demonstrate(portal, terminal):
    say("the service is installed and running; nobody has paired the terminal yet")
    status(terminal)
    before = terminal.dump_machine()
    say("kioskctl pair; the service then makes the kiosk account, locks it down and lets it sign in at start-up")
    terminal_id = pair_by_hand_of(portal, terminal)
    check_ins = lambda: portal.terminals()[0]["checkIns"]  # noqa: E731
    portal.wait(lambda: check_ins() >= 1, 60)
    status(terminal)
    say("the portal changes the name and the sign-in methods; the next check-in (every 30 s) takes them over")
    portal.set(terminal_id, name="Hall 4", signIn={"microsoft": False, "email": True, "extraHosts": ["login.example.com"]})
    portal.wait(lambda: check_ins() >= 4, 150)
    wait_for(lambda: terminal.ask(cmd="status")["terminalName"] == "Hall 4", "the new name", 60)
    status(terminal)
    say("the portal removes the terminal; at its next check-in the service gives the computer back")
    portal.revoke(terminal_id)
    wait_for(lambda: not terminal.ask(cmd="status")["enrolled"], "the removal", 60)
    status(terminal)
    equal = terminal.dump_machine() == before
    print("accounts, groups, secrets, profiles and settings compared with before the pairing:",
          "equal" if equal else "DIFFERENT", flush=True)
    if not equal:
        sys.exit("the computer was not given back as it was")
    say(f"{check_ins()} check-ins so far; the service's log:")
    print(terminal.log_bytes().decode("utf-8"), end="", flush=True)


def main():
    once = "--once" in sys.argv[1:]
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    with Portal(port=0 if once else 8470) as portal, \
            Terminal(programs=("kioskctl.exe", "kioskctl-dev.exe"), service=SERVICE) as terminal:
        say(f"the portal's page: {portal.url}/  (for development, on this computer only)")
        terminal.set_client_folder(r"C:\Program Files\Norvane\Tessaly")
        terminal.install(url=portal.url)
        demonstrate(portal, terminal)
        if not once:
            say("everything stays up until Ctrl-C")
            print(f"   page   {portal.url}/\n   logs   {terminal.log_files()[-1].parent}\n"
                  f"   ask    WINEPREFIX={terminal.prefix} wine 'C:\\Program Files\\Norvane\\kioskctl.exe' status",
                  flush=True)
            stop.wait()
        say("the service is removed")
        print(terminal.run("NorvaneKiosk.exe", "--uninstall")[1], end="")
    print("done", flush=True)


if __name__ == "__main__":
    main()
