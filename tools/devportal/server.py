"""HTTP plumbing: one request per connection, body limits, outages, scripted replies. It knows no route."""

import dataclasses
import email.utils
import errno
import http.server
import json
import socket
import socketserver
import sys
import threading
import time
import traceback

MAX_BODY = 64 * 1024
# A refused body is still read this far, so that the sender gets to see the answer instead of a reset connection.
DRAIN_BODY = 1024 * 1024
SOCKET_TIMEOUT = 30
OUTAGES = ("off", "503", "silent", "hang")


@dataclasses.dataclass
class Request:
    method: str
    path: str  # without the query
    headers: object  # case-insensitive mapping
    body: bytes
    time: float = dataclasses.field(default_factory=time.time)
    status: int = 0  # of the reply; 0 until it was sent, and when the connection was closed without one


@dataclasses.dataclass
class Reply:
    status: int = 200
    body: object = b""  # bytes, text, or anything else as JSON
    headers: dict = dataclasses.field(default_factory=dict)
    raw: bytes = None  # sent as it stands in place of status line, headers and body; b"" closes without a byte
    cut: int = None  # close after so many bytes of the body, with the full length promised
    dribble: float = None  # seconds between the single bytes of the body (or of `raw`)

    def encode(self):
        """Returns (head, body) in bytes."""
        if self.raw is not None:
            return b"", self.raw
        headers = {"Content-Type": "application/json", "Cache-Control": "no-store", "Connection": "close",
                   "Date": email.utils.formatdate(usegmt=True)}
        body = self.body
        if isinstance(body, str):
            body = body.encode("utf-8")
        elif not isinstance(body, bytes):
            body = json.dumps(body, ensure_ascii=False).encode("utf-8")
        headers.update({"Content-Length": len(body)}, **self.headers)
        reason = http.server.BaseHTTPRequestHandler.responses.get(self.status, ("Other",))[0]
        lines = [f"HTTP/1.1 {self.status} {reason}"] + [f"{name}: {value}" for name, value in headers.items()]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1"), body[:self.cut]


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = SOCKET_TIMEOUT

    def setup(self):
        super().setup()
        if self.server.tls:
            # Here and not in the accepting thread, which one slow client would hold up.
            self.request.do_handshake()

    def _serve(self):
        self.close_connection = True
        body, refusal = self._read_body()
        request = Request(self.command, self.path.split("?", 1)[0], self.headers, body)
        reply = refusal or self.server.answer(request)
        try:
            self._send(reply)
        finally:
            self.server.finished(request, 0 if reply.raw == b"" else reply.status)
        self.log_request(reply.status if reply.raw is None else "raw")

    do_GET = do_POST = do_PUT = do_DELETE = do_PATCH = do_OPTIONS = _serve

    def _read_body(self):
        """Returns (body, None), or (b"", the refusal)."""
        if self.headers.get("Transfer-Encoding"):
            return b"", Reply(411, {"error": "send a Content-Length"})
        text = self.headers.get("Content-Length", "0")
        if not (text.isascii() and text.isdigit()) or len(text) > 15:
            return b"", Reply(400, {"error": "bad Content-Length"})
        length = int(text)
        limit = self.server.body_limits.get(self.path, MAX_BODY)
        if length > limit:
            left = min(length, DRAIN_BODY)
            while left > 0 and (piece := self.rfile.read(min(left, 65536))):
                left -= len(piece)
            return b"", Reply(413, {"error": f"the body is larger than {limit} bytes"})
        body = self.rfile.read(length)
        if len(body) < length:
            return b"", Reply(400, {"error": "the body ended early"})
        return body, None

    def _send(self, reply):
        head, body = reply.encode()
        self.connection.sendall(head)
        if reply.dribble is None:
            self.connection.sendall(body)
            return
        for index in range(len(body)):
            self.connection.sendall(body[index:index + 1])
            if self.server.stopping.wait(reply.dribble):
                return

    def log_message(self, format, *args):
        if self.server.verbose:
            super().log_message(format, *args)


class Server(http.server.ThreadingHTTPServer):
    """Serves until close(). `route` maps a Request to a Reply and runs on the connection's own thread.

    Requests whose path starts with `watched` are recorded, and outages and scripts act on them alone. `body_limits` maps
    paths to the bytes that a request may bring there, where that is not MAX_BODY.
    """

    daemon_threads = False  # close() waits for them, so that nobody uses the store after its end
    request_queue_size = 128

    def __init__(self, address, route, watched, tls=None, verbose=False, keep_requests=None, body_limits=None):
        self.body_limits = body_limits or {}
        self.tls = tls
        self.verbose = verbose
        self.stopping = threading.Event()
        self.changed = threading.Condition()  # guards what follows; notified when a request came or was answered
        self._route = route
        self._watched = watched
        self._keep = keep_requests
        self._requests = []
        self._scripts = []
        self._outage = "off"
        self._open = set()
        super().__init__(address, _Handler)
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,), name="devportal", daemon=True)
        self._thread.start()

    def close(self):
        self.stopping.set()
        with self.changed:
            self.changed.notify_all()
        self.shutdown()
        with self.changed:
            for connection in self._open:
                try:
                    # Past the TLS layer, which must not be used from two threads.
                    socket.socket.shutdown(connection, socket.SHUT_RDWR)
                except OSError:
                    pass
        self.server_close()
        self._thread.join()

    @property
    def requests(self):
        with self.changed:
            return list(self._requests)

    @property
    def outage(self):
        return self._outage

    @outage.setter
    def outage(self, mode):
        if mode not in OUTAGES:
            raise ValueError(f"the outage must be one of {', '.join(OUTAGES)}")
        with self.changed:
            self._outage = mode
            self.changed.notify_all()

    def script(self, path_prefix, replies):
        """The next requests below `path_prefix` get `replies`: a list, used up in turn, or a callable(Request).

        None as an entry or as the callable's result means the portal's own answer; None or [] ends a script.
        """
        with self.changed:
            self._scripts = [entry for entry in self._scripts if entry[0] != path_prefix]
            if replies:
                self._scripts.append((path_prefix, replies if callable(replies) else list(replies)))

    def answer(self, request):
        try:
            reply = None
            if request.path.startswith(self._watched):
                with self.changed:
                    if self._keep != 0:
                        self._requests.append(request)
                        del self._requests[:-self._keep if self._keep else 0]
                    self.changed.notify_all()
                reply = self._scripted(request) or self._outage_reply()
            return reply or self._route(request)
        except Exception:  # a fault of the portal: say so, and keep serving
            traceback.print_exc()
            return Reply(500, {"error": "the portal failed; see its output"})

    def finished(self, request, status):
        with self.changed:
            request.status = status
            self.changed.notify_all()

    def _scripted(self, request):
        with self.changed:
            script = next((entry[1] for entry in self._scripts if request.path.startswith(entry[0])), None)
            if not callable(script):
                return script.pop(0) if script else None
        return script(request)

    def _outage_reply(self):
        with self.changed:
            if self._outage == "hang":
                self.changed.wait_for(lambda: self._outage != "hang" or self.stopping.is_set())
                return Reply(raw=b"")
            return {"503": Reply(503, {"error": "outage"}), "silent": Reply(raw=b"")}.get(self._outage)

    # Overrides of the standard server.

    def server_bind(self):
        try:
            socketserver.TCPServer.server_bind(self)  # HTTPServer's own would ask the name service for this host
        except OSError as error:
            if error.errno == errno.EADDRINUSE:
                host, port = self.server_address
                raise OSError(f"port {port} of {host} is taken: is another portal, or ./run, still up?") from None
            raise

    def get_request(self):
        connection, address = super().get_request()
        if self.tls:
            connection.settimeout(SOCKET_TIMEOUT)
            connection = self.tls.wrap_socket(connection, server_side=True, do_handshake_on_connect=False)
        with self.changed:
            self._open.add(connection)
        return connection, address

    def shutdown_request(self, request):
        with self.changed:
            self._open.discard(request)
        super().shutdown_request(request)

    def handle_error(self, request, client_address):
        if self.verbose or not isinstance(sys.exc_info()[1], OSError):  # a client that went away is no news
            super().handle_error(request, client_address)
