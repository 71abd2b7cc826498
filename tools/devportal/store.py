"""The portal's memory: pairing codes and terminals in one SQLite file. Safe from any thread."""

import hashlib
import json
import os
import secrets
import sqlite3
import threading
import time

# Without I, L, O, 0 and 1: the code is read off one screen and typed on another.
CODE_ALPHABET = "ABCDEFGHJKMNPQRSTUVWXYZ23456789"
CODE_LENGTH = 8
CODE_LIFETIME = 900
# An expired code is remembered this long, so that the terminal hears "expired" rather than "unknown".
CODE_MEMORY = 86400
MAX_CODES = 1000

# Log lines beyond these are forgotten, the oldest first.
MAX_LINES = 20000

SCHEMA_VERSION = 2
SCHEMA = """
CREATE TABLE code (
  code TEXT PRIMARY KEY,
  facts TEXT NOT NULL,      -- what the terminal said of itself, JSON
  expires REAL NOT NULL,    -- Unix time, s
  terminal INTEGER,         -- set once a person claimed it
  collected INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE terminal (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  token_hash TEXT UNIQUE,   -- SHA-256 of the device token; NULL until the terminal has collected it
  revoked INTEGER NOT NULL DEFAULT 0,
  settings TEXT NOT NULL,   -- members of the check-in reply, JSON
  facts TEXT NOT NULL,      -- from the pairing request, JSON
  report TEXT,              -- body of the last check-in, JSON
  check_ins INTEGER NOT NULL DEFAULT 0,
  claimed_at REAL NOT NULL,
  last_check_in REAL,
  last_refused REAL
);
"""
LOG_SCHEMA = """
CREATE TABLE log_line (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received REAL NOT NULL,
  time REAL NOT NULL,       -- of the terminal's clock, Unix s
  host TEXT NOT NULL,
  install TEXT NOT NULL,
  level INTEGER NOT NULL,   -- syslog
  message TEXT NOT NULL,
  record TEXT NOT NULL,     -- as it came, JSON
  origin TEXT UNIQUE        -- installation, process and number of the line, by which a repeated one is known; or NULL
);
CREATE TABLE log_config (config TEXT NOT NULL);  -- one row, JSON
"""
# Beside the schema, so that a database from before it had photos can be used on.
PHOTO_TABLE = "CREATE TABLE IF NOT EXISTS photo (sha256 TEXT PRIMARY KEY, type TEXT NOT NULL, content BLOB NOT NULL)"


class PortalError(Exception):
    """A request that cannot be carried out: HTTP status, sentence, and for settings the faults by member."""

    def __init__(self, status, message, faults=None):
        super().__init__(message)
        self.status = status
        self.message = message
        self.faults = faults


def _hash(token):
    return hashlib.sha256(token.encode("utf-8")).hexdigest()


def _text(value):
    return json.dumps(value, ensure_ascii=False)


class Store:
    def __init__(self, path=":memory:"):
        """Opens or creates the file; raises sqlite3.Error or OSError, or ValueError for a file of another program."""
        if path != ":memory:":
            # The file holds exit passwords: nobody but its owner reads it.
            os.close(os.open(path, os.O_CREAT | os.O_RDWR, 0o600))
        self._lock = threading.Lock()
        self._db = sqlite3.connect(path, check_same_thread=False)
        self._db.row_factory = sqlite3.Row
        version = self._db.execute("PRAGMA user_version").fetchone()[0]
        if version == 0 and not self._db.execute("SELECT 1 FROM sqlite_master").fetchone():
            self._db.executescript(f"BEGIN; {SCHEMA} {LOG_SCHEMA} PRAGMA user_version = {SCHEMA_VERSION}; COMMIT;")
        elif version == 1:
            self._db.executescript(f"BEGIN; {LOG_SCHEMA} PRAGMA user_version = {SCHEMA_VERSION}; COMMIT;")
        elif version != SCHEMA_VERSION:
            self._db.close()
            raise ValueError(f"{path} is not a database of this version of the development portal")
        self._db.execute(PHOTO_TABLE)

    def close(self):
        with self._lock:
            self._db.close()

    # What terminals do.

    def begin_pairing(self, facts, lifetime=CODE_LIFETIME):
        """Returns a fresh pairing code."""
        now = time.time()
        with self._lock, self._db:
            self._db.execute("DELETE FROM code WHERE expires < ?", (now - CODE_MEMORY,))
            if self._count_pending(now) >= MAX_CODES:
                raise PortalError(429, "too many pairing codes are waiting")
            code = "".join(secrets.choice(CODE_ALPHABET) for _ in range(CODE_LENGTH))
            self._db.execute("INSERT INTO code (code, facts, expires) VALUES (?, ?, ?)",
                             (code, _text(facts), now + lifetime))
            return code

    def collect(self, code):
        """The terminal asks about its code: None while nobody claimed it, then the device token, once.

        The token is made here, at the moment it is handed out, so that it never has to be kept.
        """
        with self._lock, self._db:
            row = self._db.execute("SELECT * FROM code WHERE code = ?", (code,)).fetchone()
            if row is None:
                raise PortalError(404, "unknown pairing code")
            if row["collected"]:
                raise PortalError(409, "the device token of this pairing code was already handed out")
            if row["expires"] <= time.time():
                raise PortalError(410, "the pairing code has expired")
            if row["terminal"] is None:
                return None
            token = secrets.token_urlsafe(32)
            changed = self._db.execute("UPDATE terminal SET token_hash = ? WHERE id = ?",
                                       (_hash(token), row["terminal"])).rowcount
            if not changed:
                raise PortalError(404, "the terminal was removed before it collected its token")
            self._db.execute("UPDATE code SET collected = 1 WHERE code = ?", (code,))
            return token

    def check_in(self, token, report):
        """Records a check-in. Returns ("enrolled", settings), ("revoked", None) or ("unknown", None)."""
        now = time.time()
        with self._lock, self._db:
            row = self._db.execute("SELECT * FROM terminal WHERE token_hash = ?", (_hash(token),)).fetchone()
            if row is None:
                return "unknown", None
            if row["revoked"]:
                self._db.execute("UPDATE terminal SET last_refused = ? WHERE id = ?", (now, row["id"]))
                return "revoked", None
            self._db.execute(
                "UPDATE terminal SET report = ?, last_check_in = ?, check_ins = check_ins + 1 WHERE id = ?",
                (_text(report), now, row["id"]))
            return "enrolled", json.loads(row["settings"])

    def add_lines(self, records):
        """Keeps log records; those that were kept before are passed over."""
        with self._lock, self._db:
            for record in records:
                parts = [record.get(name) for name in ("_install", "_pid", "_started", "_seq")]
                origin = None if None in parts else _text(parts)
                self._db.execute(
                    "INSERT OR IGNORE INTO log_line (received, time, host, install, level, message, record, origin) "
                    "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                    (time.time(), record["timestamp"], record["host"], str(record.get("_install", "")),
                     record["level"], record["short_message"], _text(record), origin))
            self._db.execute("DELETE FROM log_line WHERE id <= (SELECT max(id) FROM log_line) - ?", (MAX_LINES,))

    def lines(self, host=None, level=7, limit=200):
        """The newest lines, newest first, of a host (None: of all) and at least so grave."""
        with self._lock:
            rows = self._db.execute(
                "SELECT * FROM log_line WHERE level <= ? AND (? IS NULL OR host = ?) ORDER BY time DESC, id DESC LIMIT ?",
                (level, host, host, limit))
            return [{name: row[name] for name in ("id", "received", "time", "host", "install", "level", "message")}
                    | {"record": json.loads(row["record"])} for row in rows]

    def line_hosts(self):
        with self._lock:
            return [row[0] for row in self._db.execute("SELECT DISTINCT host FROM log_line ORDER BY host")]

    def log_config(self):
        """What terminals get as the remote configuration of their log shipping."""
        with self._lock:
            row = self._db.execute("SELECT config FROM log_config").fetchone()
            return json.loads(row["config"]) if row else {}

    def set_log_config(self, config):
        with self._lock, self._db:
            self._db.execute("DELETE FROM log_config")
            self._db.execute("INSERT INTO log_config (config) VALUES (?)", (_text(config),))
    def photo(self, token, digest):
        """A photo of the terminal's branding: ("enrolled", its settings, type, content), or (status, None, None, None)."""
        with self._lock:
            row = self._db.execute("SELECT * FROM terminal WHERE token_hash = ?", (_hash(token),)).fetchone()
            if row is None or row["revoked"]:
                return ("unknown" if row is None else "revoked"), None, None, None
            settings = json.loads(row["settings"])
            listed = settings.get("branding", {}).get("photos", [])
            photo = self._db.execute("SELECT * FROM photo WHERE sha256 = ?", (digest,)).fetchone()
            if photo is None or not any(entry.get("sha256") == digest for entry in listed):
                raise PortalError(404, "no such photo")
            return "enrolled", settings, photo["type"], photo["content"]

    # What people do.

    def add_photo(self, content, kind):
        """Keeps a photo; returns its digest."""
        digest = hashlib.sha256(content).hexdigest()
        with self._lock, self._db:
            self._db.execute("INSERT OR REPLACE INTO photo VALUES (?, ?, ?)", (digest, kind, content))
        return digest

    def claim(self, code, settings):
        """Turns a waiting code into a terminal and returns its id."""
        now = time.time()
        with self._lock, self._db:
            row = self._db.execute("SELECT * FROM code WHERE code = ?", (code,)).fetchone()
            if row is None:
                raise PortalError(404, "No terminal shows this code. Check it and try again.")
            if row["terminal"] is not None:
                raise PortalError(409, "This code was already claimed.")
            if row["expires"] <= now:
                raise PortalError(410, "This code has expired. Start pairing again at the terminal.")
            terminal = self._db.execute("INSERT INTO terminal (settings, facts, claimed_at) VALUES (?, ?, ?)",
                                        (_text(settings), row["facts"], now)).lastrowid
            self._db.execute("UPDATE code SET terminal = ? WHERE code = ?", (terminal, code))
            return terminal

    def change(self, terminal, changes):
        """Sets members of the check-in reply; None takes one away. Returns the settings as they are now."""
        with self._lock, self._db:
            settings = json.loads(self._row(terminal)["settings"])
            settings.update(changes)
            settings = {name: value for name, value in settings.items() if value is not None}
            self._db.execute("UPDATE terminal SET settings = ? WHERE id = ?", (_text(settings), terminal))
            return settings

    def revoke(self, terminal):
        with self._lock, self._db:
            self._row(terminal)
            self._db.execute("UPDATE terminal SET revoked = 1 WHERE id = ?", (terminal,))

    def forget(self, terminal):
        with self._lock, self._db:
            self._row(terminal)
            self._db.execute("DELETE FROM terminal WHERE id = ?", (terminal,))

    def terminals(self):
        """All terminals, oldest first; times are Unix seconds or None."""
        with self._lock:
            return [_public(row) for row in self._db.execute("SELECT * FROM terminal ORDER BY id")]

    def pending_codes(self):
        with self._lock:
            return self._count_pending(time.time())

    def _count_pending(self, now):
        query = "SELECT count(*) FROM code WHERE terminal IS NULL AND expires > ?"
        return self._db.execute(query, (now,)).fetchone()[0]

    def _row(self, terminal):
        row = self._db.execute("SELECT * FROM terminal WHERE id = ?", (terminal,)).fetchone()
        if row is None:
            raise PortalError(404, "There is no such terminal.")
        return row


def _public(row):
    state = "revoked" if row["revoked"] else "enrolled" if row["token_hash"] else "waiting"
    return {
        "id": row["id"],
        "state": state,
        "settings": json.loads(row["settings"]),
        "facts": json.loads(row["facts"]),
        "report": json.loads(row["report"]) if row["report"] else None,
        "checkIns": row["check_ins"],
        "claimedAt": row["claimed_at"],
        "lastCheckIn": row["last_check_in"],
        "lastRefused": row["last_refused"],
    }
