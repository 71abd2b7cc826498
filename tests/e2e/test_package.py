"""A release: its files, the package's tables, the life of a computer with the package, and a dump of its program."""

import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import zipfile

TOOLS = pathlib.Path(__file__).resolve().parents[2] / "tools"
sys.path[:0] = [str(TOOLS / folder) for folder in ("release", "devportal", "dev")]
import life  # noqa: E402
import package  # noqa: E402
from devportal import Portal  # noqa: E402
from life.beginning import restart_without_waiting  # noqa: E402
from life.stage import LOG_KEY, PROGRAMS, SERVICE, SIMULATED  # noqa: E402
from signing import Authority  # noqa: E402
from terminal import BUILD, REPOSITORY, STATE_KEY, Terminal, wait_for  # noqa: E402

FOLDER = r"C:\Program Files\Norvane\Tessaly\Kiosk"
# Wine keeps 8 bits of exit codes, and has 1627 where Windows has 1603 for a program that fails as well.
REFUSED, ACTION_FAILED = 1603 & 0xFF, 1627 & 0xFF
# Types of actions of a package.
SETS_A_PROPERTY, LATER_AS_SYSTEM, ROLLBACK_AS_SYSTEM = "2099", "3090", "3410"
SETTINGS = {"TenantId": ("TENANTID", "A tenant", "A tenant"), "Site": ("SITE", "Hall 3", "Hall 3"),
            "LogCapMB": ("LOGCAPMB", "9", "0x9"), "ClientCertRequired": ("CLIENTCERTREQUIRED", "0", "0x0")}


TEXTS, = (library.name for library in BUILD.glob(package.EVENT_TEXTS))
EARLIER_TEXTS = "NorvaneKioskEvents-00000001.dll"
EVENT_SOURCE = r"HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\NorvaneKiosk"


def make_package(folder, name, count=1, texts=TEXTS):
    """The package with the service over the simulated Windows, as the version of that day with this number, whose library
    with the texts of the event log has this name."""
    programs = folder / name
    programs.mkdir()
    image = bytearray((BUILD / SERVICE).read_bytes())
    for at in [match.start() for match in re.finditer(re.escape(struct.pack("<I", 0xFEEF04BD)), image)]:
        for version in (at + 8, at + 16):  # of the file, of the product
            struct.pack_into("<H", image, version + 4, count)
    (programs / "NorvaneKiosk.exe").write_bytes(image.replace(TEXTS.encode("utf-16-le"), texts.encode("utf-16-le")))
    shutil.copy(BUILD / "kioskctl.exe", programs)
    shutil.copy(BUILD / TEXTS, programs / texts)
    (programs / "THIRD-PARTY-NOTICES.txt").write_text("notices\n")
    return package.make(programs, folder / (name + ".msi"), 1_700_000_000)


def change(msi, *statements):
    for statement in statements:
        subprocess.run(["msibuild", msi, "-q", statement], check=True)
    return msi


def rows(msi, table):
    text = subprocess.run(["msiinfo", "export", msi, table], check=True, capture_output=True).stdout.decode("cp1252")
    return [line.split("\t") for line in text.split("\r\n")[3:] if line]


def by_key(msi, table):
    """The other columns of each row by its first."""
    return {row[0]: row[1:] for row in rows(msi, table)}


class Files(unittest.TestCase):
    """What tools/release/make leaves, from the programs of the build under test."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="norvane-release-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.authority = Authority(cls.folder / "authority", "Release Test Authority")
        leaf, key = cls.authority.issue("ours", "publisher", "/O=Norvane/CN=Norvane")
        chain = cls.folder / "chain.pem"
        chain.write_text(leaf.read_text() + cls.authority.certificate.read_text())
        cls.out = cls.folder / "dist"
        code, said = cls.make(REPOSITORY / "tools/release/sign", NORVANE_SIGN_CERTS=str(chain), NORVANE_SIGN_KEY=str(key))
        assert code == 0, said
        cls.version = package.version_text(package.version_of(BUILD / "NorvaneKiosk.exe"))
        cls.msi = cls.out / f"NorvaneKiosk-{cls.version}-x64.msi"

    @classmethod
    def make(cls, signer, **environment):
        done = subprocess.run([REPOSITORY / "tools/release/make", "--programs", BUILD, "--out", cls.out], text=True,
                              capture_output=True, env=os.environ | {"NORVANE_SIGN": str(signer)} | environment)
        return done.returncode, done.stderr

    def test_all_of_it_with_sums(self):
        name = f"NorvaneKiosk-{self.version}"
        zipped = {"programs/NorvaneKiosk.exe", "programs/kioskctl.exe", "programs/THIRD-PARTY-NOTICES.txt",
                  "policies/NorvaneKiosk.admx", "policies/en-US/NorvaneKiosk.adml",
                  f"programs/{TEXTS}"}
        self.assertEqual({str(file.relative_to(self.out)) for file in self.out.rglob("*") if file.is_file()}, zipped | {
            "SHA256SUMS", f"{name}-x64.msi", f"{name}-x64.zip", f"{name}.cdx.json", "symbols/NorvaneKiosk.exe.debug",
            "symbols/kioskctl.exe.debug"})
        subprocess.run(["sha256sum", "--check", "--strict", "--quiet", "SHA256SUMS"], cwd=self.out, check=True)
        with zipfile.ZipFile(self.out / f"{name}-x64.zip") as archive:
            self.assertEqual(set(archive.namelist()), zipped)
            for entry in zipped:
                self.assertEqual(archive.read(entry), (self.out / entry).read_bytes(), entry)
        self.assertLess((self.out / "programs/NorvaneKiosk.exe").stat().st_size, 1_200_000)

    def test_signed_by_the_hook_and_nothing_without_it(self):
        for file in (self.msi, *(self.out / "programs").glob("*.exe")):
            subprocess.run(["osslsigncode", "verify", "-CAfile", self.authority.certificate, "-in", file], check=True,
                           capture_output=True)
        before = (self.out / "SHA256SUMS").read_bytes()
        for signer, complaint in (("/bin/false", "did not sign"), ("/bin/true", "has no signature")):
            code, said = self.make(signer)
            self.assertEqual(code, 1)
            self.assertIn(complaint, said)
        self.assertEqual((self.out / "SHA256SUMS").read_bytes(), before)

    def test_the_bill_says_what_is_in_which_program(self):
        bill = json.loads((self.out / f"NorvaneKiosk-{self.version}.cdx.json").read_text())
        parts = {part["bom-ref"]: part for part in bill["components"]}
        self.assertEqual(len(parts), len(bill["components"]))
        depends = {each["ref"]: each["dependsOn"] for each in bill["dependencies"]}
        self.assertEqual(depends["release"], ["NorvaneKiosk.exe", "kioskctl.exe"])
        for program in depends["release"]:
            self.assertLessEqual({"g++-mingw-w64-x86-64-posix", "mingw-w64-x86-64-dev"}, set(depends[program]))
            self.assertLessEqual(set(depends[program]), parts.keys())
            self.assertIn(parts[program]["hashes"][0]["content"] + f"  programs/{program}\n",
                          (self.out / "SHA256SUMS").read_text())
        notices = (self.out / "programs/THIRD-PARTY-NOTICES.txt").read_text()
        for words in ("License: ZPL-2.1\n", "GCC RUNTIME LIBRARY EXCEPTION", "Files: mingw-w64-libraries/winpthreads/"):
            self.assertTrue(words in notices, words)

    def test_versions_in_the_tables(self):
        year, month, day, count = map(int, self.version.split("-"))
        properties = by_key(self.msi, "Property")
        compared = f"{year - 2000}.{month}.{day * 1000 + count}"
        self.assertEqual(properties["ProductVersion"], [compared])
        self.assertEqual(properties["UpgradeCode"], ["{08E4C1D7-06FF-4106-A0B5-7438B2061E83}"], "both versions would stay")
        self.assertEqual([row[1:3] + row[4:5] + row[6:] for row in rows(self.msi, "Upgrade")],
                         [["", compared, "1", "WIX_UPGRADE_DETECTED"], [compared, "", "2", "WIX_DOWNGRADE_DETECTED"]])
        files = by_key(self.msi, "File")
        for name in ("NorvaneKiosk.exe", "kioskctl.exe"):
            self.assertEqual(files[name][3:5], [f"{year}.{month}.{day}.{count}", "1033"])
        self.assertEqual(set(by_key(self.msi, "MsiFileHash")), {name for name, row in files.items() if not row[3]})

    def test_actions_in_the_tables(self):
        actions = by_key(self.msi, "CustomAction")
        self.assertEqual({name: row[:3] for name, row in actions.items() if row[0] != SETS_A_PROPERTY}, {
            "UndoInstall": [ROLLBACK_AS_SYSTEM, "NorvaneKiosk.exe", "--uninstall"],
            "InstallService": [LATER_AS_SYSTEM, "NorvaneKiosk.exe", "--install"],
            "EndKioskMode": [LATER_AS_SYSTEM, "NorvaneKiosk.exe", "--uninstall"],
            "CheckKioskModeHasEnded": [LATER_AS_SYSTEM, "kioskctl.exe", "removed"]})
        sequence = by_key(self.msi, "InstallExecuteSequence")
        order = sorted(sequence, key=lambda name: int(sequence[name][1]))
        early = sorted((name for name in actions if name.startswith(("Number", "Keep"))), key=order.index)
        self.assertEqual(len({row[1] for row in sequence.values()}), len(sequence), "two actions with one number")
        wanted = ["FindRelatedProducts", "AppSearch", *early, "LaunchConditions", "CostFinalize", "InstallInitialize",
                  "RemoveExistingProducts", "EndKioskMode", "CheckKioskModeHasEnded", "ProcessComponents", "StopServices",
                  "RemoveFiles", "InstallFiles", "WriteRegistryValues", "UndoInstall", "InstallService", "StartServices", "InstallFinalize"]
        self.assertEqual([name for name in order if name in wanted], wanted)
        removal = 'REMOVE="ALL" AND NOT UPGRADINGPRODUCTCODE'
        self.assertEqual({name: sequence[name][0] for name in wanted if name in actions and name not in early}, {
            "EndKioskMode": removal, "CheckKioskModeHasEnded": removal + " AND NOT IGNORELEFTOVERS",
            "UndoInstall": "NOT Installed AND NOT SERVICEBEFORE", "InstallService": 'NOT REMOVE="ALL"'})
        self.assertLess(early.index("NumberLogCapMB"), early.index("KeepLogCapMB"))
        self.assertIn("IGNORELEFTOVERS", by_key(self.msi, "Property")["SecureCustomProperties"][0])
        self.assertIn("restart the computer", by_key(self.msi, "Error")["1722"][0])
        # Started when installed, stopped for both, and waited for.
        self.assertEqual(by_key(self.msi, "ServiceControl")["RunService"][:4], ["NorvaneKiosk", "35", "", "1"])

    def test_settings_in_the_tables(self):
        components, registry = by_key(self.msi, "Component"), by_key(self.msi, "Registry")
        found = {row[2]: row for row in registry.values()}
        self.assertEqual(found.keys(), {setting for setting, _, _ in package.settings().values()})
        secure = by_key(self.msi, "Property")["SecureCustomProperties"][0].split(";")
        for name, (setting, key, _) in package.settings().items():
            self.assertEqual(found[setting][:5], ["2", key, setting, f"[{name}]", setting])
            self.assertEqual(components[setting][2:4], ["340" if setting == "AuthBaseUrl" else "324", name])
            self.assertLessEqual({name, "NOW_" + name}, set(secure))


class Packaged(Terminal):
    """A computer on which the package is the way to the service."""

    def __init__(self, folder):
        super().__init__(programs=PROGRAMS, service=None)
        self._packages = folder

    def msiexec(self, verb, package, *properties):
        """Silently, as device management does; returns the exit code."""
        target = package if package.startswith("{") else f"C:\\{package}.msi"
        if target != package:
            shutil.copy(self._packages / f"{package}.msi", self.path(target))
        return subprocess.run(["wine", "msiexec", verb, target, "/qn", *properties], env=self.environment, timeout=120,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def install(self, **portal):
        """As the first step of a terminal's life."""
        assert self.msiexec("/i", "first", f"AUTHBASEURL={portal['url']}") == 0
        self.wait_until_listening()

    def version(self):
        """Of the installed program; None: there is none."""
        program = self.path(FOLDER + r"\NorvaneKiosk.exe")
        return package.version_of(program)[3] if program.exists() else None

    def installed(self):
        return sorted(file.name for file in self.path(FOLDER).glob("*"))

    def settings(self):
        return {name: self.value(name, LOG_KEY) for name in SETTINGS}


class Life(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="norvane-package-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        first, second = make_package(cls.folder, "first", 1, EARLIER_TEXTS), make_package(cls.folder, "second", 2)
        cls.codes = [by_key(msi, "Property")["ProductCode"][0] for msi in (first, second)]
        late = shutil.copy(first, cls.folder / "late.msi")
        change(late, "INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES ('Late',3090,'kioskctl.exe','?')",
               "INSERT INTO `InstallExecuteSequence` (`Action`,`Sequence`) VALUES ('Late',6590)",
               # Wine takes the files back before everything else, Windows after UndoInstall, which needs the program.
               "UPDATE `Component` SET `Attributes`=272, `ComponentId`='{00000000-0000-0000-0000-000000000001}'"
               " WHERE `Component`='Service'")

    def test_settings_survive_everything_but_the_removal(self):
        with Packaged(self.folder) as terminal:
            before = terminal.dump_machine()
            self.assertEqual(terminal.msiexec("/i", "late", "AUTHBASEURL=http://127.0.0.1:9"), ACTION_FAILED)
            self.check_nothing_is_left(terminal, before, ["NorvaneKiosk.exe"])

            given = [f"{name}={text}" for name, text, _ in SETTINGS.values()]
            expected = {setting: shown for setting, (_, _, shown) in SETTINGS.items()}
            self.assertEqual(terminal.msiexec("/i", "first", "AUTHBASEURL=http://127.0.0.1:9", *given), 0)
            self.assertEqual((terminal.version(), terminal.settings()), (1, expected))
            self.assertIsNotNone(terminal.service_process())
            self.check_texts(terminal, EARLIER_TEXTS, [EARLIER_TEXTS])

            # Wine does not tell a version that it is replaced by another, so the first ends kiosk mode here, which this
            # computer is not in; the settings come from the installation that is under way.
            with terminal.start("sim_machine.exe", "hold", FOLDER + "\\" + EARLIER_TEXTS, stdin=-1) as viewer:
                self.assertEqual(viewer.stdout.readline().strip(), "0")
                self.assertEqual(terminal.msiexec("/i", "second"), 0)
                viewer.stdin.close()
            self.assertEqual(terminal.version(), 2)
            self.check_settings(terminal, expected)
            self.check_texts(terminal, TEXTS, [EARLIER_TEXTS, TEXTS])

            # Windows takes what was open away when it restarts, the program when it is installed again.
            terminal.path(FOLDER + r"\kioskctl.exe").unlink()
            self.assertEqual(terminal.msiexec("/i", self.codes[1], "REINSTALL=ALL", "REINSTALLMODE=omus"), 0)
            self.assertTrue(terminal.path(FOLDER + r"\kioskctl.exe").exists())
            self.check_settings(terminal, expected)
            self.check_texts(terminal, TEXTS, [TEXTS])
            self.assertEqual(terminal.msiexec("/i", "first"), REFUSED)
            self.assertEqual(terminal.version(), 2)
            self.assertIsNotNone(terminal.service_process())

            self.assertEqual(terminal.msiexec("/x", self.codes[1]), 0)
            self.check_nothing_is_left(terminal, before)

    def check_settings(self, terminal, expected):
        self.assertEqual(terminal.settings(), expected)
        self.assertEqual(terminal.value("AuthBaseUrl"), "http://127.0.0.1:9")

    def check_texts(self, terminal, named, there):
        """Of the event log: the library that its source names, and those that are there."""
        self.assertEqual(terminal.value("EventMessageFile", EVENT_SOURCE), FOLDER + "\\" + named)
        self.assertEqual([name for name in terminal.installed() if name.endswith(".dll")], there)

    def check_nothing_is_left(self, terminal, before, files=()):
        self.assertEqual(terminal.dump_machine(), before)
        self.assertEqual(terminal.settings(), dict.fromkeys(SETTINGS))
        self.assertEqual(terminal.installed(), list(files))
        self.assertNotEqual(terminal.registry("query", STATE_KEY)[0], 0)
        self.assertNotEqual(terminal.registry("query", r"HKLM\SYSTEM\CurrentControlSet\Services\NorvaneKiosk")[0], 0)

    def test_a_kiosk_through_upgrade_and_removal(self):
        with (tempfile.TemporaryDirectory() as folder, Portal(https_too=folder) as portal,
              Packaged(self.folder) as terminal):
            stage = life.Stage(portal, terminal, patient=False)
            life.play(stage, [*life.PAIRED, restart_without_waiting])

            computer, state = terminal.dump_machine(), terminal.registry("query", STATE_KEY)[1]
            self.assertEqual(terminal.msiexec("/x", self.codes[0], "UPGRADINGPRODUCTCODE=" + self.codes[1]), 0)
            self.assertEqual(terminal.msiexec("/i", "second"), 0)
            self.assertEqual(terminal.version(), 2)
            self.assertEqual(terminal.dump_machine(), computer)
            self.assertEqual(terminal.registry("query", STATE_KEY)[1], state)
            self.assertTrue(stage.ask()["enrolled"])

            terminal.set_dword("ProfilesBusy", 0xFFFFFFFF, SIMULATED)
            self.assertEqual(terminal.msiexec("/x", "second"), ACTION_FAILED)
            self.assertIsNone(terminal.service_process())
            self.assertIsNotNone(terminal.value("AccountSid"))
            self.assertEqual(terminal.version(), 2)
            terminal.set_dword("ProfilesBusy", 0, SIMULATED)
            terminal.machine("restart")
            # Wine forgets the product as it takes the failed removal back, so here it is installed once more.
            self.assertEqual(terminal.msiexec("/i", "second"), 0)
            self.assertEqual(terminal.msiexec("/x", "second"), 0)
            self.assertEqual(terminal.installed(), [])
            self.assertIsNone(stage.state_values())
            stage.check_computer_is_as_before()
            stage.check_nobody_misused_windows()


class Dump(unittest.TestCase):
    """Of the program that ships, crashed in a function of its own from outside."""

    FUNCTION = "kiosk::json::Value::Wipe()"

    def test_becomes_functions_and_lines(self):
        with Terminal(programs=("kioskctl.exe", "sim_machine.exe")) as terminal:
            terminal.install()
            process = re.search(r"runs as process (\d+)", terminal.run("kioskctl.exe", "check")[1])[1]
            self.assertEqual(terminal.machine("crash", process, self.place()), 0)
            logs = terminal.path(r"C:\ProgramData\Norvane\Tessaly\Logs")
            dump = wait_for(lambda: next(logs.glob("*.dmp"), None), "the dump")
            code, said = self.stack(dump, BUILD)
            self.assertEqual(code, 0, said)
            faulting = said.split("\n* thread #")[1]
            self.assertRegex(faulting, r"stop reason = Exception 0xc0000005")
            self.assertRegex(faulting, r"frame #\d+: .*`kiosk::json::Value::Wipe\(this=.*\) at value\.cpp:\d+")
            self.check_another_build(dump, terminal.prefix / "other")

    def place(self):
        """Where the function begins, from the program's beginning."""
        symbols = subprocess.run(["x86_64-w64-mingw32-nm", "-C", BUILD / "NorvaneKiosk.exe.debug"], check=True, text=True,
                                 capture_output=True).stdout
        address, = (line.split()[0] for line in symbols.splitlines() if line.endswith(" T " + self.FUNCTION))
        image = (BUILD / "NorvaneKiosk.exe").read_bytes()
        return f"{int(address, 16) - struct.unpack_from('<Q', image, struct.unpack_from('<I', image, 0x3C)[0] + 48)[0]:x}"

    def stack(self, dump, folder):
        done = subprocess.run([REPOSITORY / "tools/release/stack", dump, folder], capture_output=True, text=True)
        return done.returncode, done.stdout + done.stderr

    def check_another_build(self, dump, folder):
        """It is one that was linked at another time."""
        folder.mkdir()
        for name in ("NorvaneKiosk.exe", "NorvaneKiosk.exe.debug"):
            shutil.copy(BUILD / name, folder)
        program = folder / "NorvaneKiosk.exe"
        image = bytearray(program.read_bytes())
        image[struct.unpack_from("<I", image, 0x3C)[0] + 8] ^= 1
        program.write_bytes(image)
        code, said = self.stack(dump, folder)
        self.assertEqual(code, 1)
        self.assertIn("is not of", said)
