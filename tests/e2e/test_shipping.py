"""Log lines on their way to the central endpoint: a real web server that demands client certificates, before the portal."""

import contextlib
import hashlib
import json
import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools" / "devportal"))
from devportal import Portal  # noqa: E402
from signing import Authority  # noqa: E402
from terminal import REPOSITORY, Terminal, wait_for  # noqa: E402

LOG_KEY = r"HKLM\SOFTWARE\Norvane\Tessaly\Log"
DROP = r"C:\ProgramData\Norvane\Tessaly\Logs\Drop"

# Around the configuration that docs/log-pipelines.md shows.
NGINX = """\
daemon off; master_process off; pid {folder}/pid; error_log {folder}/error.log;
events {{}}
http {{
  access_log {folder}/access.log;
  client_body_temp_path {folder}/t1; proxy_temp_path {folder}/t2; fastcgi_temp_path {folder}/t3;
  uwsgi_temp_path {folder}/t4; scgi_temp_path {folder}/t5;
  {documented}
}}
"""


def documented(replacements):
    """The configuration in the document, with what is this test's own."""
    text = (REPOSITORY / "docs/log-pipelines.md").read_text("utf-8")
    text = text.split("# /etc/nginx/conf.d/kiosk-logs.conf\n", 1)[1].split("```")[0]
    for theirs, ours in replacements.items():
        assert text.count(theirs) == 1, theirs
        text = text.replace(theirs, str(ours))
    return text


def thumbprint(certificate):
    return hashlib.sha1(ssl.PEM_cert_to_DER_cert(certificate.read_text())).hexdigest()


class Shipping(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.portal = self.enterContext(Portal())
        self.authority = Authority(self.folder / "ours", "Ours")
        self.terminal = self.enterContext(Terminal(programs=("kioskctl-dev.exe", "sim_machine.exe")))
        self.url = self.serve()
        self.terminal.set_string("LogEndpoint", self.url + "/gelf", LOG_KEY)
        self.terminal.set_string("TenantId", "tenant Łódź", LOG_KEY)

    def serve(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        certificate, key = self.authority.issue("server", "server", "/CN=localhost")
        config = self.folder / "nginx.conf"
        config.write_text(NGINX.format(folder=self.folder, documented=documented({
            "/etc/nginx/kiosk/server.pem": certificate, "/etc/nginx/kiosk/server.key": key,
            "/etc/nginx/kiosk/terminals-ca.pem": self.authority.certificate, "/var/log/nginx": self.folder,
            "listen 8443 ssl": f"listen 127.0.0.1:{port} ssl; listen [::1]:{port} ssl", "logs.example.com": "localhost",
            # In place of its own second server the portal, which says yes as well.
            "listen 127.0.0.1:8001": f"listen unix:{self.folder}/unused",
            "http://127.0.0.1:8001": self.portal.url + "/api/log"})))
        nginx = subprocess.Popen(["/usr/sbin/nginx", "-c", config, "-p", self.folder, "-e", self.folder / "error.log"])
        self.addCleanup(nginx.wait)
        self.addCleanup(nginx.terminate)
        wait_for(lambda: (self.folder / "pid").exists(), "nginx")
        return f"https://localhost:{port}"

    def identity(self, authority, name, days=30):
        """Gives the terminal a certificate with its key."""
        certificate, _ = authority.issue(name, "client", f"/CN={name}", days)
        path = self.terminal.put(authority.bundle(name))
        self.assertEqual(self.terminal.run("sim_machine.exe", "import-certificate", path)[1].strip(), "0")
        self.terminal.set_string("ClientCertThumbprint", thumbprint(certificate), LOG_KEY)

    def run_service_until(self, said):
        """Starts the service, waits for its line, and stops it."""
        self.assertEqual(self.terminal.net("start"), 0)
        wait_for(lambda: any(said in line for line in self.terminal.log()), said)
        self.assertEqual(self.terminal.net("stop"), 0)

    def spool(self):
        """What is not sent yet, also what a sender that was stopped had taken. A file may be sent under our eyes."""
        lines = b""
        for file in sorted(self.terminal.path(DROP).rglob("*.gelf")):
            with contextlib.suppress(FileNotFoundError):
                lines += file.read_bytes()
        return lines

    def shipped(self):
        return [line["message"] for line in self.portal.log_lines()]

    def test_nothing_leaves_unless_both_sides_show_the_right_certificate(self):
        self.terminal.set_dword("ClientCertRequired", 1, LOG_KEY)
        self.identity(self.authority, "expired", days=-1)
        self.terminal.install()
        self.terminal.net("stop")
        self.assertIn("WARN central log: the client certificate has expired or is not valid yet; lines are kept in the spool",
                      self.terminal.log())
        self.identity(Authority(self.folder / "theirs", "Theirs"), "stranger")
        self.run_service_until("does not take lines (WinHTTP error 121")  # the server's certificate is not trusted yet
        self.terminal.trust(self.authority.certificate)
        self.run_service_until("does not take lines (HTTP status 403)")  # refused
        self.assertEqual(self.portal.requests, [])
        kept = self.spool().count(b"\n")
        self.assertGreater(kept, 12)

        self.identity(self.authority, "terminal-7")
        self.terminal.set_string("LogConfigUrl", self.url + "/config", LOG_KEY)
        self.assertEqual(self.terminal.net("start"), 0)
        self.portal.wait(lambda: len(self.portal.log_lines()) >= kept + 4, 30)
        # What the last process had in its hands while it ended comes back at the next look, a minute later.
        wait_for(lambda: self.spool() == b"", "an empty spool", 90)
        self.assertEqual(len([text for text in self.shipped() if text == "Kiosk v2026-10-15-0001 starting"]), 4)
        self.assertEqual(len([text for text in self.shipped() if text == "Kiosk shutting down"]), 3)
        self.assertEqual({request.headers["X-Subject"] for request in self.portal.requests}, {"CN=terminal-7"})
        record = self.portal.log_lines()[0]["record"]
        self.assertEqual((record["_tenant"], record["_component"]), ("tenant Łódź", "Kiosk"))
        self.assertFalse([text for text in self.shipped() if "central log:" in text])
        written = (self.folder / "kiosk-gelf.json").read_text("utf-8").splitlines()
        self.assertEqual({json.loads(line)["short_message"] for line in written}, set(self.shipped()))

        # The stop, and the lines of a short-lived process, wait in the spool for the next start.
        self.assertEqual(self.terminal.run("NorvaneKiosk.exe", "--uninstall")[0], 0)
        self.assertTrue("Kiosk shutting down" in self.shipped()[0] or b"Kiosk shutting down" in self.spool())
