"""What the portal decides for the terminal, and that a terminal holds on to it."""

import os
import signal

from terminal import wait_for


def check_ins(stage):
    return stage.portal.terminals()[-1]["checkIns"]


def the_portal_decides(stage):
    """The portal changes name and sign-in methods; the next check-in, every 30 s, takes them over."""
    wanted = {"microsoft": False, "email": True, "extraHosts": ["login.example.com"]}
    stage.portal.set(stage.terminal_id, name="Hall 4", signIn=wanted)
    stage.hurry()
    stage.check_soon(lambda: stage.ask()["terminalName"] == "Hall 4", "the terminal has its new name", 45)
    reply = stage.status()
    stage.check(reply["signIn"] == wanted, "it offers the new sign-in methods", reply)
    stage.check(reply.get("error") is None, "it has no error to report", reply)


def a_killed_service_goes_on(stage):
    """The service is killed and started again: it is what it was."""
    terminal = stage.terminal
    before = stage.ask()
    seen = check_ins(stage)
    os.kill(terminal.service_process(), signal.SIGKILL)
    stage.check(terminal.log_bytes().endswith(b"\n"), "the log ends in a whole line")
    wait_for(lambda: terminal.service_process() is None, "the killed service to be gone")
    terminal.start_service()
    stage.check_soon(lambda: check_ins(stage) > seen, "it checks in at once", 20)
    after = stage.ask()
    stage.check(after == before, "it answers as before", after)
