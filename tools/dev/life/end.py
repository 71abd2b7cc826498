"""The ways out of kiosk mode: the owner gets the computer back as it was."""

from .stage import BRANDING, KIOSK_USER

# Written by the administrator or the developer who set the terminal up, not by the service.
KEPT_STATE = {"AuthBaseUrl", "DevAllowUnsigned"}


def revoked_in_the_portal(stage):
    """The portal removes the terminal; at its next check-in the service gives the computer back."""
    since = len(stage.terminal.log())
    stage.portal.revoke(stage.terminal_id)
    stage.hurry()
    stage.check_soon(lambda: not stage.ask()["enrolled"], "the terminal is not paired any more", 60)
    stage.check_soon(lambda: stage.state_values() == KEPT_STATE,
                     "of the service's state only what the administrator wrote is left", 20)
    stage.check(stage.says("WARN removing kiosk mode: removed in the portal (401, status revoked)", since),
                "the log says why")
    stage.status()
    stage.check(stage.user_of_session(1) is None, f"{KIOSK_USER} is signed out")
    stage.check_computer_is_as_before()
    stage.check(not stage.terminal.path(BRANDING).parent.exists(), "the branding is gone, with its folder")
    check_log(stage)


def uninstalled(stage):
    """The service is uninstalled while the kiosk runs: the same, and its state goes too."""
    stage.check(stage.kioskctl("removed")[0] == 1, "\"removed\" says that the service is still there")
    code, out, err = stage.terminal.run("NorvaneKiosk.exe", "--uninstall", timeout=120)
    stage.show(f"   > NorvaneKiosk --uninstall\n     {out.rstrip()}")
    stage.check((code, out) == (0, "NorvaneKiosk removed\n"), "it says that the service is removed", (code, out, err))
    stage.check(stage.state_values() is None, "the state key is gone")
    stage.check(stage.kioskctl("removed")[0] == 0, "so says \"removed\", which an installer asks")
    stage.check(stage.user_of_session(1) is None, f"{KIOSK_USER} is signed out")
    stage.check_computer_is_as_before()
    code, text = stage.kioskctl("status")
    stage.check(code == 3, "there is no service any more", text)
    check_log(stage)
    stage.check_nobody_misused_windows()


def check_log(stage):
    errors = [line for line in stage.terminal.log() if line.startswith("ERROR")]
    stage.check(not errors, "the log has no ERROR line", "\n".join(errors))
