"""What a person at the kiosk may do: ask, unlock the terminal settings, let an administrator in."""

import re

from .beginning import EXIT_PASSWORD
from .stage import KIOSK_USER, OWNER, WINLOGON


def status_from_the_kiosk(stage):
    """"status", asked from the kiosk account's own session and from another one."""
    reply = stage.status()
    stage.check(reply["kioskSession"] and not reply["maintenance"], "the caller is recognised as the kiosk session", reply)
    stage.check(stage.kioskctl("pair")[0] == 1, "the kiosk account may not pair")
    session = stage.terminal.machine("signin", OWNER)
    stage.terminal.machine("caller", OWNER)
    reply = stage.ask()
    stage.check(reply["provisioned"] and not reply["kioskSession"], f"session {session}, {OWNER}'s, is not the kiosk's", reply)
    code, text = stage.kioskctl("unlock", EXIT_PASSWORD, development=True)
    stage.check(code == 1 and "[not_permitted]" in text, "nobody else may unlock, not even with the right password", text)
    stage.terminal.machine("signout", str(session))
    stage.terminal.machine("caller", KIOSK_USER)


def unlock_takes_the_exit_password_alone(stage):
    """The terminal settings unlock with the exit password of the portal, and with no other."""
    seen = stage.portal.terminals()[0]["checkIns"]
    code, text = stage.kioskctl("unlock", "Open Barley", development=True)
    stage.check(code == 1 and "[wrong_password]" in text, "a wrong password is refused", text)
    code, text = stage.kioskctl("unlock", f" {EXIT_PASSWORD.lower()} ", development=True)
    stage.check(code == 0 and token_in(text), "the right one opens, whatever its letter case", text)
    stage.check(stage.portal.terminals()[0]["checkIns"] >= seen + 2, "the portal was asked each time")


def token_in(text):
    token = re.search(r"Unlock token: ([0-9a-f]{32})$", text, re.M)
    return token and token[1]


def unlocked(stage):
    """Unlocks the terminal settings; returns the token that every one of them asks for."""
    code, text = stage.kioskctl("unlock", EXIT_PASSWORD, development=True)
    stage.check(code == 0 and token_in(text), "the terminal settings are unlocked", text)
    return token_in(text)


def maintenance_in_and_out(stage):
    """Maintenance: the kiosk makes room for an administrator, and is back when they sign out."""
    terminal = stage.terminal
    code, text = stage.kioskctl("maintenance", "", "0" * 32, development=True)
    stage.check(code == 1 and "[not_unlocked]" in text, "an invented unlock token is refused", text)
    code, text = stage.kioskctl("maintenance", "", unlocked(stage), development=True)
    stage.check(code == 0, "the token of an unlock opens maintenance without a password", text)
    stage.check_soon(lambda: stage.user_of_session(1) is None, "the kiosk account is signed out", 10)
    stage.check(terminal.value("AutoAdminLogon", WINLOGON) == "0", "Windows does not sign it in again by itself")
    session = terminal.machine("signin", OWNER)
    terminal.machine("caller", OWNER)
    reply = stage.status()
    stage.check(reply["maintenance"], "the service says that this is maintenance", reply)
    stage.show(f"   {OWNER} signs out")
    terminal.machine("signout", str(session))
    stage.check_soon(lambda: not stage.ask()["maintenance"], "maintenance is over", 10)
    stage.check((terminal.value("AutoAdminLogon", WINLOGON), terminal.value("DefaultUserName", WINLOGON)) ==
                ("1", KIOSK_USER), f"automatic sign-in is back on, and names {KIOSK_USER} again")
    terminal.machine("signin", KIOSK_USER)
    terminal.machine("caller", KIOSK_USER)
    stage.check(stage.ask()["kioskSession"], "the kiosk is back")
