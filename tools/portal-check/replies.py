"""What may be wrong with the members of a check-in's reply. A check yields (what is wrong, what a terminal makes of it)."""

import json
import re

import policy


def invalid(check, value):
    """What the check says against a value: [(sentence, whether terminals mind)]; they pass over unknown members."""
    try:
        check(value)
    except policy.Invalid as error:
        return [(message, "is not a member that a terminal knows" not in message) for message in error.messages]
    return []


def sign_in_faults(value):
    if not isinstance(value, dict):
        yield "signIn is no object", "every method is allowed, no further hosts"
        return
    for name in ("microsoft", "email"):
        if not isinstance(value.get(name, True), bool):
            yield f"signIn.{name} is neither true nor false", "a terminal guesses what it means"
    hosts = value.get("extraHosts", [])
    if not isinstance(hosts, list):
        yield "signIn.extraHosts is no list", "no further hosts"
        return
    for host in hosts:
        if not policy.is_host_name(host):
            yield f"signIn.extraHosts holds {json.dumps(host)}, which is no host name in lower case", "it is dropped"
    if len(hosts) > policy.MAX_HOSTS:
        yield f"signIn.extraHosts has {len(hosts)} entries", "what follows the tenth good one is dropped"


def text_faults(name, consequence):
    def faults(value):
        if not isinstance(value, str):
            yield f"{name} is no text", consequence
    return faults


def whole_or_nothing(name, check):
    def faults(value):
        for message, minded in invalid(check, value):
            if minded:
                yield f"{name}: {message}", "all of it is passed over; the last good policy stays"
    return faults


def source_faults(name):
    def faults(value):
        if value not in policy.SOURCES:
            yield f"{name} is {json.dumps(value)}", "no source is shown"
    return faults


def is_digest(value):
    return isinstance(value, str) and re.fullmatch("[0-9a-f]{64}", value) is not None


def photo_digests(branding):
    """Of the photos that a terminal asks for."""
    photos = branding.get("photos") if isinstance(branding, dict) else None
    listed = [photo.get("sha256") for photo in photos if isinstance(photo, dict)] if isinstance(photos, list) else []
    return [digest for digest in listed if is_digest(digest)]


def branding_faults(value):
    if not isinstance(value, dict):
        yield "branding is no object", "the cached branding is removed"
        return
    for name in ("displayName", "signInSubtitle"):
        if not isinstance(value.get(name, ""), str):
            yield f"branding.{name} is no text", "it is dropped"
    photos = value.get("photos", [])
    if not isinstance(photos, list):
        yield "branding.photos is no list", "there are no photos"
        return
    seen = set()
    for number, photo in enumerate(photos):
        where, digest = f"branding.photos[{number}]", photo.get("sha256") if isinstance(photo, dict) else None
        if not is_digest(digest):
            yield f"{where}.sha256 is not 64 hexadecimal digits in lower case", "the photo is dropped"
            continue
        if digest in seen:
            yield f"{where} stands there twice", "it counts once"
        seen.add(digest)
        for name, kinds in (("contentType", str), ("credit", str), ("width", (int, float)), ("height", (int, float))):
            if name in photo and (not isinstance(photo[name], kinds) or isinstance(photo[name], bool)):
                yield f"{where}.{name} is of the wrong type", "it is dropped"
    if len(seen) > policy.MAX_PHOTOS:
        yield f"branding.photos has {len(seen)} entries", f"what follows number {policy.MAX_PHOTOS} is dropped"


MEMBERS = {
    "signIn": sign_in_faults,
    "name": text_faults("name", "the stored name is deleted"),
    "power": whole_or_nothing("power", policy.check_power),
    "powerSource": source_faults("powerSource"),
    "updates": whole_or_nothing("updates", policy.check_updates),
    "updatesSource": source_faults("updatesSource"),
    "exitPassword": text_faults("exitPassword", "no password opens maintenance"),
    "branding": branding_faults,
    "tenantId": text_faults("tenantId", "there is none"),
}
