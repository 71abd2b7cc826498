"""From a computer of its owner's to the first minute of the kiosk."""

import re
import threading

from .stage import KIOSK_USER, LOG_KEY, OWNER, PASSWORDLESS, POLICIES, SIMULATED, WINDOWS_UPDATE, WINLOGON

CLIENT = r"C:\Program Files\Norvane\Tessaly"
EXIT_PASSWORD = "Open Sesame"
USERS = "S-1-5-32-545"


def a_computer_and_its_owner(stage):
    """A computer with an owner; the service is installed on it, nobody has paired it."""
    terminal = stage.terminal
    terminal.set_client_folder(CLIENT)
    terminal.machine("user", OWNER, "secret")
    for name, text in (("AutoAdminLogon", "0"), ("DefaultUserName", OWNER), ("DefaultDomainName", ".")):
        terminal.set_string(name, text, WINLOGON)
    for name, number, key in (("AutoLogonCount", 3, WINLOGON), ("DevicePasswordLessBuildVersion", 2, PASSWORDLESS),
                              ("EnableFirstLogonAnimation", 1, POLICIES),
                              ("ActiveHoursStart", 7, WINDOWS_UPDATE),
                              ("NoAutoRebootWithLoggedOnUsers", 0, WINDOWS_UPDATE + r"\AU")):
        terminal.set_dword(name, number, key)
    # Once, for the profile: it is there before and after, whatever the service does.
    terminal.machine("signout", str(terminal.machine("signin", OWNER)))
    stage.before = terminal.dump_machine()
    terminal.machine("signin", OWNER)
    terminal.machine("caller", OWNER)
    # Log lines leave a terminal over HTTPS alone, to a server that the computer trusts.
    terminal.trust(stage.portal.ca_file)
    terminal.set_string("LogEndpoint", stage.portal.https_url + "/api/log", LOG_KEY)
    terminal.install(url=stage.portal.url + "/")
    actions = terminal.registry("query", SIMULATED + r"\Services", "/v", "FailureActions")[1]
    stage.check("86400: 1 10000, 1 30000, 1 60000," in actions, "a service that crashes comes back after 10, 30 and 60 s",
                actions)
    reply = stage.status()
    stage.check(reply == {
        "ok": True, "enrolled": False, "provisioned": False, "kioskSession": False, "maintenance": False,
        "account": KIOSK_USER, "terminalName": "", "signIn": {"microsoft": True, "email": True, "extraHosts": []}},
        "the terminal is not paired, and every sign-in method is open", reply)


def pair(stage, **settings):
    """Plays the person at the terminal, who runs "kioskctl pair", and the one who enters the code in the portal."""
    stage.show("   > kioskctl pair")
    with stage.terminal.start("kioskctl.exe", "pair") as pairing:
        patience = threading.Timer(120, pairing.kill)
        patience.daemon = True
        patience.start()
        said = ""
        for line in pairing.stdout:
            stage.show(f"     {line}".rstrip())
            said += line
            if code := re.search(r"^  ([A-Z0-9]{8})   \(valid for 15:00\)$", line.rstrip()):
                stage.show(f"   an administrator enters {code[1]} in the portal")
                stage.terminal_id = stage.portal.claim(code[1], exitPassword=EXIT_PASSWORD, **settings)
        patience.cancel()
        said += pairing.stderr.read()
    stage.check(pairing.returncode == 0 and "The computer restarts into kiosk mode in 10 seconds." in said,
                "the terminal is paired and announces its restart", said[-300:])
    reply = stage.status()
    stage.check(reply["enrolled"] and reply["provisioned"], "the kiosk account is set up", reply)
    stage.check(reply["terminalName"] == settings["name"], "it bears the name that the portal gave it", reply)


def pairing_sets_the_kiosk_up(stage):
    """Pairing: the portal knows the terminal, and the service makes the kiosk account."""
    pair(stage, name="Hall 3 – Łódź")
    code, text = stage.kioskctl("pair")
    stage.check(code == 1 and "[already_enrolled]" in text, "it cannot be paired twice", text)
    changed = sorted(set(stage.terminal.dump_machine().splitlines()) - set(stage.before.splitlines()))
    sid = stage.terminal.value("AccountSid")
    members = [line for line in changed if line.startswith("member ")]
    stage.check(any(line.startswith(f"user {KIOSK_USER} {sid} ") for line in changed), f"Windows has a user {KIOSK_USER}")
    stage.check(members == [f"member {USERS} {sid}"], "who is in the group Users and in no other", members)
    stage.check(any(line.startswith("secret DefaultPassword ") for line in changed), "and whose password Windows keeps")
    stage.check((stage.terminal.value("AutoAdminLogon", WINLOGON), stage.terminal.value("DefaultUserName", WINLOGON)) ==
                ("1", KIOSK_USER), f"Windows is to sign {KIOSK_USER} in by itself")


def restart_into_the_kiosk(stage):
    session = stage.restart_windows()
    stage.check(session != 0 and stage.user_of_session(session) == KIOSK_USER,
                f"Windows signs {KIOSK_USER} in by itself, into session {session}")
    sid = stage.terminal.value("AccountSid")
    shell = stage.terminal.value("Shell", rf"HKU\{sid}\Software\Microsoft\Windows NT\CurrentVersion\Winlogon")
    stage.check(shell == rf'"{CLIENT}\NorvaneTessalyClient.exe" --kiosk-shell', "its shell is the client program", shell)
    stage.terminal.machine("caller", KIOSK_USER)


def windows_restarts_into_the_kiosk(stage):
    """Ten seconds later the service restarts Windows into kiosk mode."""
    stage.check_soon(stage.restart_requested, "the service asks Windows for a restart", 30)
    restart_into_the_kiosk(stage)


def pairing_again(stage):
    """The same computer is paired once more."""
    stage.terminal.machine("signin", OWNER)
    stage.terminal.machine("caller", OWNER)
    pair(stage, name="Hall 5")


def restart_without_waiting(stage):
    """"kioskctl restart" does not wait for the ten seconds."""
    code, text = stage.kioskctl("restart")
    late = "[not_pending]" in text and stage.restart_requested()  # a slow computer may have come to it by itself
    stage.check(code == 0 or late, "the restart is granted", text)
    stage.check_soon(stage.restart_requested, "the service asks Windows for a restart", 6)
    code, text = stage.kioskctl("restart")
    stage.check(code == 1 and "[not_pending]" in text, "a second one is not", text)
    restart_into_the_kiosk(stage)
