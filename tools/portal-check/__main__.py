"""Plays a terminal against a portal and says what differs from docs/portal-api.md, and what a terminal makes of it.

    python3 tools/portal-check https://portal.example.com

It pairs, which needs a person who enters the code in the portal, checks in, fetches the photos of the branding, and asks
for the terminal to be removed. Each line begins with ok, WRONG or note; notes are for you to judge. Exit code 0: nothing
is wrong, 1: something is, 2: wrong usage. Python's standard library alone.
"""

import argparse
import pathlib
import sys
import urllib.parse

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "devportal"))
from checks import Check  # noqa: E402


class Report:
    def __init__(self):
        self.wrong_count = 0

    def ok(self, text):
        print(f"ok     {text}", flush=True)

    def note(self, text):
        print(f"note   {text}", flush=True)

    def wrong(self, text, consequence):
        self.wrong_count += 1
        print(f"WRONG  {text}\n       -> {consequence}", flush=True)


def arguments():
    parser = argparse.ArgumentParser(prog="portal-check", description=__doc__.split("\n\n")[0])
    parser.add_argument("url", metavar="URL", help="the portal's base URL, what \"AuthBaseUrl\" of a terminal holds")
    parser.add_argument("--ca", metavar="FILE", help="PEM of an authority to trust in place of this computer's")
    parser.add_argument("--claim", metavar="COMMAND", help="is run with the code as its last word, in place of a person")
    parser.add_argument("--remove", metavar="COMMAND", help="is run to have the terminal removed, in place of a person")
    parser.add_argument("--keep", action="store_true", help="leave the terminal in the portal, and the removal out")
    parser.add_argument("--wait", type=int, default=300, metavar="SECONDS", help="for a person (default: %(default)s)")
    parser.add_argument("--log", metavar="URL", help="also post log lines there, as with a \"LogEndpoint\"")
    parser.add_argument("--log-config", metavar="URL", help="also fetch the remote configuration of log shipping")
    parser.add_argument("--certificate", metavar="FILE", help="PEM of the client certificate and its key, for log lines")
    options = parser.parse_args()
    parts = urllib.parse.urlsplit(options.url)
    if parts.scheme not in ("http", "https") or not parts.hostname:
        parser.error(f"{options.url} is no http or https URL")
    return options


def main():
    report, options = Report(), arguments()
    try:
        check = Check(options, report)
    except OSError as error:
        print(f"portal-check: the file of --ca or of --certificate cannot be used: {error}", file=sys.stderr)
        return 2
    try:
        check.run()
    except KeyboardInterrupt:
        print("portal-check: ended by hand; what was to come was not looked at", file=sys.stderr)
        return 1
    print(f"\n{report.wrong_count} wrong" if report.wrong_count else "\nnothing differs from docs/portal-api.md")
    return 1 if report.wrong_count else 0


if __name__ == "__main__":
    sys.exit(main())
