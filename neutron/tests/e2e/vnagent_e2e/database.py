"""A MariaDB server of its own, on a temporary directory and a loopback port."""

from __future__ import annotations

import getpass
import os
import shutil
import subprocess
import time
from pathlib import Path
from typing import Any

import pymysql  # type: ignore[import]
import pymysql.cursors  # type: ignore[import]

from .processes import Failed, Program, eventually, free_port

Row = dict[str, Any]


def fast_directory(fallback: Path, wanted: int = 1 << 30) -> Path:
    """A folder in memory where there is one with `wanted` bytes of space, else `fallback`. The
    several hundred tables of Neutron are made in seconds there, on a disk in half a minute."""
    memory = Path("/dev/shm")
    if memory.is_dir() and os.access(memory, os.W_OK) and shutil.disk_usage(memory).free >= wanted:
        return memory
    return fallback


class Database:
    """One MariaDB server with the database `neutron`. What it has committed survives `kill`."""

    def __init__(self, directory: Path, logs: Path) -> None:
        self.data = directory / "mariadb"
        self.port = free_port()
        self.logs = logs
        self.options = [
            "--no-defaults", f"--datadir={self.data}",
            f"--socket={directory / 'mariadb.sock'}", f"--port={self.port}",
            "--bind-address=127.0.0.1", f"--pid-file={directory / 'mariadb.pid'}",
            "--skip-name-resolve", "--performance-schema=off", "--innodb-buffer-pool-size=128M",
            "--innodb-log-file-size=32M", "--max-connections=400",
        ]
        if os.getuid() == 0:
            self.options.append("--user=root")
        daemon = shutil.which("mariadbd", path=os.environ.get("PATH", "") + ":/usr/sbin")
        if daemon is None:
            raise Failed("mariadbd is not installed")
        self.program = Program("mariadb", [daemon, *self.options], logs / "mariadb.log")

    @property
    def url(self) -> str:
        """As SQLAlchemy names it."""
        return f"mysql+pymysql://root@127.0.0.1:{self.port}/neutron?charset=utf8"

    def create(self) -> None:
        """Makes the files, starts the server and makes an empty database."""
        made = subprocess.run(
            ["mariadb-install-db", "--no-defaults", f"--user={getpass.getuser()}",
             f"--datadir={self.data}", "--auth-root-authentication-method=normal",
             "--skip-test-db", "--skip-name-resolve"],
            capture_output=True, text=True, check=False)
        if made.returncode != 0:
            raise Failed(f"mariadb-install-db: {made.stdout}{made.stderr}")
        self.start()
        with self.connect("") as connection, connection.cursor() as cursor:
            cursor.execute("CREATE DATABASE neutron CHARACTER SET utf8")

    def start(self) -> None:
        self.program.start()
        eventually("the database takes connections", self._answers, 60)

    def _answers(self) -> bool:
        if not self.program.running():
            raise Failed(f"mariadbd ended:\n{self.program.tail()}")
        try:
            self.connect("").close()
        except pymysql.err.OperationalError:
            return False
        return True

    def connect(self, name: str = "neutron") -> Any:
        """A connection; the caller closes it."""
        return pymysql.connect(host="127.0.0.1", port=self.port, user="root",
                               database=name or None, connect_timeout=5, read_timeout=30,
                               cursorclass=pymysql.cursors.DictCursor)

    def migrate(self, config: Path) -> float:
        """Brings the schema to Neutron's head as an installation does; the seconds that it took."""
        begin = time.monotonic()
        done = subprocess.run(
            ["neutron-db-manage", "--config-file", str(config), "upgrade", "head"],
            capture_output=True, text=True, check=False)
        (self.logs / "migration.log").write_text(done.stdout + done.stderr)
        if done.returncode != 0:
            raise Failed(f"neutron-db-manage:\n{done.stderr[-2000:]}")
        return time.monotonic() - begin

    def snapshot(self, queries: dict[str, str]) -> dict[str, list[Row]]:
        """The answers of several queries, all of one moment."""
        with self.connect() as connection, connection.cursor() as cursor:
            cursor.execute("SET TRANSACTION ISOLATION LEVEL REPEATABLE READ")
            cursor.execute("START TRANSACTION WITH CONSISTENT SNAPSHOT, READ ONLY")
            answers = {}
            for name, query in queries.items():
                cursor.execute(query)
                answers[name] = list(cursor.fetchall())
            connection.rollback()
            return answers

    def kill(self) -> None:
        self.program.kill()

    def stop(self) -> None:
        self.program.stop(20)
        shutil.rmtree(self.data, ignore_errors=True)
