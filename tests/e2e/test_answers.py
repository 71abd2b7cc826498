"""Wrong answers that only a real server and a real client make: how they are cut into bytes, and TLS."""

import contextlib
import pathlib
import socket
import ssl
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools" / "devportal"))
from devportal import Portal, Reply  # noqa: E402
from terminal import Terminal, wait_for  # noqa: E402

GOOD = b'{"pairingCode":"ABCD1234"}'
CODE = {"ok": True, "code": "ABCD1234", "expiresInSeconds": 900}
UNREACHABLE = {"ok": False, "error": "unreachable"}
SERVER_ERROR = {"ok": False, "error": "server_error"}
STOP = 5  # seconds that a stop may take whatever the portal does


def raw(*headers, status=b"HTTP/1.1 200 OK", body=GOOD):
    return Reply(raw=b"\r\n".join((status, *headers, b"", body)))


def chunks(*pieces):
    return raw(b"Transfer-Encoding: chunked", body=b"".join(pieces))


# What the portal sends, and what "pair.begin" makes of it; None: whatever Windows makes of such a thing.
SHAPES = (
    ("without a length, to the end of the connection", raw(), CODE),
    ("shorter than it says", raw(b"Content-Length: 10"), None),
    ("cut in the middle", Reply(200, body=GOOD, cut=10), SERVER_ERROR),
    ("empty", raw(b"Content-Length: 0", body=b""), SERVER_ERROR),
    ("a length below 0", raw(b"Content-Length: -1"), None),
    ("a length that is no number", raw(b"Content-Length: many"), None),
    ("two lengths", raw(b"Content-Length: 26", b"Content-Length: 3"), None),
    ("larger than allowed", Reply(200, body=GOOD[:-1] + b',"x":"' + b"x" * 200_000 + b'"}'), SERVER_ERROR),
    ("in chunks", chunks(b"5\r\n", GOOD[:5], b"\r\n15\r\n", GOOD[5:], b"\r\n0\r\n\r\n"), CODE),
    ("chunks without an end", chunks(b"5\r\n", GOOD[:5], b"\r\n"), SERVER_ERROR),
    ("a chunk of no size", chunks(b"zz\r\n", GOOD, b"\r\n0\r\n\r\n"), None),
    ("a chunk larger than memory", chunks(b"ffffffffffffffff\r\n", GOOD), None),
    ("first a go-ahead", raw(b"Content-Length: 26", status=b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK"), None),
    ("packed", raw(b"Content-Length: 20", b"Content-Encoding: gzip", body=b"\x1f\x8b" + bytes(18)), SERVER_ERROR),
    ("no HTTP", Reply(raw=b"220 mail ready\r\n"), None),
    ("nothing", Reply(raw=b""), UNREACHABLE),
    ("half a status line", Reply(raw=b"HTTP/1.1 20"), None),
    ("half a header", Reply(raw=b"HTTP/1.1 200 OK\r\nContent-Le"), None),
    ("a status beyond all", raw(b"Content-Length: 26", status=b"HTTP/1.1 99999 OK"), None),
    ("much in the headers", raw(b"Content-Length: 26", *(b"X-%d: " % n + b"x" * 1000 for n in range(200))), None),
    ("NULs", raw(b"Content-Length: 26", body=bytes(26)), SERVER_ERROR),
    ("another encoding", raw(b"Content-Length: 52", body=GOOD.decode().encode("utf-16-le")), SERVER_ERROR),
    *((f"status {status}", Reply(status, body=GOOD), SERVER_ERROR) for status in (202, 204, 304, 400, 401, 407, 503)),
    *((f"redirect {status}", Reply(status, headers={"Location": "/api/kiosk/pair/elsewhere"}), SERVER_ERROR)
      for status in (301, 302, 303, 307, 308)),
    ("byte by byte", Reply(200, body=GOOD, dribble=0.02), CODE),
)


class Listener:
    """Takes connections and does to each what `act` does; then holds it, or closes it when that returns False."""

    def __init__(self, act):
        self._act, self._socket, self._open = act, socket.create_server(("127.0.0.1", 0)), []
        self.url = f"https://localhost:{self._socket.getsockname()[1]}"
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                connection = self._socket.accept()[0]
                self._open.append(connection)
                with contextlib.suppress(OSError, ssl.SSLError):
                    if self._act(connection) is False:
                        connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()
        for connection in self._open:
            connection.close()

    def taken(self):
        return len(self._open) > 0


def close_after_hello(connection):
    connection.recv(1024)
    return False


def answer_nonsense(connection):
    connection.recv(1024)
    connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
    return False


class Answers(unittest.TestCase):
    def setUp(self):
        self.terminal = self.enterContext(Terminal())

    def begin(self):
        return self.terminal.ask(cmd="pair.begin")

    def test_each_shape_and_a_good_answer_after_it(self):
        with Portal() as portal:
            self.terminal.install(url=portal.url)
            for what, reply, expected in SHAPES:
                with self.subTest(what):
                    portal.script("/api/kiosk/pair", [reply])
                    seen = len(portal.requests)
                    answer = self.begin()
                    self.assertIn(answer, [expected] if expected else [CODE, UNREACHABLE, SERVER_ERROR])
                    self.assertEqual(len(portal.requests), seen + 1)
                    self.assertTrue(self.begin()["ok"])
            self.terminal.set_string("AuthBaseUrl", "http://127.0.0.1:9")
            self.assertEqual(self.begin(), UNREACHABLE)
            self.assertIn("WARN pairing: AuthSystem unreachable (WinHTTP error 12029", self.terminal.log()[-1])

    def test_tls_that_ends_or_is_none(self):
        with tempfile.TemporaryDirectory() as folder, Portal(tls=folder) as portal:
            self.terminal.install(url=portal.url)
            self.assertEqual(self.begin(), UNREACHABLE)
            self.assertEqual(list(portal.requests), [], "no authority is trusted yet")
            self.assertRegex(self.terminal.run("kioskctl.exe", "check")[1],
                             r"WRONG +portal TLS +no answer \(WinHTTP error 121\d\d\)\r?\n +-> .*(TLS|certificate)")
            self.terminal.trust(portal.ca_file)
            self.terminal.restart_service()
            for act in (lambda connection: False, close_after_hello, answer_nonsense):
                with Listener(act) as listener:
                    self.terminal.set_string("AuthBaseUrl", listener.url)
                    self.assertEqual(self.begin(), UNREACHABLE)
                    self.assertTrue(listener.taken())
                self.terminal.set_string("AuthBaseUrl", portal.url)
                self.assertTrue(self.begin()["ok"])

    def test_a_stop_at_any_moment(self):
        slow = {"headers": Reply(raw=b"HTTP/1.1 200 OK\r\n" + b"X: y\r\n" * 200, dribble=0.1),
                "body": Reply(200, body=GOOD + b" " * 400, dribble=0.1),
                "chunks": Reply(raw=chunks(b"1\r\n{\r\n" * 200).raw, dribble=0.1)}
        with Portal() as portal, Listener(lambda connection: True) as silent:
            self.terminal.install(url=portal.url)
            for what in ("tls", "nothing", *slow):
                with self.subTest(what):
                    self.terminal.set_string("AuthBaseUrl", silent.url if what == "tls" else portal.url)
                    portal.outage("hang" if what == "nothing" else "off")
                    portal.script("/api/kiosk/pair", [slow[what]] if what in slow else [])
                    seen = len(portal.requests)
                    with self.terminal.start("kioskctl-dev.exe", "send", '{"cmd":"pair.begin"}') as waiting:
                        wait_for(silent.taken if what == "tls" else lambda: len(portal.requests) > seen, "the request")
                        started = time.monotonic()
                        self.assertEqual(self.terminal.net("stop"), 0)
                        wait_for(lambda: self.terminal.service_process() is None, "the service to stop", STOP)
                        self.assertLess(time.monotonic() - started, STOP)
                        waiting.communicate(timeout=10)
                    self.assertEqual(self.terminal.log()[-1], "INFO Kiosk shutting down")
                    self.terminal.start_service()
            portal.outage("off")
            self.assertEqual(self.begin()["ok"], True)
