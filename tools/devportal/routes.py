"""The two HTTP interfaces: the one that terminals use (/api/kiosk) and the one that the page uses (/page/api)."""

import base64
import hashlib
import pathlib
import re
import time
import urllib.parse

import policy
from server import OUTAGES, Reply
from store import PortalError

TERMINAL_PREFIX = "/api/"
PHOTO_PATH = "/page/api/photos"
# Seconds between the bytes of a photo that comes slowly.
SLOW = 0.5
# A page of another site can make a browser send requests here, but not with a header of this name.
PAGE_HEADER = "X-Devportal"
PAGE_HOSTS = r"localhost|127(\.\d{1,3}){3}"
PAGE_FILE = pathlib.Path(__file__).with_name("page.html")


class Routes:
    """Maps requests to replies. `outage` is an object with an attribute of that name: the server. `hold` takes the name of a
    schema and a value, and says what is wrong with it to whoever wants to know.
    """

    def __init__(self, store, code_lifetime, hold):
        self.store = store
        self.code_lifetime = code_lifetime
        self.hold = hold
        self.outage = None
        self._page = _load_page()
        self._terminal_table = [
            ("POST", r"/api/kiosk/pair", self._pair),
            ("GET", r"/api/kiosk/pair/([^/]{1,64})", self._pair_state),
            ("POST", r"/api/kiosk/check-in", self._check_in),
            ("POST", r"/api/log", self._log),
            ("GET", r"/api/log/config", lambda request: Reply(200, self.store.log_config())),
            ("GET", r"/api/kiosk/branding/photos/([^/]{1,80})", self._photo),
        ]
        self._page_table = [
            ("GET", r"/", lambda request: self._page),
            ("GET", r"/page/api/state", self._state),
            ("POST", r"/page/api/claim", self._claim),
            ("POST", r"/page/api/outage", self._set_outage),
            ("POST", r"/page/api/log/lines", self._log_lines),
            ("POST", r"/page/api/log/config", self._set_log_config),
            ("POST", PHOTO_PATH, self._add_photo),
            ("POST", r"/page/api/terminals/(\d{1,15})", self._change),
            ("POST", r"/page/api/terminals/(\d{1,15})/revoke", self._revoke),
            ("POST", r"/page/api/terminals/(\d{1,15})/forget", self._forget),
        ]

    def route(self, request):
        try:
            if request.path.startswith(TERMINAL_PREFIX):
                return _dispatch(self._terminal_table, request)
            refusal = _refuse_stranger(request)
            return refusal or _dispatch(self._page_table, request)
        except PortalError as error:
            body = {"error": error.message}
            if error.faults:
                body["faults"] = error.faults
            return Reply(error.status, body)

    # Terminals.

    def _pair(self, request):
        facts = _object(request)
        self.hold("pairing.json#/$defs/request", facts)
        code = self.store.begin_pairing(facts, self.code_lifetime)
        return self._held("pairing.json#/$defs/begun", {"pairingCode": code, "expiresInSeconds": self.code_lifetime}, 201)

    def _pair_state(self, request, code):
        token = self.store.collect(code)
        if token is None:
            return Reply(202, {"status": "pending"})
        return self._held("pairing.json#/$defs/claimed", {"deviceToken": token})

    def _check_in(self, request):
        report = _object(request)
        self.hold("check-in.json#/$defs/request", report)
        status, settings = self.store.check_in(_bearer(request), report)
        if status != "enrolled":
            return Reply(401, {"status": status}, {"WWW-Authenticate": "Bearer"})
        return self._held("check-in.json#/$defs/enrolled", check_in_reply(settings))

    def _held(self, schema, body, status=200):
        self.hold(schema, body)
        return Reply(status, body)

    def _log(self, request):
        """One GELF record, or several with line feeds between them; all of them are taken or none."""
        try:
            lines = [policy.check_log_record(policy.parse_json(line)) for line in request.body.split(b"\n") if line.strip()]
        except (ValueError, policy.Invalid) as error:
            raise PortalError(400, str(error)) from None
        for line in lines:
            self.hold("log.json#/$defs/record", line)
        self.store.add_lines(lines)
        return Reply(202, {})

    def _photo(self, request, digest):
        status, settings, kind, content = self.store.photo(_bearer(request), digest)
        if status != "enrolled":
            return Reply(401, {"status": status}, {"WWW-Authenticate": "Bearer"})
        answer = settings.get("photoAnswer")
        if answer == "redirect":
            return Reply(302, b"", {"Location": request.path + "?again", "Content-Type": kind})
        bodies = {"wrong": content[::-1] + b"!", "empty": b"", "oversized": bytes(policy.MAX_PHOTO_SIZE + 1)}
        return Reply(200, bodies.get(answer, content), {"Content-Type": kind}, dribble=SLOW if answer == "slow" else None)

    # The page.

    def _add_photo(self, request):
        kind = request.headers.get("Content-Type", "")
        if not re.fullmatch(r"image/[a-z0-9.+-]{1,40}", kind):
            raise PortalError(422, "A photo must be an image file.")
        if not request.body:
            raise PortalError(422, "The file is empty.")
        return Reply(201, {"sha256": self.store.add_photo(request.body, kind), "contentType": kind})

    def _state(self, request):
        return Reply(200, {
            "now": time.time(),
            "outage": self.outage.outage,
            "pendingCodes": self.store.pending_codes(),
            "terminals": self.store.terminals(),
            "logConfig": self.store.log_config(),
        })

    def _log_lines(self, request):
        body = _object(request)
        host, level = body.get("host"), body.get("level", 7)
        if not (host is None or isinstance(host, str)) or isinstance(level, bool) or level not in range(8):
            raise PortalError(422, "The host must be text or null, the level a number from 0 to 7.")
        return Reply(200, {"hosts": self.store.line_hosts(), "lines": self.store.lines(host or None, level)})

    def _set_log_config(self, request):
        text = _object(request).get("config")
        try:
            config = policy.check_log_config(policy.parse_json(text) if isinstance(text, str) else text)
        except policy.Invalid as error:
            raise PortalError(422, "Nothing was saved.", {"config": error.messages}) from None
        except ValueError as error:
            raise PortalError(422, "Nothing was saved.", {"config": [str(error)]}) from None
        self.store.set_log_config(config)
        return Reply(200, {"logConfig": config})

    def _claim(self, request):
        body = _object(request)
        code = re.sub(r"[\s-]", "", body.get("code") if isinstance(body.get("code"), str) else "").upper()
        settings = _checked({"name": body.get("name")})
        return Reply(201, {"id": self.store.claim(code, {k: v for k, v in settings.items() if v is not None})})

    def _change(self, request, terminal):
        changes = _object(request)
        faults = {}
        for name in ("power", "updates", "branding"):
            if isinstance(changes.get(name), str):
                try:
                    changes[name] = policy.parse_json(changes[name]) if changes[name].strip() else None
                except ValueError as error:
                    faults[name] = [str(error)]
                    del changes[name]
        return Reply(200, {"settings": self.store.change(int(terminal), _checked(changes, faults))})

    def _revoke(self, request, terminal):
        self.store.revoke(int(terminal))
        return Reply(200, {})

    def _forget(self, request, terminal):
        self.store.forget(int(terminal))
        return Reply(200, {})

    def _set_outage(self, request):
        mode = _object(request).get("mode")
        if mode not in OUTAGES:
            raise PortalError(422, f"The outage must be one of {', '.join(OUTAGES)}.")
        self.outage.outage = mode
        return Reply(200, {"outage": mode})


def check_in_reply(settings):
    """The members in the order of the settings table; a policy always travels with its source."""
    reply = {"status": "enrolled"}
    for name in list(policy.CHECKS) + [name for name in settings if name not in policy.CHECKS]:
        if name in settings and name not in policy.NOT_SENT:
            reply[name] = settings[name]
        elif name in ("powerSource", "updatesSource") and name.removesuffix("Source") in settings:
            reply[name] = "device"
    return reply


def _dispatch(table, request):
    allowed = []
    for method, pattern, function in table:
        if match := re.fullmatch(pattern, request.path):
            if method == request.method:
                return function(request, *match.groups())
            allowed.append(method)
    if allowed:
        return Reply(405, {"error": f"only {', '.join(allowed)} here"}, {"Allow": ", ".join(allowed)})
    return Reply(404, {"error": "nothing here"})


def _refuse_stranger(request):
    """The page's own calls only: no name that merely resolves to loopback, no request made by another site."""
    try:
        host = urllib.parse.urlsplit("//" + request.headers.get("Host", "")).hostname
    except ValueError:
        host = None
    if not re.fullmatch(PAGE_HOSTS, host or ""):
        return Reply(403, {"error": "open this page as localhost or 127.0.0.1"})
    if request.method != "GET" and PAGE_HEADER not in request.headers:
        return Reply(403, {"error": f"the header {PAGE_HEADER} is missing"})
    return None


def _bearer(request):
    scheme, _, token = request.headers.get("Authorization", "").partition(" ")
    return token.strip() if scheme.lower() == "bearer" else ""


def _object(request):
    try:
        value = policy.parse_json(request.body)
    except ValueError as error:
        raise PortalError(400, str(error)) from None
    if not isinstance(value, dict):
        raise PortalError(400, "the body must be a JSON object")
    return value


def _checked(changes, faults=None):
    checked, found = policy.check_settings(changes)
    found.update(faults or {})
    if found:
        raise PortalError(422, "Some values are not right; nothing was saved.", found)
    return checked


def _load_page():
    html = PAGE_FILE.read_bytes()

    def source(tag):
        inline = re.search(rb"<%s>(.*?)</%s>" % (tag, tag), html, re.DOTALL).group(1)
        return "'sha256-" + base64.b64encode(hashlib.sha256(inline).digest()).decode() + "'"

    # Only this file's own script and style may run, whatever text a terminal reports.
    content_policy = (f"default-src 'none'; connect-src 'self'; img-src data:; script-src {source(b'script')}; "
                      f"style-src {source(b'style')}; base-uri 'none'; form-action 'none'; frame-ancestors 'none'")
    return Reply(200, html, {
        "Content-Type": "text/html; charset=utf-8",
        "Content-Security-Policy": content_policy,
        "X-Content-Type-Options": "nosniff",
        "Referrer-Policy": "no-referrer",
    })
