#!/usr/bin/env python3
"""Shows a terminal at work, from its pairing to its end. See ./run; the steps stand in tools/dev/life."""

import contextlib
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(REPOSITORY / "tests" / "e2e"), str(REPOSITORY / "tools" / "devportal")]
import life  # noqa: E402
from devportal import Portal  # noqa: E402
from life.stage import PROGRAMS, SERVICE  # noqa: E402
from terminal import Terminal  # noqa: E402


def show(text):
    print(text, flush=True)


def stay_up(stage):
    ended = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: ended.set())
    wine = f"WINEPREFIX={stage.terminal.prefix} {REPOSITORY / 'tools/dev/wine-run'} 'C:\\Program Files\\Norvane\\"
    show("\n== everything stays up until Ctrl-C; then the service is uninstalled")
    show(f"   page   {stage.portal.url}/\n   logs   {stage.terminal.log_files()[-1].parent}\n"
         f"   ask    {wine}kioskctl.exe' status\n"
         f"   who    {wine}sim_machine.exe' caller Owner      (or NorvaneKiosk: whom the service takes you for)\n"
         f"   dev    {wine}kioskctl-dev.exe' --help")
    ended.wait()


def figures(stage):
    show("\n== seconds per step")
    for number, (name, seconds) in enumerate(stage.seconds, 1):
        show(f"   {seconds:6.1f}  {number}. {name}")
    show(f"   {sum(seconds for _, seconds in stage.seconds):6.1f}  in all")


def perform(stage, once):
    life.play(stage, life.FIRST_LIFE + life.SECOND_LIFE if once else life.KIOSK)
    if not once:
        stay_up(stage)
        life.play(stage, life.END_OF_SHOW)
    figures(stage)
    show("done")


def main():
    once = "--once" in sys.argv[1:]
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with contextlib.ExitStack() as stack:
        certificates = stack.enter_context(tempfile.TemporaryDirectory(prefix="norvane-portal-"))
        try:
            portal = stack.enter_context(Portal(port=0 if once else 8470, https_too=certificates))
        except OSError as problem:
            print(f"run: {problem}", file=sys.stderr)
            return 1
        terminal = stack.enter_context(Terminal(programs=PROGRAMS, service=SERVICE))
        show(f"\n== the portal's page: {portal.url}/  (for development, on this computer only)")
        stage = life.Stage(portal, terminal, show)
        try:
            perform(stage, once)
        except KeyboardInterrupt:
            show("interrupted")
            return 130
        except (AssertionError, OSError, ValueError, subprocess.SubprocessError) as problem:
            show("\nthe end of the service's log:")
            show("\n".join(f"   {line}" for line in terminal.log()[-25:]))
            where = f" in step {len(stage.seconds)}, {stage.seconds[-1][0]}" if stage.seconds else ""
            show(f"\nFAILED{where}: {problem}")
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
