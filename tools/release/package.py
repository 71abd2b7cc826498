"""The Windows Installer package: kiosk.wxs and the settings through wixl, then what wixl leaves out, by SQL."""
import hashlib
import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import time
import uuid
import xml.etree.ElementTree as ElementTree

import make_admx

HERE = pathlib.Path(__file__).resolve().parent
FILES = ("NorvaneKiosk.exe", "kioskctl.exe", "THIRD-PARTY-NOTICES.txt")
# The texts of the event log: a program that shows events keeps the file open, so its name changes with its contents, and a
# new one comes beside the old one, which goes when Windows restarts.
EVENT_TEXTS = "NorvaneKioskEvents-*.dll"
NAMESPACE = "http://schemas.microsoft.com/wix/2006/wi"
# By this Windows knows one version as the successor of another: it never changes.
UPGRADE_CODE = uuid.UUID("08e4c1d7-06ff-4106-a0b5-7438b2061e83")

# Windows Installer's own words for a program of the package that fails, in its log and in the event log (number 11722).
STEP_FAILED = (
    "[ProductName]: [2] failed. CheckKioskModeHasEnded: the kiosk account is still in use; restart the computer and remove the"
    " product again, the same command then works. InstallService: the log in C:\\ProgramData\\Norvane\\Tessaly\\Logs says why.")

# Types of actions: run a file of the package (18) later (0x400), as SYSTEM (0x800).
ROLLBACK = 18 + 0x400 + 0x800 + 0x100 + 0x40  # ... when it is rolled back, whatever it returns
# Attributes of components: the value is what marks it (4), 64-bit (0x100), ...
TRANSITIVE, PERMANENT = 0x40, 0x10


def version_of(program):
    """The four numbers of the program's version resource, or None."""
    image = pathlib.Path(program).read_bytes()
    fixed = image.find(struct.pack("<II", 0xFEEF04BD, 0x10000))  # not the number alone: a program may look for it itself
    if fixed < 0:
        return None
    high, low = struct.unpack_from("<II", image, fixed + 8)
    return high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF


def version_text(numbers):
    return "{:04}-{:02}-{:02}-{:04}".format(*numbers)


def package_version(numbers):
    """Windows Installer compares three numbers, below 256, 256 and 65536."""
    year, month, day, count = numbers
    assert 2000 <= year < 2256 and count < 1000, numbers
    return f"{year - 2000}.{month}.{day * 1000 + count}"


def guid(name):
    return str(uuid.uuid5(UPGRADE_CODE, name)).upper()


def file_id(name):
    return name.replace("-", "_")


def settings():
    """{property: (setting, key, type)}: what group policy may set can be given to the package as well."""
    return {name.upper(): (name, rf"SOFTWARE\Norvane\Tessaly\{key}", kind)
            for name, (key, kind) in make_admx.documented().items() if name in make_admx.SETTINGS}


def source(files):
    """kiosk.wxs with a component for each setting and for the texts of the event log."""
    ElementTree.register_namespace("", NAMESPACE)
    tree = ElementTree.parse(HERE / "kiosk.wxs")
    product, = tree.getroot()
    sequence, feature = (product.find(f"{{{NAMESPACE}}}{tag}") for tag in ("InstallExecuteSequence", "Feature"))
    folder = product.find(f".//{{{NAMESPACE}}}Directory[@Id='KioskFolder']")

    def add(parent, tag, text=None, **attributes):
        element = ElementTree.SubElement(parent, f"{{{NAMESPACE}}}{tag}", attributes)
        element.text = text
        return element

    def component(name):
        add(feature, "ComponentRef", Id=name)
        return add(folder, "Component", Id=name, Guid=guid(name), Win64="yes")

    # A repair or an upgrade without properties must leave the settings alone. AppSearch (50) puts what is in the registry
    # into NOW_..., as the Registry table writes it ("#1" is the number 1); the property itself is what is to be written.
    # A number of the command line gets its "#" first.
    number = 51
    for name, (setting, key, kind) in settings().items():
        add(add(product, "Property", Id="NOW_" + name), "RegistrySearch", Id="Find" + setting, Root="HKLM", Type="raw",
            Win64="yes", Key=key, Name=setting)
        actions = [("Keep", f"[NOW_{name}]", f"NOT {name} AND NOW_{name}")]
        if kind == "REG_DWORD":
            actions.insert(0, ("Number", f"#[{name}]", f'{name} AND NOT ({name} << "#")'))
        for action, value, condition in actions:
            add(product, "CustomAction", Id=action + setting, Property=name, Value=value)
            add(sequence, "Custom", condition, Action=action + setting, Sequence=str(number))
            number += 1
        add(component(setting), "RegistryValue", Root="HKLM", Key=key, Name=setting, Type="string", Value=f"[{name}]",
            KeyPath="yes")
    for name in sorted(set(files) - set(FILES)):
        add(component(name), "File", Id=file_id(name), Source=name, KeyPath="yes")
    return ElementTree.tostring(tree.getroot(), encoding="utf-8", xml_declaration=True)


def statements(folder, files):
    """What wixl leaves out of the tables, without a word or with a warning."""
    for name in files:
        # Without its version in the table a newer program never replaces an older one, and an upgrade says nothing of it.
        if numbers := version_of(folder / name):
            yield f"UPDATE `File` SET `Version`='{'.'.join(map(str, numbers))}', `Language`='1033' WHERE `File`='{file_id(name)}'"
            yield f"DELETE FROM `MsiFileHash` WHERE `File_`='{file_id(name)}'"  # for files without a version
    yield f"UPDATE `CustomAction` SET `Type`={ROLLBACK} WHERE `Action`='UndoInstall'"
    for name, (setting, key, _) in settings().items():
        # Only what is given or there is written, which a repair decides anew. The state key's goes with kiosk mode.
        attributes = 0x104 + TRANSITIVE + (PERMANENT if key.endswith("Kiosk") else 0)
        yield f"UPDATE `Component` SET `Condition`='{name}', `Attributes`={attributes} WHERE `Component`='{setting}'"
    secure = ["WIX_DOWNGRADE_DETECTED", "WIX_UPGRADE_DETECTED", "IGNORELEFTOVERS", "SERVICEBEFORE",
              *(prefix + name for name in settings() for prefix in ("", "NOW_"))]
    yield f"UPDATE `Property` SET `Value`='{';'.join(secure)}' WHERE `Property`='SecureCustomProperties'"
    yield f"INSERT INTO `Error` (`Error`, `Message`) VALUES (1722, '{STEP_FAILED}')"


def run(epoch, folder, *command):
    """Runs it at that time. These tools warn about what they drop and succeed all the same: any word is a failure."""
    clock = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(epoch))
    done = subprocess.run(["faketime", "-f", clock, *map(str, command)], cwd=folder, env=os.environ | {"TZ": "UTC"},
                          stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0 or done.stdout or done.stderr:
        raise RuntimeError(f"{command}: exit code {done.returncode}\n{done.stdout}{done.stderr}")


def make(programs, target, epoch):
    """Packs the files that `programs` has to `target`. Equal files and times make equal packages."""
    programs, target = pathlib.Path(programs), pathlib.Path(target).resolve()
    event_texts = [file.name for file in programs.glob(EVENT_TEXTS)]
    if len(event_texts) > 1:
        raise RuntimeError(f"{programs} has {event_texts}: delete those of other builds")
    files = [*FILES, *event_texts]
    numbers = version_of(programs / "NorvaneKiosk.exe")
    text = version_text(numbers)
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)  # wixl takes no absolute names
        for name in files:
            shutil.copy(programs / name, folder)
            os.utime(folder / name, (epoch, epoch))
        (folder / "kiosk.wxs").write_bytes(source(files))
        contents = hashlib.sha256(b"".join((folder / name).read_bytes() for name in [*files, "kiosk.wxs"])).hexdigest()
        variables = {"ProductCode": guid("product " + text), "UpgradeCode": str(UPGRADE_CODE).upper(), "Text": text,
                     "Version": package_version(numbers)}
        run(epoch, folder, "wixl", "-a", "x64", *(word for pair in variables.items() for word in ("-D", "=".join(pair))),
            "-o", "package.msi", "kiosk.wxs")
        for statement in statements(folder, files):
            run(epoch, folder, "msibuild", "package.msi", "-q", statement)
        # wixl draws by lot what Windows tells one package from another by.
        run(epoch, folder, "msibuild", "package.msi", "-s", "Norvane (Tessaly) Kiosk " + text, "Norvane", "x64;1033",
            "{%s}" % guid("package " + contents))
        shutil.copyfile(folder / "package.msi", target)
    return target
