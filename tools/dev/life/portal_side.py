"""What the portal decides for the terminal, and that a terminal holds on to it."""

import json
import os
import signal

from terminal import wait_for

from . import day
from .stage import BRANDING

PHOTOS = [os.urandom(300_000), os.urandom(2_000_000)]


def check_ins(stage):
    return stage.portal.terminals()[-1]["checkIns"]


def the_portal_decides(stage):
    """The portal decides on name, sign-in methods, power, updates and branding; the next check-in, every 30 s, takes it over."""
    wanted = {"microsoft": False, "email": True, "extraHosts": ["login.example.com"]}
    stage.branding = {"displayName": "Stadtbücherei Łódź", "signInSubtitle": "Hall 4", "photos": [
        {"sha256": stage.portal.add_photo(photo), "contentType": "image/png", "credit": "Me"} for photo in PHOTOS]}
    stage.portal.set(stage.terminal_id, name="Hall 4", signIn=wanted, branding=stage.branding, tenantId="tenant-1",
                     power=day.power_policy(), powerSource="tenant", updates=day.updates_policy(), updatesSource="device")
    stage.hurry()
    stage.check_soon(lambda: stage.ask()["terminalName"] == "Hall 4", "the terminal has its new name", 45)
    reply = stage.status()
    stage.check(reply["signIn"] == wanted, "it offers the new sign-in methods", reply)
    stage.check(reply.get("error") is None, "it has no error to report", reply)


def the_branding_arrives(stage):
    """The tenant's texts and photos lie on the disk for the kiosk's shell."""
    folder = stage.terminal.path(BRANDING)
    stage.check_soon((folder / "branding.json").exists, "the branding is there", 20)
    record = json.loads((folder / "branding.json").read_bytes())
    stage.check(record == stage.branding | {"tenantId": "tenant-1"}, "it says what the portal said", record)
    for photo, entry in zip(PHOTOS, stage.branding["photos"], strict=True):
        stage.check((folder / entry["sha256"]).read_bytes() == photo, f"photo {entry['sha256'][:8]}... arrived whole")
    names = {file.name for file in folder.iterdir()}
    stage.check(len(names) == 1 + len(PHOTOS), "there is nothing else in the folder", names)


def newest_lines_are_at_the_portal(stage, count):
    """Returns the name under which the terminal is known there."""
    host = next(line for line in stage.terminal.log() if " host=" in line).rsplit("host=", 1)[1]
    local = [line.split(" ", 1)[1] for line in stage.terminal.log() if " central log: " not in line]
    newest = local[-count:]
    stage.check_soon(lambda: set(newest) <= {line["message"] for line in stage.portal.log_lines(host)},
                     f"the last {len(newest)} lines of {host} are on the portal's page", 60)  # after failures it waits for longer
    return host


def log_lines_reach_the_portal(stage):
    """The log reaches the portal too, over HTTPS, from before and after the service was killed."""
    host = newest_lines_are_at_the_portal(stage, 100)
    warnings = stage.portal.log_lines(host, level=4)
    stage.check(0 < len(warnings) < len(stage.portal.log_lines(host)) and {line["level"] for line in warnings} <= {3, 4},
                "where they can be looked through by their level", warnings)


def a_killed_service_goes_on(stage):
    """The service is killed and started again: it is what it was."""
    terminal = stage.terminal
    before = stage.ask()
    seen = check_ins(stage)
    newest_lines_are_at_the_portal(stage, 10)  # what it has not sent yet a killed process takes along
    os.kill(terminal.service_process(), signal.SIGKILL)
    stage.check(terminal.log_bytes().endswith(b"\n"), "the log ends in a whole line")
    wait_for(lambda: terminal.service_process() is None, "the killed service to be gone")
    terminal.start_service()
    stage.check_soon(lambda: check_ins(stage) > seen, "it checks in at once", 20)
    after = stage.ask()
    stage.check(after == before, "it answers as before", after)
