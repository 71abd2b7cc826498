"""What the programs hold that is not ours: a bill of materials (CycloneDX 1.5) and the notices that its licences ask for.

The linker's map says from which archives it took something, and the distribution from which package each archive is."""
import hashlib
import pathlib
import re
import subprocess
import time
import urllib.parse
import uuid

GCC = "GPL-3.0-or-later WITH GCC-exception-3.1"
# Package of the distribution: what it is, under which licence. Another package in a program is a failure: somebody has to
# read its licence first.
KNOWN = {
    "g++-mingw-w64-x86-64-posix": ("the C++ library of GCC", GCC),
    "gcc-mingw-w64-x86-64-posix": ("the run-time libraries of GCC", GCC),
    "mingw-w64-x86-64-dev": ("the C library of mingw-w64, with its threads", "ZPL-2.1 AND MIT AND BSD-3-Clause"),
}


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def archives(link_map):
    """The files outside of the build from which the linker took something."""
    text = pathlib.Path(link_map).read_text(errors="replace")
    taken = re.findall(r"^(/\S+\.a)\(", text.split("\nDiscarded input sections")[0], re.MULTILINE)
    return {pathlib.Path(name).resolve() for name in taken + re.findall(r"^LOAD (/\S+\.o)$", text, re.MULTILINE)}


def packages(files):
    """{package: its files of these}."""
    found = {}
    for line in output("dpkg", "-S", *map(str, sorted(files))).splitlines():
        package, file = line.split(": ")
        found.setdefault(package.split(":")[0], []).append(pathlib.Path(file).name)
    if unknown := found.keys() - KNOWN.keys():
        raise RuntimeError(f"bill.py does not know the licence of {sorted(unknown)}, of which the programs have a part")
    return found


def component(package, files):
    version, architecture = output("dpkg-query", "-W", "-f", "${Version} ${Architecture}", package).split()
    what, licence = KNOWN[package]
    return {"type": "library", "bom-ref": package, "name": package, "version": version, "description": what,
            "licenses": [{"expression": licence}],
            "purl": f"pkg:deb/debian/{urllib.parse.quote(package)}@{urllib.parse.quote(version)}?arch={architecture}",
            "properties": [{"name": "norvane:file", "value": file} for file in sorted(set(files))]}


def make(version, epoch, programs):
    """The bill of `programs`, {program: its linker's map}."""
    libraries, own, depends = {}, [], []
    for program, link_map in programs.items():
        parts = packages(archives(link_map))
        for package, files in parts.items():
            libraries.setdefault(package, set()).update(files)
        own.append({"type": "application", "bom-ref": program.name, "name": program.name, "version": version,
                    "hashes": [{"alg": "SHA-256", "content": hashlib.sha256(program.read_bytes()).hexdigest()}]})
        depends.append({"ref": program.name, "dependsOn": sorted(parts)})
    compiler = {"type": "application", "name": "x86_64-w64-mingw32-g++-posix",
                "version": output("x86_64-w64-mingw32-g++-posix", "-dumpfullversion").strip()}
    contents = "".join(each["hashes"][0]["content"] for each in own)
    return {"bomFormat": "CycloneDX", "specVersion": "1.5", "version": 1,
            "serialNumber": "urn:uuid:" + str(uuid.uuid5(uuid.NAMESPACE_URL, contents)),
            "metadata": {"timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(epoch)),
                         "tools": {"components": [compiler]}, "supplier": {"name": "Norvane"},
                         "component": {"type": "application", "bom-ref": "release", "name": "Norvane (Tessaly) Kiosk",
                                       "version": version}},
            "components": own + [component(*each) for each in sorted(libraries.items())],
            "dependencies": [{"ref": "release", "dependsOn": [program.name for program in programs]}, *depends]}


def notices(link_maps):
    """The licences of what the programs hold, as the distribution has them."""
    text = "Norvane (Tessaly) Kiosk holds parts of these libraries. Their licences follow.\n\n"
    papers = {}
    for package in sorted(packages(set().union(*map(archives, link_maps)))):
        what, licence = KNOWN[package]
        text += f"  {package}: {what} ({licence})\n"
        papers.setdefault(pathlib.Path(f"/usr/share/doc/{package}/copyright").read_text(), []).append(package)
    return text + "".join(f"\n\n{'=' * 78}\n{', '.join(names)}\n{'=' * 78}\n\n{paper}" for paper, names in papers.items())
