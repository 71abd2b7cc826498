"""The checks, in the order in which a terminal would meet what they look at."""

import concurrent.futures
import hashlib
import json
import re
import secrets
import shlex
import socket
import ssl
import string
import subprocess
import time

import policy
from replies import MEMBERS, invalid, photo_digests
from wire import PHASE_SECONDS, Wire, parsed

LONGEST_TOKEN, CODE_LENGTH, LEAST_LIFETIME, LARGEST_BATCH = 4096, 8, 60, 60 * 1024
NAME = {"hostname": "PORTAL-CHECK", "platform": "Windows", "osVersion": "10.0.19045", "appVersion": "portal-check",
        "screenCount": 1}
POWER = {"screenOffMinutes": 15, "sleepMinutes": 0,
         "schedule": {"enabled": True, "sleepAt": "22:00", "wakeAt": "07:00", "days": [1, 2, 3, 4, 5]}}
RUN = {"lastRunAt": "2026-10-15T02:10:00Z", "lastResult": "failed", "error": "install 0x80240022 – Łódź " + "x" * 50,
       "pending": 500, "restartRequired": True}
# What terminals say, one check-in each.
REPORTS = [{"appVersion": "portal-check"},
           {"appVersion": "portal-check", "powerLocal": POWER, "powerError": "wake_unavailable", "osUpdates": RUN},
           {"appVersion": "portal-check", "osUpdates": RUN | {"lastResult": "nothing", "error": None, "pending": 0}}]
RECORD = {"version": "1.1", "host": "PORTAL-CHECK", "short_message": "portal-check: \"Łódź\"\t\\ a line", "level": 6,
          "_component": "portal-check", "_machine": "", "_tenant": "", "_site": "", "_install": "0" * 32, "_pid": 1,
          "_app_version": "portal-check"}


class Stuck(Exception):
    """What comes next needs what is missing; the report says so already."""


class Check:
    def __init__(self, options, report):
        self.options, self.report = options, report
        self.trust(options.certificate)  # a wrong file ends this here, not after a person has paired
        self.wire = Wire(options.url, self.trust())
        self.code = self.token = self.reply = None

    def trust(self, certificate=None):
        context = ssl.create_default_context(cafile=self.options.ca)
        if certificate:
            context.load_cert_chain(certificate)
        return context

    def expect(self, answer, wanted, what, consequence):
        """Whether the status is one of those; says so."""
        if answer.status in wanted:
            self.report.ok(f"{what}: {answer}")
            return True
        redirect = answer.status is not None and 300 <= answer.status < 400
        good = "2xx" if isinstance(wanted, range) else " or ".join(map(str, wanted))
        self.report.wrong(f"{what}: {answer}, not {good}",
                          "terminals do not follow redirects: " + consequence if redirect else consequence)
        return False

    def content(self, answer, wanted, what, consequence):
        """The object in a reply of such a status; None when there is none, which it says."""
        if not self.expect(answer, wanted, what, consequence):
            return None
        value, problem = parsed(answer)
        if problem:
            self.report.wrong(f"{what}: {problem}", consequence)
        return value

    # -- the way there --------------------------------------------------------------------------------------------------

    def transport(self):
        if not self.wire.secure:
            self.report.note("plain http: whoever is on the way reads the token and the exit password")
            return
        newest = self._shake_hands(self.trust(), "TLS", "no terminal gets an answer")
        old = self.trust()
        old.maximum_version = ssl.TLSVersion.TLSv1_2
        self._shake_hands(old, "TLS 1.2", "Windows 10 speaks no newer one: such a terminal gets no answer")
        if newest is None:
            raise Stuck
        left = (ssl.cert_time_to_seconds(newest["notAfter"]) - time.time()) / 86400
        if left < 30:
            self.report.note(f"the certificate ends in {left:.0f} days; after that no terminal gets an answer")

    def _shake_hands(self, context, what, consequence):
        """The server's certificate; None when there is no connection."""
        try:
            with (socket.create_connection((self.wire.host, self.wire.port or 443), PHASE_SECONDS) as plain,
                  context.wrap_socket(plain, server_hostname=self.wire.host) as connection):
                self.report.ok(f"{what}: {connection.version()}, {connection.cipher()[0]}")
                return connection.getpeercert()
        except OSError as error:
            self.report.wrong(f"{what}: no connection ({error})", consequence)
            return None

    # -- pairing --------------------------------------------------------------------------------------------------------

    def begin(self):
        answer = self.wire.call("POST", "/api/kiosk/pair", NAME)
        failed = "nobody can pair a terminal: the person sees \"server_error\" or \"unreachable\""
        value = self.content(answer, (200, 201), "pairing begins", failed)
        if value is None:
            raise Stuck
        code = value.get("pairingCode")
        if not isinstance(code, str) or not re.fullmatch(f"[0-9A-Za-z]{{{CODE_LENGTH}}}", code):
            self.report.wrong(f"pairingCode is {json.dumps(code)}, not {CODE_LENGTH} ASCII letters and digits as text",
                              "a terminal never asks whether such a code was entered")
            raise Stuck
        if confused := set("01ILO") & set(code.upper()):
            self.report.note(f"the code has {' '.join(sorted(confused))}, which people confuse")
        lifetime = value.get("expiresInSeconds")
        if lifetime is not None and (isinstance(lifetime, bool) or not isinstance(lifetime, (int, float))):
            self.report.wrong("expiresInSeconds is no number", "the terminal counts down from what it makes of that, or 900")
        elif lifetime is not None and lifetime < LEAST_LIFETIME:
            self.report.note(f"the code lives {lifetime} s: hardly long enough to enter it")
        return code

    def poll(self, code):
        return self.wire.call("GET", "/api/kiosk/pair/" + code)

    def pairing(self):
        self.code, other = self.begin(), self.begin()
        if self.code == other:
            self.report.wrong("two terminals got the same code", "whoever is second gets nothing, or the other's token")
        drops = "a terminal drops its code, or never hears that it was entered"
        never = "".join(secrets.choice(string.ascii_uppercase) for _ in range(CODE_LENGTH))
        self.expect(self.poll(never), (404, 410), "a code that was never given", "the terminal goes on showing a dead code")
        self.expect(self.poll(self.code), (202,), "a code that nobody has entered yet", drops)
        self._claim()
        self.expect(self.poll(other), (202,), "the other code, still not entered", drops)
        again = self.poll(self.code)
        if again.status == 200:
            self.report.wrong("the token is handed out twice", "whoever saw the code on the screen becomes this terminal")
        else:
            self.expect(again, (404, 409, 410), "the token a second time", "the terminal goes on asking")
            if again.status != 409:
                self.report.note(f"{again.status} makes a terminal say that the code has expired; 409 that it was used")

    def _act(self, command, *words, ask):
        """Has a person do something in the portal, or the command in place of one."""
        if command:
            done = subprocess.run([*shlex.split(command), *words])
            if done.returncode:
                self.report.wrong(f"the command {command} ended with {done.returncode}", "the checks cannot go on")
                raise Stuck
        else:
            print(ask, flush=True)

    def _until(self, call, answered):
        """Asks every second until the answer is another one."""
        end = time.monotonic() + self.options.wait
        while True:
            answer = call()
            if not answered(answer):
                return answer
            if time.monotonic() > end:
                self.report.wrong(f"nothing happened for {self.options.wait} s", "the checks cannot go on")
                raise Stuck
            time.sleep(1)

    def _claim(self):
        self._act(self.options.claim, self.code, ask=f"Enter this code in the portal now: {self.code}")
        answer = self._until(lambda: self.poll(self.code), lambda answer: answer.status == 202)
        drops = "the terminal drops its code and reports \"server_error\""
        value = self.content(answer, (200,), "the code was entered", drops)
        token = value.get("deviceToken") if value else None
        if not isinstance(token, str) or not re.fullmatch(f"[!-~]{{1,{LONGEST_TOKEN}}}", token):
            if value is not None:
                self.report.wrong(f"deviceToken is not text of 1 to {LONGEST_TOKEN} characters from ! to ~", drops)
            raise Stuck
        self.token = token

    # -- check-in -------------------------------------------------------------------------------------------------------

    def check_in(self):
        for what, token in (("a made-up token", secrets.token_urlsafe(32)), ("no token", None)):
            self._refused(self._report_in(token), "unknown", f"check-in with {what}",
                          "with 200 anybody is a terminal; with \"revoked\" one leaves kiosk mode at once, with anything else never")
        with concurrent.futures.ThreadPoolExecutor() as pool:  # a pairing's own and the worker's may come at once
            answers = list(pool.map(lambda report: self._report_in(self.token, report), REPORTS))
        replies = [self._enrolled(answer) for answer in answers]
        self.reply = replies[0]
        for name in sorted(set().union(*replies) - set.intersection(*map(set, replies))):
            self.report.wrong(f"{name} is in one check-in's reply and missing in another's",
                              "what is missing counts as taken away: send the whole state every time")
        there = [name for name in MEMBERS if self.reply.get(name) is not None]  # null counts as missing
        faults = [fault for name in there for fault in MEMBERS[name](self.reply[name])]
        for text, consequence in faults:
            self.report.wrong(text, consequence)
        if not faults:
            self.report.ok("check-in: " + (", ".join(there) or "no member"))
        self._notes()

    def _report_in(self, token, report=REPORTS[0]):
        return self.wire.call("POST", "/api/kiosk/check-in", report, token)

    def _refused(self, answer, wanted, what, consequence):
        status = (parsed(answer)[0] or {}).get("status")
        if answer.status == 401 and status == wanted:
            self.report.ok(f"{what}: 401, {wanted}")
        else:
            self.report.wrong(f"{what}: {answer}, status {json.dumps(status)}, not 401 with \"{wanted}\"", consequence)

    def _enrolled(self, answer):
        stays = "a failed check-in: the terminal changes nothing and comes less and less often"
        value = self.content(answer, (200,), "check-in", stays)
        if value is not None and value.get("status") != "enrolled":
            self.report.wrong(f"check-in: 200 with the status {json.dumps(value.get('status'))}, not \"enrolled\"", stays)
            value = None
        if value is None:
            raise Stuck
        return value

    def _notes(self):
        unknown = [name for name in self.reply if name not in MEMBERS and name != "status"]
        for name, check in (("power", policy.check_power), ("updates", policy.check_updates)):
            unknown += [name + "." + message.split()[0] for message, minded in invalid(check, self.reply.get(name) or {})
                        if not minded]
            if name + "Source" in self.reply and name not in self.reply:
                self.report.note(f"{name}Source is not looked at without {name}")
        if unknown:
            self.report.note("terminals do not know " + ", ".join(unknown))
        if not str(self.reply.get("exitPassword") or "").strip():
            self.report.note("without an exit password nobody gets into maintenance at the terminal")

    def photos(self):
        for digest in photo_digests(self.reply.get("branding"))[:policy.MAX_PHOTOS]:
            path, missing = "/api/kiosk/branding/photos/" + digest, "the terminal does without it and asks again and again"
            answer = self.wire.call("GET", path, token=self.token, accept="image/*", limit=policy.MAX_PHOTO_SIZE)
            if not self.expect(answer, (200,), f"photo {digest[:8]}", missing):
                continue
            if answer.problem or hashlib.sha256(answer.body).hexdigest() != digest:
                self.report.wrong(f"photo {digest[:8]}: " + (answer.problem or "other bytes than its digest says"), missing)
            if self.wire.call("GET", path, accept="image/*", limit=policy.MAX_PHOTO_SIZE).status == 200:
                self.report.note(f"photo {digest[:8]} is there for anybody, without a token")

    def removal(self):
        if self.options.keep:
            self.report.note("the removal was not looked at (--keep)")
            return
        self._act(self.options.remove, ask="Remove this terminal in the portal now.")
        answer = self._until(lambda: self._report_in(self.token), lambda answer: answer.status == 200)
        self._refused(answer, "revoked", "check-in of a terminal that was removed",
                      "with \"unknown\" it leaves kiosk mode after 24 hours, with anything else never")

    # -- log lines ------------------------------------------------------------------------------------------------------

    def logs(self):
        if self.options.log:
            self._log_lines(self._log_wire(self.options.log))
        if self.options.log_config:
            what, unused = "log configuration", "the remote configuration is not used; the last good one stays"
            answer = self._log_wire(self.options.log_config).call("GET", "")
            value = self.content(answer, (200,), what, unused)
            for message, minded in invalid(policy.check_log_config, value or {}):
                if minded:
                    self.report.wrong(f"{what}: {message}", unused)

    def _log_wire(self, url):
        if not url.startswith("https://"):
            self.report.wrong(f"{url} is not https", "terminals do not use it")
        return Wire(url, self.trust(self.options.certificate))

    def _log_lines(self, wire):
        now = round(time.time(), 3)
        records = [json.dumps(RECORD | {"timestamp": now, "_started": now, "_seq": number}, ensure_ascii=False).encode()
                   for number in range(1, 400)]
        batch = b"\n".join(records)[:LARGEST_BATCH].rsplit(b"\n", 1)[0]
        for what, body, consequence in (
                ("a log line", records[0], "the terminal keeps the line and tries again, or sets it aside for good"),
                ("the same log line once more", records[0], "it comes for ever, or is set aside"),
                ("a batch of 60 KiB", batch, "do not set \"batch\" in the remote configuration")):
            self.expect(wire.call("POST", "", body), range(200, 300), what, consequence)
        if self.options.certificate:
            answer = Wire(self.options.log, self.trust()).call("POST", "", records[0])
            self.expect(answer, (403, 401, None), "a log line without a client certificate", "with 2xx anybody's lines are "
                        "taken; with another 4xx terminals take it for the line's fault and set it aside")

    def run(self):
        try:
            for part in (self.transport, self.pairing, self.check_in, self.photos, self.removal):
                part()
        except Stuck:
            self.report.note("what comes after that could not be looked at")
        self.logs()
