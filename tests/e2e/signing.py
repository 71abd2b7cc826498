"""Signed programs: certificate authorities, publishers and Authenticode signatures, made with openssl and osslsigncode."""

import pathlib
import subprocess

EXTENSIONS = """\
[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
[publisher]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
[server]
subjectAltName = DNS:localhost
extendedKeyUsage = serverAuth
[client]
keyUsage = critical, digitalSignature
extendedKeyUsage = clientAuth
"""


def run(*command):
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True)
    assert done.returncode == 0, (command, done.stdout, done.stderr)


class Authority:
    """A certificate authority with its publishers, in a folder of its own."""

    def __init__(self, folder, name):
        self._folder = pathlib.Path(folder)
        self._folder.mkdir(parents=True)
        (self._folder / "extensions").write_text(EXTENSIONS)
        self.certificate = self._folder / "ca.pem"
        self._request("ca", f"/CN={name}")
        run("openssl", "x509", "-req", "-in", self._folder / "ca.csr", "-signkey", self._folder / "ca.key", "-days", 30,
            "-extfile", self._folder / "extensions", "-extensions", "ca", "-out", self.certificate)

    def _request(self, name, subject):
        run("openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", self._folder / f"{name}.key",
            "-subj", subject, "-utf8", "-out", self._folder / f"{name}.csr")

    def issue(self, name, section, subject, days=30, digest="sha256"):
        """Issues a certificate for "server", "client" or "publisher"; returns the files (certificate, key)."""
        self._request(name, subject)
        leaf = self._folder / f"{name}.pem"
        run("openssl", "x509", "-req", "-in", self._folder / f"{name}.csr", "-CA", self.certificate, "-CAkey",
            self._folder / "ca.key", "-CAcreateserial", "-days", days, f"-{digest}", "-extfile",
            self._folder / "extensions", "-extensions", section, "-out", leaf)
        return leaf, self._folder / f"{name}.key"

    def publisher(self, name, subject):
        """Issues a code signing certificate, to be used under `name`."""
        # SHA-1 for this one signature: Wine skips the check of the chain when a leaf is signed with SHA-256.
        leaf, _ = self.issue(name, "publisher", subject, digest="sha1")
        (self._folder / f"{name}-chain.pem").write_text(leaf.read_text() + self.certificate.read_text())

    def bundle(self, name):
        """The certificate and key issued under `name` as a PKCS #12 file with the password "test"."""
        file = self._folder / f"{name}.pfx"
        run("openssl", "pkcs12", "-export", "-in", self._folder / f"{name}.pem", "-inkey", self._folder / f"{name}.key",
            "-passout", "pass:test", "-out", file)
        return file

    def sign(self, publisher, program, signed):
        """Writes a signed copy of `program` to `signed`, and returns that path."""
        run("osslsigncode", "sign", "-certs", self._folder / f"{publisher}-chain.pem", "-key",
            self._folder / f"{publisher}.key", "-h", "sha256", "-in", program, "-out", signed)
        return signed
