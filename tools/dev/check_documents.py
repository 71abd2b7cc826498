#!/usr/bin/env python3
"""Holds what the documents name (state values, settings, commands, error codes, policies, log lines, entries of the event
log, exit codes, the files of the simulation, links, files, tests, what people are told to type) against the tree, and
commands and policies against the places that must know each of them."""
import json
import pathlib
import re
import sys

import document_references

# What a log line has in place of a value, as the documents write it: N, CODE, "...", a number.
VARIABLE_PART = re.compile(r"\.\.\.|\b[A-Z]+\b|\b0x\w+|\b\d+\b|\bNorvaneKiosk\b")
# ... and as the code does.
FORMAT = re.compile(r"%[-0-9.*]*(?:ll|l|z)?[a-zA-Z]")


def read(path):
    return pathlib.Path(path).read_text()


def code_below(*folders):
    return "\n".join(p.read_text() for f in folders for p in sorted(pathlib.Path(f).rglob("*.*")) if p.suffix in (".h", ".cpp"))


def rows(path, heading):
    """The cells of the table whose first line is `heading`."""
    body = read(path).split(heading, 1)[1].split("\n\n", 1)[0]
    return [[cell.strip() for cell in line.strip("|").split(" | ")] for line in body.splitlines()[2:]]


def both_ways(what, documented, document, present, code):
    for name in sorted(set(present) - set(documented)):
        yield f"{what} {name} of {code} is missing in {document}: add it there"
    for name in sorted(set(documented) - set(present)):
        yield f"{document} names the {what} {name}, which {code} does not have: take it out, or mend the name"


def state_values():
    header = "src/state/state_values.h"
    present = dict(re.findall(r'StateValue k\w+\{\s*L"(\w+)",\s*(\w+)', read(header)))
    documented = {}
    for cells in rows("docs/registry.md", "| value | type | written by | effect | for an administrator |"):
        for name in re.findall(r"`(\w+)`", cells[0]):
            documented[name] = cells[1].split(",")[0]
    yield from both_ways("state value", documented, "docs/registry.md", present, header)
    for name in sorted(documented.keys() & present.keys()):
        if documented[name].startswith("REG_") and documented[name] != present[name]:
            yield f"docs/registry.md: {name} is {documented[name]} there and {present[name]} in {header}"
    for name in sorted(set(re.findall(r"StateValue (k\w+)\{", read(header))) - set(re.findall(r"&(k\w+)", read(header)))):
        yield f"{header}: {name} is not in kStateValues, which the test of a damaged state key goes through: add it there"


def settings():
    document = "docs/registry.md"
    code = code_below("src/log")
    types = {"String": "REG_SZ", "Number": "REG_DWORD"}
    present = {name: types[kind] for kind, name in re.findall(r'ReadSetting(String|Number)\(L"(\w+)"\)', code)}
    documented = {cells[0].strip("`"): cells[1] for cells in rows(document, "| value | type | when read | effect | absent |")}
    del documented["RemoteConfig"]  # the service's own
    yield from both_ways("setting", documented, document, present, "src/log")
    for name in sorted(documented.keys() & present.keys()):
        if documented[name] != present[name]:
            yield f"{document}: {name} is {documented[name]} there and {present[name]} in src/log"


def commands():
    table = read("src/pipe/dispatch.cpp").split("kCommands[] = {", 1)[1].split("};", 1)[0]
    present = re.findall(r'\{"([\w.]+)",', table)
    chapter = read("docs/pipe.md").split("\n## Commands\n", 1)[1].split("\n## ", 1)[0]
    documented = re.findall(r"^### ([\w.]+)$", chapter, re.MULTILINE)
    yield from both_ways("command", documented, "docs/pipe.md (Commands)", present, "src/pipe/dispatch.cpp")
    timed = [name for cells in rows("docs/pipe.md", "| command | as a rule | longest |") for name in cells[0].split(", ")]
    yield from both_ways("command", timed, "docs/pipe.md (How long a reply may take)", present, "src/pipe/dispatch.cpp")
    test = "tests/pipe_caller_test.cpp"
    asked = re.findall(r'^ +\{"([\w.]+)", .*\{.*\}\}', read(test).split("EachCommandHasItsCallers")[1].split("\n}\n")[0], re.MULTILINE)
    yield from both_ways("command", asked, f"{test} (EachCommandHasItsCallers)", present, "src/pipe/dispatch.cpp")


def error_codes():
    document, messages, ctl = "docs/pipe.md (Error codes)", "docs/messages.json", "tools/kioskctl/exchange.cpp"
    names = re.findall(r"^### ([\w.]+)$", read("docs/pipe.md"), re.MULTILINE)
    documented = {}  # code and command; "any" for each command
    for cells in rows("docs/pipe.md", "| code | from, and when | again? |"):
        patterns = re.findall(r"[a-z]+\.?[*a-z]*", cells[1].split(": ")[0])
        commands = ["any"] if "any" in patterns else [
            name for name in names if name in patterns or name.split(".")[0] + ".*" in patterns]
        documented |= {f"{code} of {command}": code for code in re.findall(r"`(\w+)`", cells[0]) for command in commands}
    said = [(each["code"], command) for each in json.loads(read(messages)) for command in each.get("commands", ["any"])]
    yield from both_ways("error code", documented, document, [f"{code} of {command}" for code, command in said], messages)
    for twice in sorted({each for each in said if said.count(each) > 1}):
        yield f"{messages} has {twice} twice: take one out"
    for each in json.loads(read(messages)):
        again = each["again"]
        explained = again is False or (type(again) is int and again > 0) or f'"{again}": ' in read("docs/pipe.md")
        if not explained or not each["sentence"]:
            yield f"{messages}: {each} lacks a sentence, or an \"again\" that docs/pipe.md explains"
    # The forms in which a code gets into a reply; of functions that return one as text, those of two folders.
    code, texts = code_below("src"), code_below("src/account", "src/portal")
    present = set(re.findall(r'(?:ErrorReply|Failure)\((?:.* [?:] )?"([a-z_]+)"', code) +
                  re.findall(r'Set\("error", "([a-z_]+)"', code) +
                  re.findall(r'(?:return (?:\{\w+ \? )?|Outcome)\{?"([a-z_]+)"', texts))
    present |= {each for each in documented.values() if f'"{each}"' in code}
    yield from both_ways("error code", documented.values(), document, present, "src")
    yield from both_ways("error code", re.findall(r'^    \{"(\w+)",', read(ctl), re.MULTILINE), ctl, documented.values(), document)


def policies():
    document = "docs/portal-api.md"
    for policy, source in (("power", "src/power/power_policy.cpp"), ("updates", "src/updates/updates_policy.cpp")):
        present = re.findall(r'Member\(\w+, "(\w+)"\)', read(source))
        documented = [name for cells in rows(document, f"**`{policy}`**, all members required:\n\n")
                      for path in re.findall(r"`([\w.]+)`", cells[0]) for name in path.split(".")]
        yield from both_ways(f"member of the policy {policy}", documented, document, present, source)
        for name in sorted(set(present)):
            for place in ("tools/devportal/policy.py", "tools/devportal/page.html", "docs/pipe.md",
                          f"fuzz/seeds/{policy}_policy_fuzz.txt"):
                if not re.search(rf"\b{name}\b", read(place)):
                    yield f"{place} does not know {name}, a member of the policy {policy}: add it there"


def simulation():
    document = "docs/architecture.md"
    table = read(document).split("\n## The simulated Windows\n", 1)[1].split("\n## ", 1)[0]
    for source in sorted(pathlib.Path("sim").glob("*.cpp")):
        if f"`{source.stem}`" not in table:
            yield f"{source} is missing in the table of {document}, \"The simulated Windows\": add it there"


def log_lines():
    literals = re.findall(r'"(?:[^"\\\n]|\\.)*"(?:\s+"(?:[^"\\\n]|\\.)*")*', code_below("src"))
    texts = [FORMAT.sub("\0", re.sub(r'"\s+"|^"|"$', "", literal).replace('\\"', '"')) for literal in literals]
    quoted = [(line, "docs/operations.md") for line in re.findall(r'^\| log: (.*?) \|', read("docs/operations.md"), re.MULTILINE)]
    quoted = [(text, document) for line, document in quoted for text in re.findall(r'"([^"]+)"', line)]
    for cells in rows("docs/pipe.md", "| log line (level WARN) | caused by |"):
        quoted += [(text, "docs/pipe.md") for text in re.findall(r"`([^`]+)`", cells[0])]
    for text, document in quoted:
        for piece in map(str.strip, VARIABLE_PART.split(text)):
            # A reason that is written elsewhere than the line it goes into.
            line, _, reason = piece.partition(": ")
            composed = any(f"{line}: \0" in each for each in texts) and any(each.startswith(reason) for each in texts)
            if len(piece) > 3 and not composed and not any(piece in each for each in texts):
                yield f'{document}: no log line has "{piece}", as in "{text}": quote the line as the code writes it'


def events():
    document, source = "docs/operations.md", "src/log/event_messages.mc"
    entries = re.findall(r"MessageId=(\d+)\nSeverity=(\w+)\n(?:\w+=.*\n)*Language=English\n(.*)\n\.\n", read(source))
    present = {f"{number} ({severity.lower()}: {re.sub('%[0-9]', '...', text)})" for number, severity, text in entries}
    documented = {f"{cells[0]} ({cells[1]}: {cells[2]})" for cells in rows(document, "| number | type | text | what to do |")}
    yield from both_ways("entry of the event log", documented, document, present, source)


def returned(function, code):
    """The digits that a function of the code returns, itself or through one that it calls for that."""
    body = re.search(rf"^int {function}\(.*?\) (?:noexcept )?{{\n(.*?)^}}", code, re.MULTILINE | re.DOTALL)
    results = re.findall(r"return ([^;]*);", body.group(1)) if body else []
    return {digit for result in results for digit in
            (returned(result.split("(")[0], code) if "(" in result else re.findall(r"\b\d\b", result))}


def exit_codes():
    document = "docs/operations.md"
    service = code_below("src/service", "src/power")
    present = set(re.findall(r'task, L"(--[\w-]+)"', read("src/service/main.cpp")))
    documented = {}
    for cells in rows(document, "| exit code | of | means | to be sure |"):
        documented.setdefault(cells[1].strip("`"), set()).update(re.findall(r"\d", cells[0]))
    yield from both_ways("option", [name for name in documented if name.startswith("--")], document, present,
                         "src/service/main.cpp")
    codes = {}
    for option in present & documented.keys():
        codes[option] = returned("".join(word.capitalize() for word in option[2:].split("-")), service)
    enumerators = re.search(r"enum ExitCode : int \{(.*?)\}", code_below("tools/kioskctl"), re.DOTALL).group(1)
    codes["kioskctl"] = set(re.findall(r"= (\d)", enumerators))
    for option, found in sorted(codes.items()):
        if found != documented[option]:
            yield f"{document}: exit codes of {option} are {sorted(documented[option])} there and {sorted(found)} in the code"


def main():
    checks = (state_values, settings, commands, error_codes, policies, log_lines, events, exit_codes, simulation)
    wrong = [each for check in checks + document_references.CHECKS for each in check()]
    print("\n".join(wrong) or "documents: what they name is what the code has")
    return bool(wrong)


if __name__ == "__main__":
    sys.exit(main())
