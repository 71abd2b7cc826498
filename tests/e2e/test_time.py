"""The measurement of the clock's error against a real time daemon (chrony), which leaves this computer's clock alone."""
import os
import pathlib
import socket
import struct
import subprocess
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("NORVANE_BUILD", ROOT / "build/windows"))
CHRONYD = ROOT / "build/tools/chrony/usr/sbin/chronyd"


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(0.2)
        client.connect(("127.0.0.1", port))
        try:
            client.send(struct.pack("B47x", 0x1B))
            return client.recv(100)[1] != 0
        except OSError:
            return False


class TimeDaemon(unittest.TestCase):
    def test_offsets_agree_with_chronyd(self):
        port = free_port()
        with tempfile.TemporaryDirectory() as folder:
            config = pathlib.Path(folder, "chrony.conf")
            config.write_text(f"port {port}\nbindaddress 127.0.0.1\nallow 127.0.0.1\nlocal stratum 8\ncmdport 0\n"
                              f"bindcmdaddress /\npidfile {folder}/pid\nuser {os.environ.get('USER', 'root')}\n")
            # -x: never touches the clock; -d: stays in the foreground.
            daemon = subprocess.Popen([CHRONYD, "-x", "-U", "-d", "-f", config], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True)
            try:
                end = time.monotonic() + 15
                while not answers(port):
                    self.assertLess(time.monotonic(), end, "chronyd does not answer")
                    self.assertIsNone(daemon.poll(), daemon.poll() and daemon.stdout.read())
                    time.sleep(0.1)
                run = subprocess.run(
                    [ROOT / "tools/dev/wine-run", BUILD / "kiosk_tests.exe", "--gtest_also_run_disabled_tests",
                     "--gtest_filter=TimeSyncTest.DISABLED_AgreesWithADaemon"],
                    env=os.environ | {"NORVANE_NTP_PORT": str(port)}, capture_output=True, text=True, timeout=120)
                self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
                self.assertIn("[  PASSED  ] 1 test", run.stdout)
            finally:
                daemon.terminate()
                daemon.communicate(timeout=10)
