"""A throw-away certificate authority and a server certificate for "localhost", made by the openssl command."""

import pathlib
import ssl
import subprocess

DAYS = 30


def make_context(directory):
    """Returns (server context, path of the CA's certificate); files of an earlier run are used while they last.

    Raises OSError when the folder cannot be used, RuntimeError when openssl is missing or fails.
    """
    folder = pathlib.Path(directory).resolve()
    folder.mkdir(parents=True, exist_ok=True)
    authority, certificate, key = folder / "ca.pem", folder / "server.pem", folder / "server.key"
    if not (authority.exists() and key.exists() and _lasts_a_day(certificate)):
        _make(folder)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(certificate, key)
    return context, str(authority)


def _lasts_a_day(certificate):
    return certificate.exists() and subprocess.run(
        ["openssl", "x509", "-in", certificate, "-noout", "-checkend", "86400"], capture_output=True).returncode == 0


def _make(folder):
    new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    (folder / "server.ext").write_text(
        "subjectAltName=DNS:localhost\nbasicConstraints=critical,CA:FALSE\nextendedKeyUsage=serverAuth\n"
        "keyUsage=critical,digitalSignature\n")
    try:
        _openssl(folder, "req", "-x509", *new_key, "-keyout", "ca.key", "-out", "ca.pem", "-days", str(DAYS),
                 "-subj", "/CN=Throw-away CA of the development portal",
                 "-addext", "keyUsage=critical,keyCertSign,cRLSign")
        _openssl(folder, "req", "-new", *new_key, "-keyout", "server.key", "-out", "server.csr",
                 "-subj", "/CN=localhost")
        _openssl(folder, "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                 "-days", str(DAYS), "-extfile", "server.ext", "-out", "server.pem")
    finally:
        # Nobody can sign another certificate for a machine that was told to trust this authority.
        for name in ("ca.key", "ca.srl", "server.csr", "server.ext"):
            (folder / name).unlink(missing_ok=True)


def _openssl(folder, *arguments):
    try:
        done = subprocess.run(["openssl", *arguments], cwd=folder, capture_output=True, text=True, umask=0o077)
    except FileNotFoundError:
        raise RuntimeError("the openssl command is missing") from None
    if done.returncode:
        raise RuntimeError(f"openssl {arguments[0]} failed: {done.stderr.strip()}")
