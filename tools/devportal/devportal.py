#!/usr/bin/env python3
"""A stand-in for the management portal, for development: the terminals' HTTP API and a page for people.

It serves loopback only. Tests use it in-process:

    with Portal() as portal:
        ...let a terminal ask for a code at portal.url...
        terminal = portal.claim(code, name="Lobby")
        portal.set(terminal, power={...})
"""

import argparse
import contextlib
import ipaddress
import signal
import sqlite3
import sys
import threading

import policy
import schemas
import tls as tls_files
from routes import PHOTO_PATH, Routes, TERMINAL_PREFIX
from server import Reply, Request, Server
from store import CODE_LIFETIME, PortalError, Store

MOST_FAULTS = 100

__all__ = ["Portal", "PortalError", "Reply", "Request"]


class Portal:
    """A running portal; every method is safe from any thread. Faults of the caller raise PortalError or ValueError."""

    def __init__(self, database=":memory:", address="127.0.0.1", port=0, tls=None, verbose=False, keep_requests=None,
                 code_lifetime=CODE_LIFETIME, https_too=None):
        """`tls` names a folder for certificates; `keep_requests` bounds the record of requests (None: keep all).

        `https_too` names such a folder as well, for a second, encrypted way in at `https_url`, beside the plain one;
        what comes that way is neither recorded nor scripted.
        """
        if not (address == "localhost" or ipaddress.ip_address(address) in ipaddress.ip_network("127.0.0.0/8")):
            raise ValueError(f"{address} is not a loopback address; this portal is for development only")
        context, self.ca_file = tls_files.make_context(tls or https_too) if tls or https_too else (None, None)
        self._store = Store(database)
        self._servers = []
        # What came or went that docs/schemas does not have, the first of it; leaving the context raises it.
        self.schema_faults = []
        self._unchecked = False
        try:
            self._routes = Routes(self._store, code_lifetime, self._hold)
            self._server = self._serve(address, port, context if tls else None, verbose, keep_requests)
            second = self._serve(address, 0, context, verbose, 0) if https_too else None
        except BaseException:
            self.close()
            raise
        self._routes.outage = self._server
        self.port = self._server.server_address[1]
        self.url = f"https://localhost:{self.port}" if tls else f"http://{address}:{self.port}"
        self.https_url = f"https://localhost:{second.server_address[1]}" if second else self.url if tls else None

    def _serve(self, address, port, context, verbose, keep_requests):
        server = Server((address, port), self._routes.route, TERMINAL_PREFIX, context, verbose, keep_requests,
                        {PHOTO_PATH: policy.MAX_PHOTO_SIZE})
        self._servers.append(server)
        return server

    def close(self):
        for server in self._servers:
            server.close()
        self._store.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, *unused):
        self.close()
        if kind is None and self.schema_faults:
            raise AssertionError("\n".join(self.schema_faults))

    def _hold(self, name, value):
        """Holds against a schema what a terminal sent, or what it gets."""
        faults = [] if self._unchecked and name.endswith("/enrolled") else schemas.faults(name, value)
        for fault in faults:
            print(f"devportal: {fault}", file=sys.stderr)
        self.schema_faults += faults[:MOST_FAULTS - len(self.schema_faults)]

    def claim(self, code, unchecked=False, **settings):
        """Claims a pairing code, as a person does; returns the terminal's id. `unchecked` as for set()."""
        checked = self._checked(settings, unchecked)
        return self._store.claim(code, {name: value for name, value in checked.items() if value is not None})

    def terminals(self):
        return self._store.terminals()

    def set(self, terminal, unchecked=False, **changes):
        """Changes members of the check-in reply; None takes one away. `unchecked` sends what no portal should."""
        return self._store.change(terminal, self._checked(changes, unchecked))

    def _checked(self, changes, unchecked):
        self._unchecked |= unchecked
        checked, faults = (changes, {}) if unchecked else policy.check_settings(changes)
        if faults:
            raise PortalError(422, str(faults), faults)
        return checked

    def add_photo(self, content, content_type="image/png"):
        """Keeps a photo for the brandings that list it; returns its digest."""
        return self._store.add_photo(content, content_type)

    def revoke(self, terminal):
        self._store.revoke(terminal)

    def forget(self, terminal):
        self._store.forget(terminal)

    def log_lines(self, host=None, level=7):
        """Log records that terminals shipped, newest first, at most 200."""
        return self._store.lines(host, level)

    def set_log_config(self, **config):
        self._store.set_log_config(policy.check_log_config(config))

    def outage(self, mode):
        """"off", "503", "silent" (closes without a byte) or "hang" (holds connections until the next change)."""
        self._server.outage = mode

    def script(self, path_prefix, replies):
        self._server.script(path_prefix, replies)

    @property
    def requests(self):
        """What terminals asked for so far, oldest first; a request is listed before it is answered."""
        return self._server.requests

    def wait(self, condition, timeout=10):
        """Waits until condition() holds, asking again whenever a request came or was answered. Returns its value."""
        with self._server.changed:
            return self._server.changed.wait_for(condition, timeout)


def _arguments():
    parser = argparse.ArgumentParser(
        prog="devportal", description="A stand-in for the management portal, for development. Serves loopback only: "
        "the HTTP API of the terminals, and a page to claim, configure and remove them.")
    parser.add_argument("--database", default="devportal.sqlite", metavar="FILE",
                        help='where it keeps its state (default: %(default)s; ":memory:" keeps nothing)')
    parser.add_argument("--address", default="127.0.0.1", help="loopback address to serve (default: %(default)s)")
    parser.add_argument("--port", type=int, default=8470, help="port; 0 takes a free one (default: %(default)s)")
    parser.add_argument("--tls", metavar="DIR",
                        help="serve HTTPS for localhost, with a throw-away CA and certificate made in DIR")
    parser.add_argument("--verbose", action="store_true", help="log every request to the standard error output")
    arguments = parser.parse_args()
    if not 0 <= arguments.port <= 65535:
        parser.error("--port must be from 0 to 65535")
    return arguments


def main():
    arguments = _arguments()
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *unused: stop.set())
    try:
        portal = Portal(arguments.database, arguments.address, arguments.port, arguments.tls, arguments.verbose,
                        keep_requests=0)
    except (OSError, RuntimeError, ValueError, sqlite3.Error) as error:
        print(f"devportal: cannot start: {error}", file=sys.stderr)
        return 1
    with contextlib.closing(portal):
        print(f"listening on {portal.url}/", flush=True)
        if portal.ca_file:
            print(f"CA certificate: {portal.ca_file}", flush=True)
        if not schemas.AVAILABLE:
            print("Without python3-jsonschema nothing that comes or goes is held against docs/schemas.", flush=True)
        stop.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
