"""A Windows computer for end-to-end tests: a Wine prefix of its own with the real programs in it."""

import contextlib
import hashlib
import json
import os
import pathlib
import re
import shutil
import ssl
import struct
import subprocess
import sys
import tempfile
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "tools" / "devportal"))
import schemas  # noqa: E402

BUILD = pathlib.Path(os.environ.get("NORVANE_BUILD", REPOSITORY / "build" / "windows"))
STATE_KEY = r"HKLM\SOFTWARE\Norvane\Tessaly\Kiosk"
PROGRAM_FOLDER = r"C:\Program Files\Norvane"


def wait_for(condition, what, seconds=30):
    """Polls until the condition holds; for things of another process that announce nothing."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {seconds} s in vain for {what}")
        time.sleep(0.05)


def held(request, reply):
    """The reply, once it and its request are what docs/schemas says of the command."""
    faults = [fault for part, value in (("requests", request), ("replies", reply))
              for fault in schemas.faults(f"pipe-{part}.json#/$defs/{request['cmd']}", value)]
    assert not faults, faults
    return reply


class Terminal:
    """Use as a context manager. The service is not installed yet on entry; whatever runs is ended on exit."""

    def __init__(self, programs=("kioskctl.exe", "kioskctl-dev.exe"), service="NorvaneKiosk.exe", unsigned=True):
        """`programs` come from the build; `service` is the build's program that takes the service's name and place."""
        self._folder = tempfile.TemporaryDirectory(prefix="norvane-terminal-")
        self.prefix = pathlib.Path(self._folder.name) / "prefix"
        self.environment = {k: v for k, v in os.environ.items() if k != "DISPLAY"} | {
            "WINEPREFIX": str(self.prefix), "WINEARCH": "win64", "WINEDEBUG": "-all",
            "WINEDLLOVERRIDES": "mscoree,mshtml,winemenubuilder.exe=;winedbg.exe=d"}
        self._programs, self._service, self._unsigned = programs, service, unsigned

    def __enter__(self):
        subprocess.run([REPOSITORY / "tools/dev/wine-prefix", self.prefix], check=True)
        quiet = {"env": self.environment, "stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                 "stderr": subprocess.DEVNULL}
        # Kept until the end: otherwise the service would end with the last program that talks to it.
        subprocess.run(["wineserver", "-p"], check=True, **quiet)
        # Whatever needs a desktop first starts a program that keeps it, and with it our end of its output: for ever.
        subprocess.run(["wine", "rundll32", "kernel32.dll,GetTickCount"], check=True, **quiet)
        for program in self._programs:
            self.put(BUILD / program)
        if self._service:
            self.put(BUILD / self._service, "NorvaneKiosk.exe")
            for library in BUILD.glob("NorvaneKioskEvents-*.dll"):
                self.put(library)
        if self._unsigned:
            self.set_dword("DevAllowUnsigned", 1)
        return self

    def __exit__(self, *_):
        for flag in ("-k", "-w"):
            subprocess.run(["wineserver", flag], env=self.environment, stderr=subprocess.DEVNULL)
        self._folder.cleanup()

    def path(self, windows):
        """The file of this machine behind an absolute Windows path."""
        return self.prefix / "drive_c" / windows[3:].replace("\\", "/")

    def put(self, file, name=None):
        """Copies a program into the program folder; returns its Windows path."""
        target = PROGRAM_FOLDER + "\\" + (name or pathlib.Path(file).name)
        self.path(target).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(file, self.path(target))
        return target

    def start(self, program, *arguments, **options):
        """A Popen of a program in the program folder."""
        return subprocess.Popen(["wine", PROGRAM_FOLDER + "\\" + program, *arguments], env=self.environment,
                                text=True, encoding="utf-8", **{"stdin": subprocess.DEVNULL,
                                                                "stdout": subprocess.PIPE,
                                                                "stderr": subprocess.PIPE} | options)

    def run(self, program, *arguments, timeout=60):
        """Runs it to its end; returns (exit code, output, errors)."""
        return self._run(PROGRAM_FOLDER + "\\" + program, *arguments, timeout=timeout)

    def _run(self, *command, timeout=60, again=True):
        # Files and not pipes: the end of the program counts, not that of everything that inherited its output.
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            done = subprocess.run(["wine", *command], env=self.environment, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                  timeout=timeout)
            said = [os.pread(file.fileno(), 1 << 24, 0).decode("utf-8", "replace") for file in (out, err)]
        if again and done.returncode != 0 and not any(said):  # Wine loses a process once in some thousand; ours say why
            print(f"{command} ended with {done.returncode} and without a word; started once more", file=sys.stderr)
            return self._run(*command, timeout=timeout, again=False)
        return done.returncode, *said

    def ask(self, **request):
        """Sends one request to the service; returns its reply. Both are held against docs/schemas."""
        code, out, err = self.run("kioskctl-dev.exe", "send", json.dumps(request), timeout=200)
        if code > 1:
            raise AssertionError(f"no reply: {code} {out} {err}")
        return held(request, json.loads(out))

    # -- registry ---------------------------------------------------------------------------------------------------

    def registry(self, *arguments):
        """reg.exe; returns (exit code, output)."""
        return self._run(r"C:\windows\system32\reg.exe", *arguments)[:2]

    def set_string(self, name, text, key=STATE_KEY, type="REG_SZ"):
        code, said = self.registry("add", key, "/v", name, "/t", type, "/d", text, "/f")
        assert code == 0, said

    def set_dword(self, name, number, key=STATE_KEY):
        self.set_string(name, str(number), key, "REG_DWORD")

    def value(self, name, key=STATE_KEY):
        """The value as reg.exe shows it; None when it is not there."""
        code, text = self.registry("query", key, "/v", name)
        found = re.search(rf"^ +{re.escape(name)} +REG_\w+ *(.*?)\r?$", text, re.M)
        return found[1] if code == 0 and found else None

    def computer_name(self):
        return self.value("ComputerName", r"HKLM\SYSTEM\CurrentControlSet\Control\ComputerName\ActiveComputerName")

    def has_value(self, name, key=STATE_KEY):
        return self.registry("query", key, "/v", name)[0] == 0

    def trust(self, ca_file):
        """Adds a certificate authority (PEM) to the computer's trusted roots."""
        certificate = ssl.PEM_cert_to_DER_cert(pathlib.Path(ca_file).read_text())
        thumbprint = hashlib.sha1(certificate).digest()
        blob = struct.pack("<III", 3, 1, 20) + thumbprint + struct.pack("<III", 0x20, 1, len(certificate)) + certificate
        key = r"HKLM\Software\Microsoft\SystemCertificates\Root\Certificates" + "\\" + thumbprint.hex().upper()
        self.set_string("Blob", blob.hex(), key, "REG_BINARY")

    # -- the simulated machine, with NorvaneKioskSim.exe as the service ---------------------------------------------

    def set_client_folder(self, folder):
        self.set_string("ClientInstallDir", folder, r"HKLM\SOFTWARE\Norvane\Tessaly\Update")

    def machine(self, *words):
        """A command of sim_machine.exe; returns its number."""
        code, out, err = self.run("sim_machine.exe", *words)
        assert code == 0, f"sim_machine {' '.join(words)}: {out}{err}"
        return int(out)

    def dump_machine(self):
        """Accounts, groups, secrets, profiles and the settings that kiosk mode touches, as text to compare."""
        code, out, err = self.run("sim_machine.exe", "dump")
        assert code == 0, err
        return out

    # -- the service ------------------------------------------------------------------------------------------------

    def install(self, **portal):
        """Installs and starts the service; with `url=` it talks to that portal."""
        if "url" in portal:
            self.set_string("AuthBaseUrl", portal["url"])
        code, out, _ = self.run("NorvaneKiosk.exe", "--install")
        assert (code, out) == (0, "NorvaneKiosk installed\n"), (code, out)
        self.wait_until_listening()

    def wait_until_listening(self, times=1):
        wait_for(lambda: sum("listening on" in line for line in self.log()) >= times, "the service to listen")

    def net(self, verb):
        """net start / net stop of the service."""
        return self._run("net", verb, "NorvaneKiosk", timeout=120)[0]

    def start_service(self):
        """Also after a crash, which Wine's service manager takes a moment to see."""
        started = sum("listening on" in line for line in self.log())
        wait_for(lambda: self.net("start") == 0 or self.service_process(), "the service to start")
        self.wait_until_listening(started + 1)

    def restart_service(self):
        assert self.net("stop") == 0
        wait_for(lambda: self.service_process() is None, "the service to end")  # it may have said so a moment before
        self.start_service()

    def service_process(self):
        """The Linux process id of the running service, or None."""
        return self.process("NorvaneKiosk")

    def process(self, name):
        """The Linux process id of a program of this computer whose path holds `name`, or None."""
        for entry in pathlib.Path("/proc").iterdir():
            with contextlib.suppress(OSError):
                if entry.name.isdigit() and name.encode() in (entry / "cmdline").read_bytes().split(b"\0")[0]:
                    if f"WINEPREFIX={self.prefix}".encode() in (entry / "environ").read_bytes().split(b"\0"):
                        return int(entry.name)
        return None

    # -- logs -------------------------------------------------------------------------------------------------------

    def log_files(self):
        root = self.path(r"C:\ProgramData\Norvane\Tessaly\Logs")
        return sorted(root.glob("*-*-*/Kiosk_*.log"))

    def log_bytes(self):
        return b"".join(file.read_bytes() for file in self.log_files())

    def log(self):
        """The log lines without their time stamps."""
        return [line.split("] ", 1)[-1] for line in self.log_bytes().decode("utf-8").split("\n") if line]
