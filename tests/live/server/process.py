"""What the tests of the process share: the program without a wait, and certificates."""

import os
import subprocess
import sys
from pathlib import Path

# The folder above has the client of all live tests.
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from api.agent import DEADLINE, program  # noqa: E402


def refusal(*options: str) -> tuple[int, str]:
    """The exit status and the messages of a start that is refused."""
    done = subprocess.run([program(), "serve", *map(str, options)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=DEADLINE, check=False)
    return done.returncode, done.stderr


def descriptors(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/fd"))


def threads(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/task"))


class Authority:
    """Makes certificates in a folder."""

    def __init__(self, folder: Path, name: str = "authority") -> None:
        self.folder = folder
        self.name = name
        self.certificate = folder / f"{name}.pem"
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                     "-nodes", "-days", "2", "-subj", f"/CN={name}",
                     "-keyout", self.key(name), "-out", self.certificate)

    def key(self, name: str) -> Path:
        return self.folder / f"{name}.key"

    def sign(self, name: str, address: str = "127.0.0.1") -> tuple[str, str]:
        """The files of a certificate with this common name, and of its key."""
        request, certificate = self.folder / f"{name}.csr", self.folder / f"{name}.pem"
        extensions = self.folder / f"{name}.ext"
        extensions.write_text(f"subjectAltName=IP:{address}\n")
        self.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                     "-subj", f"/CN={name}", "-keyout", self.key(name), "-out", request)
        self.openssl("x509", "-req", "-in", request, "-CA", self.certificate,
                     "-CAkey", self.key(self.name), "-CAcreateserial", "-days", "2",
                     "-extfile", extensions, "-out", certificate)
        return str(certificate), str(self.key(name))

    @staticmethod
    def openssl(*arguments: str | Path) -> None:
        subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)
