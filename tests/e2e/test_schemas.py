"""docs/schemas: against the examples of the documents, the error codes, and values that break them."""

import contextlib
import io
import json
import pathlib
import re
import sys
import unittest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "tools" / "devportal"))
import schemas  # noqa: E402
from devportal import Portal  # noqa: E402
from test_devportal import FACTS, POWER, check_in, enrol  # noqa: E402


def document(name):
    return (REPOSITORY / "docs" / name).read_text("utf-8")


def examples(text):
    """The JSON objects in the code blocks of a document's part, with what they leave out."""
    code = "\n".join(re.findall(r"^ {4}(.*)$", text, re.MULTILINE))
    code = code.replace("{...}", json.dumps(POWER))
    code = re.sub(r'"(\w{4})\.\.\.(\w{4})"', lambda cut: f'"{cut[1]:0<60}{cut[2]}"', code)
    code = re.sub(r'oken":"(\w{4})\.\.\."', lambda cut: f'oken":"{cut[1]:0<32}"', code)
    for start in re.finditer(r"^\{", code, re.MULTILINE):
        yield json.JSONDecoder().raw_decode(code, start.start())[0]


def error_codes(schema, file):
    """What a schema lets a member "error" be, by name."""
    if isinstance(schema, dict):
        if reference := re.fullmatch(r"#/\$defs/(.+)", schema.get("$ref", "")):
            yield from error_codes(schemas.definitions(file)[reference[1]], file)
        for name, each in schema.items():
            if name == "error" and isinstance(each, dict):
                yield from enumerated(each, file)
            yield from error_codes(each, file)
    elif isinstance(schema, list):
        for each in schema:
            yield from error_codes(each, file)


def enumerated(schema, file):
    for each in [schema, *schema.get("anyOf", ())]:
        if reference := re.fullmatch(r"#/\$defs/(.+)", each.get("$ref", "")):
            each = schemas.definitions(file)[reference[1]]
        yield from (code for code in [*each.get("enum", ()), each.get("const")] if code is not None)


class Schemas(unittest.TestCase):
    def test_examples_of_the_documents(self):
        self.assertTrue(schemas.AVAILABLE)
        chapter = document("pipe.md").split("\n## Commands\n", 1)[1].split("\n## Error codes\n", 1)[0]
        commands = dict(re.findall(r"^### ([\w.]+)\n(.*?)(?=^### |\Z)", chapter, re.MULTILINE | re.DOTALL))
        self.assertEqual(set(commands), set(schemas.definitions("pipe-requests.json")) - {"unlockToken"})
        for command, text in commands.items():
            found = list(examples(text))
            for value in found:
                part = "requests" if "cmd" in value else "replies"
                self.assertEqual(schemas.faults(f"pipe-{part}.json#/$defs/{command}", value), [])
            # Those that answer what another one answers show no reply of their own.
            self.assertTrue(found or command == "os.install", command)

        api = document("portal-api.md")
        for begin, name in (('    {"hostname"', "pairing.json#/$defs/request"), ('    {"pairingCode"', "pairing.json#/$defs/begun"),
                            ('    {"deviceToken"', "pairing.json#/$defs/claimed"), ('    {"status"', "check-in.json#/$defs/enrolled"),
                            ('    {"version"', "log.json#/$defs/record")):
            value = next(examples(api[api.index(begin):]))
            if name.endswith("claimed"):
                value["deviceToken"] = value["deviceToken"].strip()
            self.assertEqual(schemas.faults(name, value), [])

    def test_error_codes_are_those_of_the_messages(self):
        messages = json.loads(document("messages.json"))
        every = {each["code"] for each in messages if "commands" not in each}
        for command in schemas.definitions("pipe-requests.json").keys() - {"unlockToken", "status"}:
            said = every | {each["code"] for each in messages if command in each.get("commands", ())}
            schema = schemas.definitions("pipe-replies.json")[command]
            self.assertEqual(set(error_codes(schema, "pipe-replies.json")), said, command)

    def test_values_that_break_them(self):
        report = {"lastRunAt": "2026-10-15T02:10:00Z", "lastResult": "ok", "error": None, "pending": 1, "restartRequired": False}
        good = {
            "pairing.json#/$defs/request": FACTS,
            "check-in.json#/$defs/request": {"appVersion": "1", "powerLocal": POWER, "osUpdates": report},
            "check-in.json#/$defs/enrolled": {"status": "enrolled", "power": POWER},
            "pipe-replies.json#/$defs/unlock": {"ok": True, "unlockToken": "0f" * 16, "expiresInSeconds": 600},
            "pipe-requests.json#/$defs/session.report": {"cmd": "session.report", "signedIn": True},
        }
        for name, value in good.items():
            self.assertEqual(schemas.faults(name, value), [])
            self.assertTrue(schemas.faults(name, value | {"surplus": 1}), f"a surplus member of {name}")
            for member in value.keys() - {"powerLocal", "osUpdates", "power"}:
                self.assertTrue(schemas.faults(name, {k: v for k, v in value.items() if k != member}), f"{member} missing")
            for member in value:
                self.assertTrue(schemas.faults(name, value | {member: []}), f"{member} of the wrong type in {name}")
        empty = POWER | {"schedule": POWER["schedule"] | {"days": []}}
        self.assertTrue(schemas.faults("policies.json#/$defs/power", empty))
        self.assertTrue(schemas.faults("pipe-replies.json#/$defs/unlock", {"ok": False, "error": "not_pending"}))

    def test_a_terminal_that_breaks_one_fails_the_portals_test(self):
        with contextlib.redirect_stderr(io.StringIO()) as said, self.assertRaisesRegex(AssertionError, "screenOffMinutes"):
            with Portal() as portal:
                check_in(portal, enrol(portal)[1], {"appVersion": "1", "powerLocal": POWER | {"screenOffMinutes": 241}})
        self.assertIn("devportal: check-in.json#/$defs/request: $.powerLocal.screenOffMinutes 241", said.getvalue())
