"""The life of a terminal on the simulated Windows, step by step: ./run shows it, the end-to-end tests play it.

A step is a function of the stage; the first line of its docstring is what the screen says. To add one, write it in a module
of its area and put it into a list here.
"""

from . import account, beginning, end, portal_side
from .stage import Failure, Stage, play

__all__ = ["FIRST_LIFE", "SECOND_LIFE", "END_OF_SHOW", "KIOSK", "Failure", "Stage", "play"]

# From a computer of its owner's to a kiosk at work.
KIOSK = [
    beginning.a_computer_and_its_owner,
    beginning.pairing_sets_the_kiosk_up,
    beginning.windows_restarts_into_the_kiosk,
    account.status_from_the_kiosk,
    account.unlock_takes_the_exit_password_alone,
    account.maintenance_in_and_out,
    portal_side.the_portal_decides,
    portal_side.a_killed_service_goes_on,
]
FIRST_LIFE = [*KIOSK, end.revoked_in_the_portal]
# On the computer that the first life gave back.
SECOND_LIFE = [
    beginning.pairing_again,
    beginning.restart_without_waiting,
    end.uninstalled,
]
END_OF_SHOW = [end.uninstalled]
