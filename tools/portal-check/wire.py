"""Calls as a terminal makes them, and what it would read in the reply."""

import http.client
import json
import time
import urllib.parse

import policy

PHASE_SECONDS, CALL_SECONDS = 15, 60
JSON_LIMIT, DEPTH_LIMIT = 64 * 1024, 64


class Answer:
    """`status` is None without an answer, and `problem` says why; otherwise it says what is wrong with the reply."""

    def __init__(self, status=None, headers=None, body=b"", problem=None):
        self.status, self.headers, self.body, self.problem = status, headers or {}, body, problem

    def __str__(self):
        return "no answer: " + self.problem if self.status is None else f"{self.status}"


class Wire:
    """Calls as a terminal makes them: a connection for each, nothing followed, every wait with its bound."""

    def __init__(self, url, context):
        parts = urllib.parse.urlsplit(url)
        self.secure, self.host, self.port = parts.scheme == "https", parts.hostname, parts.port
        self.base = parts.path.rstrip("/") + ("?" + parts.query if parts.query else "")
        self.context = context

    def call(self, method, path, body=None, token=None, accept="application/json", limit=JSON_LIMIT):
        headers = {"User-Agent": "NorvaneKiosk/portal-check", "Content-Type": "application/json", "Accept": accept,
                   "Connection": "close"}
        if token is not None:
            headers["Authorization"] = "Bearer " + token
        if body is not None and not isinstance(body, bytes):
            body = json.dumps(body, ensure_ascii=False).encode()
        end = time.monotonic() + CALL_SECONDS
        kind = http.client.HTTPSConnection if self.secure else http.client.HTTPConnection
        options = {"context": self.context} if self.secure else {}
        connection = kind(self.host, self.port, timeout=PHASE_SECONDS, **options)
        try:
            connection.request(method, self.base + path or "/", body, headers)
            reply = connection.getresponse()
            return Answer(reply.status, reply.headers, *self._body(reply, limit, end))
        except (OSError, http.client.HTTPException) as error:
            return Answer(problem=str(error) or type(error).__name__)
        finally:
            connection.close()

    def _body(self, reply, limit, end):
        """(what came, what is wrong with it)"""
        body = b""
        try:
            while len(body) <= limit and (piece := reply.read1(65536)):
                body += piece
                if time.monotonic() > end:
                    return body, f"the reply is not whole after {CALL_SECONDS} s"
        except (OSError, http.client.HTTPException) as error:
            return body, f"the reply ends early ({error or type(error).__name__})"
        if len(body) > limit:
            return body, f"the reply is larger than {limit} bytes"
        if reply.length:
            return body, f"the reply ends {reply.length} bytes early"
        return body, None


def depth(value):
    inner = value.values() if isinstance(value, dict) else value if isinstance(value, list) else ()
    return 1 + max(map(depth, inner), default=0) if isinstance(value, (dict, list)) else 0


def parsed(answer):
    """(the object in the reply, None), or (None, what is wrong with it)"""
    if answer.problem:
        return None, answer.problem
    if encoding := answer.headers.get("Content-Encoding"):
        return None, f"the reply is {encoding}, which nobody asked for"
    if answer.body.startswith(b"\xef\xbb\xbf"):
        return None, "the reply begins with a byte order mark, which is no JSON"
    try:
        value = policy.parse_json(answer.body)
    except ValueError as error:
        return None, f"the reply is no JSON ({error})"
    if not isinstance(value, dict):
        return None, "the reply is no JSON object"
    return (None, f"the reply is nested deeper than {DEPTH_LIMIT} levels") if depth(value) > DEPTH_LIMIT else (value, None)
