"""The example of a kiosk shell in C#, under Mono: the first hour that test_shell.py plays with the one in C++."""

import contextlib
import json
import os
import pathlib
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import test_shell  # noqa: E402
from terminal import REPOSITORY  # noqa: E402

EXAMPLE = REPOSITORY / "examples/shell-csharp"
SOCKET = REPOSITORY / "tests/e2e/all/PipeOverSocket.cs"


class Relay(socketserver.StreamRequestHandler):
    """The pipe of a terminal for one connection. What is asked and answered is held against docs/schemas."""

    def handle(self):
        reply = self.server.terminal.ask(**json.loads(self.rfile.readline()))
        self.wfile.write(json.dumps(reply).encode() + b"\n")


class CSharpShell(test_shell.Shell):
    PROGRAMS = test_shell.PROGRAMS  # without the example in C++

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="norvane-csharp-")))
        shutil.copy(REPOSITORY / "docs/messages.json", cls.folder)
        as_written = sorted(EXAMPLE.glob("*.cs"))
        cls.compile("as_written.exe", as_written)
        cls.compile("shell_example.exe", [SOCKET, *(file for file in as_written if file.name != "Pipe.cs")])

    @classmethod
    def compile(cls, program, sources):
        libraries = [f"-r:System.{name}.dll" for name in ("Core", "Runtime.Serialization", "Xml", "Xml.Linq")]
        subprocess.run(["mcs", "-warnaserror", "-langversion:7.2", f"-out:{cls.folder / program}", *libraries, *sources], check=True)

    @contextlib.contextmanager
    def shell(self, terminal):
        with socketserver.ThreadingTCPServer(("127.0.0.1", 0), Relay) as server:
            server.terminal = terminal
            threading.Thread(target=server.serve_forever, daemon=True).start()
            environment = os.environ | {"PIPE_PORT": str(server.server_address[1]), "LC_ALL": "C.UTF-8"}
            with subprocess.Popen(["mono", self.folder / "shell_example.exe"], env=environment, text=True, encoding="utf-8",
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE) as shell:
                yield shell
            server.shutdown()
