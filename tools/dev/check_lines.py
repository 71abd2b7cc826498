#!/usr/bin/env python3
"""Counts the lines of code by area, and holds the share of tests and simulation. The cases of tests/contract, which also
ask a real Windows, and the random life of tests/soak have lines of their own."""
import collections
import pathlib
import subprocess
import sys

AREAS = ("src", "sim", "tests", "tools", "bench", "fuzz", "examples")
APART = ("tests/contract", "tests/soak")
CODE = {".cpp", ".h", ".cc", ".cs", ".py", ".sh", ".js", ".html", ".css", ".rc"}
LIMITS = {"tests": 28, "tests and sim": 40}  # per cent of all


def area_of(name):
    apart = [folder for folder in APART if name.startswith(folder + "/")]
    return apart[0] if apart else name.split("/")[0]


def main():
    lines = collections.Counter()
    for name in subprocess.run(["git", "ls-files", *AREAS], capture_output=True, text=True, check=True).stdout.split("\n"):
        path = pathlib.Path(name)
        # Programs without an ending are scripts of the tools.
        if path.is_file() and (path.suffix in CODE or (not path.suffix and name.startswith("tools/"))):
            lines[area_of(name)] += path.read_bytes().count(b"\n")
    total = sum(lines.values())
    shares = {"tests": lines["tests"], "tests and sim": lines["tests"] + lines["sim"]}
    print("lines of code:", ", ".join(f"{area} {count}" for area, count in lines.items()), f"= {total}")
    failed = 0
    for name, count in shares.items():
        print(f"{name}: {100 * count / total:.1f} %, at most {LIMITS[name]} %")
        failed |= 100 * count > LIMITS[name] * total
    if failed:
        print("check_lines.py: cut tests that others make superfluous, or simulation that no test needs")
    return failed


if __name__ == "__main__":
    sys.exit(main())
