"""What a person may set for a terminal: one check per member of the check-in reply.

Every check takes the value and returns it in the form in which the terminal keeps it (member order, days ascending),
or raises Invalid with one message per fault. The terminal silently ignores a policy that breaks these rules, so the
portal has to be the one that says why.
"""

import json
import re

MAX_TEXT = 200
MAX_HOSTS = 10
MAX_MINUTES = 240
SOURCES = ("device", "tenant", "default")
MAX_PHOTOS = 16
MAX_PHOTO_SIZE = 16 * 1024 * 1024
PHOTO_ANSWERS = ("wrong", "empty", "oversized", "slow", "redirect")


class Invalid(Exception):
    """Faults of one value; `messages` name the member, as in "schedule.sleepAt is missing"."""

    def __init__(self, messages):
        super().__init__("; ".join(messages))
        self.messages = messages


class _Faults:
    """Collects every fault of a value, so that a person sees all of them at once."""

    def __init__(self):
        self.messages = []

    def add(self, path, text):
        self.messages.append(f"{path} {text}")
        return None

    def object(self, value, path, members):
        """True when `value` is an object; unknown members are faults, most of them being a slip of the pen."""
        if not isinstance(value, dict):
            self.add(path or "the policy", "must be an object in braces, such as {}")
            return False
        for name in value:
            if name not in members:
                self.add(_join(path, name), f"is not a member that a terminal knows; known are {', '.join(members)}")
        return True

    def member(self, holder, path, name, check):
        where = _join(path, name)
        if name not in holder:
            return self.add(where, "is missing")
        return check(holder[name], where)

    def flag(self, value, path):
        return value if isinstance(value, bool) else self.add(path, "must be true or false")

    def minutes(self, value, path):
        if isinstance(value, (int, float)) and not isinstance(value, bool):
            if 0 <= value <= MAX_MINUTES and value == int(value):
                return int(value)
        return self.add(path, f"must be a whole number from 0 to {MAX_MINUTES} (0 means never)")

    def clock(self, value, path):
        if isinstance(value, str) and re.fullmatch("([01][0-9]|2[0-3]):[0-5][0-9]", value):
            return value
        return self.add(path, 'must be a time of day from "00:00" to "23:59", five characters in quotes')

    def days(self, value, path):
        whole = isinstance(value, list) and all(
            isinstance(day, (int, float)) and not isinstance(day, bool) and day in range(7) for day in value)
        if not whole:
            return self.add(path, "must be a list of day numbers from 0 (Sunday) to 6 (Saturday), such as [1, 2, 3]")
        if len(set(value)) != len(value):
            return self.add(path, "names a day twice")
        return sorted(int(day) for day in value)

    def differ(self, record, path, first, second):
        if record[first] is not None and record[first] == record[second]:
            self.add(_join(path, second), f"must differ from {_join(path, first)}")

    def finish(self, result):
        if self.messages:
            raise Invalid(self.messages)
        return result


def _join(path, name):
    return f"{path}.{name}" if path else name


def check_power(value):
    faults = _Faults()
    if not faults.object(value, "", ("screenOffMinutes", "sleepMinutes", "schedule")):
        return faults.finish(None)
    result = {
        "screenOffMinutes": faults.member(value, "", "screenOffMinutes", faults.minutes),
        "sleepMinutes": faults.member(value, "", "sleepMinutes", faults.minutes),
        "schedule": faults.member(value, "", "schedule", lambda schedule, path: _schedule(faults, schedule, path)),
    }
    return faults.finish(result)


def _schedule(faults, value, path):
    if not faults.object(value, path, ("enabled", "sleepAt", "wakeAt", "days")):
        return None
    result = {
        "enabled": faults.member(value, path, "enabled", faults.flag),
        "sleepAt": faults.member(value, path, "sleepAt", faults.clock),
        "wakeAt": faults.member(value, path, "wakeAt", faults.clock),
        "days": faults.member(value, path, "days", faults.days),
    }
    faults.differ(result, path, "sleepAt", "wakeAt")
    if result["enabled"] and result["days"] == []:
        faults.add(_join(path, "days"), "needs at least one day while the schedule is enabled")
    return result


def check_updates(value):
    faults = _Faults()
    if not faults.object(value, "", ("automatic", "window")):
        return faults.finish(None)
    result = {
        "automatic": faults.member(value, "", "automatic", faults.flag),
        "window": faults.member(value, "", "window", lambda window, path: _window(faults, window, path)),
    }
    return faults.finish(result)


def _window(faults, value, path):
    if not faults.object(value, path, ("start", "end", "days")):
        return None
    result = {
        "start": faults.member(value, path, "start", faults.clock),
        "end": faults.member(value, path, "end", faults.clock),
        "days": faults.member(value, path, "days", faults.days),
    }
    faults.differ(result, path, "start", "end")
    if result["days"] == []:
        faults.add(_join(path, "days"), "needs at least one day")
    return result


def check_sign_in(value):
    faults = _Faults()
    if not faults.object(value, "", ("microsoft", "email", "extraHosts")):
        return faults.finish(None)
    result = {
        "microsoft": faults.member(value, "", "microsoft", faults.flag),
        "email": faults.member(value, "", "email", faults.flag),
        "extraHosts": faults.member(value, "", "extraHosts", lambda hosts, path: _hosts(faults, hosts, path)),
    }
    return faults.finish(result)


def _hosts(faults, value, path):
    if not isinstance(value, list):
        return faults.add(path, "must be a list of host names")
    for host in value:
        if not is_host_name(host):
            faults.add(path, f"holds {json.dumps(host, ensure_ascii=False)}, which is not a host name "
                             "(lower case, with a dot, such as login.example.org)")
    if len(value) > MAX_HOSTS:
        faults.add(path, f"may hold at most {MAX_HOSTS} host names")
    return value


def is_host_name(value):
    if not isinstance(value, str) or not 1 <= len(value) <= 253 or "." not in value:
        return False
    return all(re.fullmatch("[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?", label) for label in value.split("."))


def check_text(value):
    faults = _Faults()
    if not isinstance(value, str):
        faults.add("the value", "must be text")
    elif len(value) > MAX_TEXT:
        faults.add("the text", f"may have at most {MAX_TEXT} characters")
    elif any(ord(char) < 32 or ord(char) == 127 for char in value):
        faults.add("the text", "may not hold control characters")
    return faults.finish(value)


def check_branding(value):
    faults = _Faults()
    if not faults.object(value, "", ("displayName", "signInSubtitle", "photos")):
        return faults.finish(None)
    texts = {name: value[name] for name in ("displayName", "signInSubtitle") if name in value}
    for name, text in texts.items():
        _short_text(faults, text, name)
    photos = value.get("photos", [])
    if not isinstance(photos, list) or len(photos) > MAX_PHOTOS:
        faults.add("photos", f"must be a list of at most {MAX_PHOTOS} photos")
        photos = []
    return faults.finish({**texts, "photos": [_photo(faults, photo, f"photos[{i}]") for i, photo in enumerate(photos)]})


def _photo(faults, value, path):
    if not faults.object(value, path, ("sha256", "contentType", "width", "height", "credit")):
        return None
    if not isinstance(value.get("sha256"), str) or not re.fullmatch("[0-9a-f]{64}", value["sha256"]):
        faults.add(_join(path, "sha256"), "must be the digest of a photo, 64 digits in lower case")
    for name in ("contentType", "credit"):
        if name in value:
            _short_text(faults, value[name], _join(path, name))
    for name in ("width", "height"):
        if name in value and (isinstance(value[name], bool) or not isinstance(value[name], (int, float))):
            faults.add(_join(path, name), "must be a number")
    return value


def _short_text(faults, value, path):
    if not isinstance(value, str) or len(value) > MAX_TEXT:
        faults.add(path, f"must be text of at most {MAX_TEXT} characters")


def check_photo_answer(value):
    if value in PHOTO_ANSWERS:
        return value
    raise Invalid([f"the answer must be one of {', '.join(PHOTO_ANSWERS)}"])


def check_source(value):
    if value in SOURCES:
        return value
    raise Invalid([f"the source must be one of {', '.join(SOURCES)}"])


def check_log_config(value):
    """The remote configuration of log shipping; every member may be left out."""
    faults = _Faults()
    if not faults.object(value, "", ("enabled", "minLevel", "batch", "endpoint")):
        return faults.finish(None)
    for name in ("enabled", "batch"):
        if name in value:
            faults.flag(value[name], name)
    level = value.get("minLevel", 7)
    if isinstance(level, bool) or level not in range(3, 8):
        faults.add("minLevel", "must be a whole number from 3 (errors only) to 7 (everything)")
    endpoint = value.get("endpoint", "https://x")
    if not (isinstance(endpoint, str) and re.fullmatch(r"https://[A-Za-z0-9.\-\[\]:]+(/[!-~]*)?", endpoint)):
        faults.add("endpoint", "must be an https URL")
    return faults.finish(value)


def check_log_record(value):
    """One GELF record of a terminal; raises Invalid."""
    faults = _Faults()
    if not isinstance(value, dict):
        faults.add("the record", "must be an object")
        return faults.finish(None)
    if value.get("version") != "1.1":
        faults.add("version", 'must be "1.1"')
    for name in ("host", "short_message"):
        if not (isinstance(value.get(name), str) and value[name].strip()):
            faults.add(name, "must be text that is not blank")
    for name, kinds in (("timestamp", (int, float)), ("level", int)):
        if isinstance(value.get(name), bool) or not isinstance(value.get(name), kinds):
            faults.add(name, "must be a number")
    return faults.finish(value)


# The members that a person may set, in the order in which a check-in reply carries them.
CHECKS = {
    "signIn": check_sign_in,
    "name": check_text,
    "power": check_power,
    "powerSource": check_source,
    "updates": check_updates,
    "updatesSource": check_source,
    "exitPassword": check_text,
    "branding": check_branding,
    "tenantId": check_text,
    "photoAnswer": check_photo_answer,
}
# Settings of the portal itself: how it answers a terminal, not what it tells it.
NOT_SENT = ("photoAnswer",)


def check_settings(changes):
    """Checks a partial change {member: value}; None and "" take a member away. Returns (checked, faults by member)."""
    checked, faults = {}, {}
    for name, value in changes.items():
        if name not in CHECKS:
            faults[name] = ["is not a setting of a terminal"]
        elif value is None or value == "":
            checked[name] = None
        else:
            try:
                checked[name] = CHECKS[name](value)
            except Invalid as error:
                faults[name] = error.messages
    return checked, faults


def parse_json(data):
    """Parses UTF-8 JSON strictly: no NaN, nothing that JSON cannot carry on. Raises ValueError with a sentence."""
    try:
        text = data.decode("utf-8") if isinstance(data, bytes) else data
    except UnicodeDecodeError as error:
        raise ValueError(f"not UTF-8 at byte {error.start}") from None
    try:
        value = json.loads(text, parse_constant=_refuse_constant)
        json.dumps(value, ensure_ascii=False, allow_nan=False).encode("utf-8")
        return value
    except json.JSONDecodeError as error:
        raise ValueError(f"not valid JSON at line {error.lineno}, column {error.colno}: {error.msg}") from None
    except UnicodeEncodeError:
        raise ValueError("half of a surrogate pair in a text") from None
    except RecursionError:
        raise ValueError("nested too deeply") from None


def _refuse_constant(name):
    raise ValueError(f"{name} is not JSON")
