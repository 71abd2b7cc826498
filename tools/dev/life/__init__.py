"""The life of a terminal on the simulated Windows, step by step: ./run shows it, the end-to-end tests play it.

A step is a function of the stage; the first line of its docstring is what the screen says. To add one, write it in a module
of its area and put it into a list here.
"""

from . import account, beginning, day, end, portal_side, settings
from .stage import Failure, Stage, play

__all__ = ["FIRST_LIFE", "SECOND_LIFE", "END_OF_SHOW", "KIOSK", "PAIRED", "Failure", "Stage", "play"]

PAIRED = [beginning.a_computer_and_its_owner, beginning.pairing_sets_the_kiosk_up]
# From a computer of its owner's to a kiosk at work.
KIOSK = [
    *PAIRED,
    beginning.windows_restarts_into_the_kiosk,
    account.status_from_the_kiosk,
    account.unlock_takes_the_exit_password_alone,
    account.maintenance_in_and_out,
    portal_side.the_portal_decides,
    portal_side.the_branding_arrives,
    day.the_computer_follows_the_portals_day,
    day.an_override_at_the_terminal,
    day.updates_are_installed,
    day.the_clock_is_set,
    settings.a_fixed_address_and_back,
    settings.a_proxy_and_back,
    day.windows_leaves_restarts_to_the_service,
    portal_side.a_killed_service_goes_on,
    portal_side.log_lines_reach_the_portal,
]
FIRST_LIFE = [*KIOSK, end.revoked_in_the_portal]
# On the computer that the first life gave back.
SECOND_LIFE = [
    beginning.pairing_again,
    beginning.restart_without_waiting,
    end.uninstalled,
]
END_OF_SHOW = [end.uninstalled]
