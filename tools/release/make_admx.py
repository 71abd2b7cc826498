#!/usr/bin/env python3
"""Writes the group policy template of the settings: make_admx.py FOLDER.

The names and types of the settings come from docs/registry.md; what an administrator reads in the policy editor stands
here. A setting that one of them lacks, or that they type differently, is an error."""
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
NAMESPACE = "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"
POLICIES = r"SOFTWARE\Policies\Norvane\Tessaly"
KINDS = {"text": "REG_SZ", "switch": "REG_DWORD", "megabytes": "REG_DWORD"}

# Setting: kind, title, what the editor explains. Of megabytes the default comes last.
SETTINGS = {
    "AuthBaseUrl": ("text", "Address of the portal",
                    "The base URL of the portal, http or https. Set it before a terminal is paired. Not configured: the"
                    " address that is set on the terminal, or the one that was built into the program."),
    "LocalLogging": ("switch", "Local log files",
                     "Disabled: no log files on the terminal. Takes effect when the service starts."),
    "LogCapMB": ("megabytes", "Size of the local log files",
                 "The oldest files are deleted until all together are at most so large. Takes effect within an hour.", 5120),
    "TenantId": ("text", "Tenant in the log",
                 "A name for the owner of the terminals, in every log. Takes effect when the service starts."),
    "Site": ("text", "Site in the log",
             "Where the terminals stand, in every log. Takes effect when the service starts."),
    "LogEndpoint": ("text", "Central log",
                    "The https URL to which every log line is posted. Takes effect when the service starts."),
    "ClientCertThumbprint": ("text", "Certificate for the central log",
                             "The SHA-1 thumbprint of a certificate in the computer's personal store, with its key, that"
                             " the terminal shows to the central log. Takes effect when the service starts."),
    "ClientCertRequired": ("switch", "Central log only with the certificate",
                           "Enabled: nothing is sent without that certificate; lines wait on the terminal's disk."),
    "LogConfigUrl": ("text", "Remote configuration of the central log",
                     "The https URL from which the terminal fetches it, at start and about every 15 minutes."),
    "SpoolCapMB": ("megabytes", "Size of lines that wait to be sent",
                   "The oldest lines are dropped until all together are at most so large. Takes effect when the service"
                   " starts.", 64),
}


def documented():
    """{setting: (key, type)} of docs/registry.md, as far as policies may set them."""
    text = (REPOSITORY / "docs" / "registry.md").read_text()
    section = text.split(r"## `SOFTWARE\Norvane\Tessaly\Log`", 1)[1].split("\n## ", 1)[0]
    found = {name: ("Log", kind) for name, kind in re.findall(r"^\| `(\w+)` \| (REG_\w+) \|", section, re.MULTILINE)}
    return found | {"AuthBaseUrl": ("Kiosk", re.search(r"^\| `AuthBaseUrl` \| (REG_\w+) \|", text, re.MULTILINE)[1])}


def disagreements(known):
    for name in sorted(known.keys() ^ SETTINGS.keys()):
        yield f"{name} is in docs/registry.md or in tools/release/make_admx.py alone"
    for name in sorted(known.keys() & SETTINGS.keys()):
        if KINDS[SETTINGS[name][0]] != known[name][1]:
            yield f"{name} is {known[name][1]} in docs/registry.md and {KINDS[SETTINGS[name][0]]} in tools/release/make_admx.py"


def add(parent, tag, text=None, **attributes):
    element = ElementTree.SubElement(parent, tag, attributes)
    element.text = text
    return element


def root(tag):
    return ElementTree.Element(tag, {"xmlns": NAMESPACE, "revision": "1.0", "schemaVersion": "1.0"})


def templates(known):
    """The definitions, and their texts in English."""
    admx, adml = root("policyDefinitions"), root("policyDefinitionResources")
    add(add(admx, "policyNamespaces"), "target", prefix="norvanekiosk", namespace="Norvane.Policies.TessalyKiosk")
    add(admx, "resources", minRequiredRevision="1.0")
    supported = add(add(admx, "supportedOn"), "definitions")
    add(supported, "definition", name="Windows10", displayName="$(string.Windows10)")
    categories = add(admx, "categories")
    add(categories, "category", name="Norvane", displayName="$(string.Norvane)")
    kiosk = add(categories, "category", name="Kiosk", displayName="$(string.Kiosk)")
    add(kiosk, "parentCategory", ref="Norvane")
    policies = add(admx, "policies")

    add(adml, "displayName", "Norvane (Tessaly) Kiosk")
    add(adml, "description", "Settings of kiosk terminals")
    resources = add(adml, "resources")
    strings, presentations = add(resources, "stringTable"), add(resources, "presentationTable")
    for name, text in (("Norvane", "Norvane"), ("Kiosk", "Tessaly Kiosk"), ("Windows10", "64-bit Windows 10 or later")):
        add(strings, "string", text, id=name)

    for name, (kind, title, explanation, *default) in SETTINGS.items():
        add(strings, "string", title, id=name)
        add(strings, "string", explanation, id=name + "_Explain")
        policy = add(policies, "policy", name=name, displayName=f"$(string.{name})", explainText=f"$(string.{name}_Explain)",
                     key=POLICIES + "\\" + known[name][0], **{"class": "Machine"})
        add(policy, "parentCategory", ref="Kiosk")
        add(policy, "supportedOn", ref="Windows10")
        if kind == "switch":
            policy.set("valueName", name)
            add(add(policy, "enabledValue"), "decimal", value="1")
            add(add(policy, "disabledValue"), "decimal", value="0")
            continue
        policy.set("presentation", f"$(presentation.{name})")
        presentation = add(presentations, "presentation", id=name)
        if kind == "text":
            add(add(policy, "elements"), "text", id=name, valueName=name, required="true", maxLength="1023")
            add(add(presentation, "textBox", refId=name), "label", title + ":")
        else:
            add(add(policy, "elements"), "decimal", id=name, valueName=name, required="true", minValue="1", maxValue="1048576")
            add(presentation, "decimalTextBox", "Megabytes:", refId=name, defaultValue=str(default[0]))
    return admx, adml


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_admx.py FOLDER")
    known = documented()
    known.pop("RemoteConfig", None)  # the service's own to write
    if wrong := list(disagreements(known)):
        sys.exit("\n".join(wrong))
    folder = pathlib.Path(sys.argv[1])
    (folder / "en-US").mkdir(parents=True, exist_ok=True)
    for tree, path in zip(templates(known), (folder / "NorvaneKiosk.admx", folder / "en-US" / "NorvaneKiosk.adml")):
        ElementTree.indent(tree)
        path.write_bytes(ElementTree.tostring(tree, encoding="utf-8", xml_declaration=True) + b"\n")


if __name__ == "__main__":
    main()
