#!/usr/bin/env python3
"""A Stratum pool for tests of the miner, in its dialect.

    python3 tools/test_pool/pool.py --port 0 --stats stats.json [options]

It listens on loopback and prints "listening on 127.0.0.1:<port>" once the
socket is bound. Every connection runs the dialect's conversation:
mining.subscribe (id 1) -> [subscriptions, extranonce1, extranonce2 size];
mining.extranonce.subscribe (id 2) -> true; mining.authorize (id 3) -> true,
then mining.set_difficulty or mining.set_target and mining.notify jobs
[job id, header hash, height, previous hash, clean] at an interval. Each
mining.submit [account, job id, nonce hex] is verified: the 16-byte nonce is
extranonce1 followed by the submitted bytes, the 48-byte message is header
hash + nonce, and its Eaglesong value must be at most the job's target.

Misbehaviour for tests is switched on by flags; --script FILE takes the same
settings as JSON ({"option_name": value, ...}), and a "connections" list in it
overrides settings for the first, second, ... connection. --profile NAME
switches on a set of settings at once: the ways real pools speak (see
PROFILES).

Counts go to the --stats JSON file after every change; --transcript FILE
records every line in and out.
"""

import argparse
import dataclasses
import json
import os
import random
import re
import select
import signal
import socket
import ssl
import struct
import sys
import threading
import time
from dataclasses import dataclass, field

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import eaglesong  # noqa: E402
import targets  # noqa: E402

# Rejection reasons, with the error code and text sent back.
REJECTIONS = {
    "malformed": (20, "Malformed submit"),
    "invalid-nonce": (20, "Invalid nonce"),
    "unknown-job": (21, "Job not found"),
    "stale": (21, "Stale job"),
    "duplicate": (22, "Duplicate share"),
    "low-difficulty": (23, "Low difficulty share"),
    "unauthorized": (24, "Unauthorized worker"),
    "forced": (20, "Rejected on purpose"),  # reject_every; the text comes from reject_with
}

SUBSCRIBE_MODES = ("ok", "short", "error", "not-array", "silent")
# The first element of the subscribe answer: difficulty and notify pairs, a
# null, an empty list, one [["mining.notify", id]] pair, or a session id.
SUBSCRIBE_SHAPES = ("pairs", "null", "empty", "notify-pair", "session-id")
EXTRANONCE_SUBSCRIBE_MODES = ("answer", "silent")
RECONNECT_MODES = ("", "same", "other")
# Requests a pool may send once a connection is authorized, with an id each.
POOL_REQUESTS = ("client.get_version", "client.show_message", "mining.ping")
AUTHORIZE_MODES = ("accept", "false", "error", "silent")
# "both": mining.set_difficulty with a decoy a quarter of the difficulty, then
# mining.set_target with the real one; a miner that keeps the first finds
# shares the pool rejects.
TARGET_MODES = ("difficulty", "target", "both", "none")
CLOSE_MODES = ("close", "reset")
# Jobs that the miner refuses are not recorded, and they leave earlier jobs valid.
BAD_JOBS = ("invalid-hex", "hex-prefix", "short-header", "short-prevhash", "four-params", "not-clean")
REFUSED_BAD_JOBS = ("short-header", "short-prevhash", "four-params")

GARBAGE_LINES = (
    b"this is not json\n",
    b"[1,2,3]\n",
    b'{"neither":"method","nor":"result"}\n',
    b"\xff\xfe\x80\x81 high bytes\n",
    b'{"id":null,"method":"mining.notify","params":["cut\n',
    b"\n",
)

# Ways real pools speak, each a set of settings (--profile NAME); "clean" is
# this pool's own dialect.
PROFILES = {
    "clean": {},
    # Subscriptions [[], en1, n]; the target by mining.set_target with "id":0;
    # mining.extranonce.subscribe never answered; rejections {"result":false,"error":null}.
    "ckb-empty": {"subscribe_shape": "empty", "target_mode": "target", "notify_id": 0,
                  "extranonce_subscribe": "silent", "reject_with": "none"},
    # [null, en1, n]; notifications with a numeric id; 16-digit job ids.
    "null-subscription": {"subscribe_shape": "null", "notify_id": 7, "job_id_digits": 16},
    # ["sessionid", en1, n] with a 5-byte extranonce1; string ids; JSON-RPC 2.0.
    "session-id": {"subscribe_shape": "session-id", "extranonce1": "0a0b0c0d0e", "notify_id": "n1",
                   "jsonrpc2": True},
    # [[["mining.notify", id]], en1, n]; both target messages, the real one last.
    "notify-pair": {"subscribe_shape": "notify-pair", "target_mode": "both", "notify_id": "absent"},
    # client.get_version, client.show_message, mining.ping; client.reconnect to
    # itself, once.
    "pool-requests": {"requests": list(POOL_REQUESTS), "reconnect": "same", "reconnect_after": 4.0},
    # client.reconnect to another host, which the miner must refuse.
    "reconnect-elsewhere": {"reconnect": "other", "reconnect_after": 2.0},
}

HEX_RE = re.compile(r"[0-9a-fA-F]*")
JOB_HISTORY = 64
MAX_LINE = 1 << 20


@dataclass
class SessionOptions:
    """What one connection does. Every field is also a flag and a script key."""
    extranonce1: str = "auto"          # hex, or "auto": 4 bytes, the connection number
    extranonce2_size: int = -1         # negative: 16 minus the extranonce1 length
    subscribe_difficulty: list = field(default_factory=list)  # difficulty pairs in the answer
    difficulty: float = 1.0
    target_mode: str = "difficulty"    # how the difficulty is announced after authorize
    target: str = ""                   # hex for mining.set_target; empty: from difficulty
    notify_interval: float = 30.0
    subscribe: str = "ok"
    authorize: str = "accept"
    authorize_delay: float = 0.0
    close_after: int = 0               # close after handling this many client messages
    close_at: float = 0.0              # close this many seconds after accepting
    close_mode: str = "close"
    notify_before_subscribe: bool = False
    notify_before_authorize: bool = False
    split_lines: int = 1               # write every line in this many pieces
    split_delay: float = 0.05
    split_random: bool = False         # cut each line at random bytes instead of evenly
    silent_after: float = 0.0          # this many seconds after authorizing, read and write nothing more
    resend_job: bool = False           # a new connection first gets the pool's newest job again
    garbage_every: int = 0             # a garbage line before every n-th line
    set_extranonce: str = ""           # hex; sent after set_extranonce_after jobs
    set_extranonce_size: int = -1
    set_extranonce_after: int = 1
    notify_id: object = None           # None, "absent", an integer or a string: the id of notifications
    huge_line: int = 0                 # bytes of one oversized line after authorize
    bad_job: str = ""
    bad_job_every: int = 1
    jsonrpc2: bool = False             # "jsonrpc":"2.0" and error objects on everything sent
    subscribe_shape: str = "pairs"
    job_id_digits: int = 0             # job ids of this many hex digits (0: as short as the count)
    extranonce_subscribe: str = "answer"
    requests: list = field(default_factory=list)  # POOL_REQUESTS sent after authorizing
    reconnect: str = ""                # client.reconnect to the pool's own host ("same") or another
    reconnect_after: float = 3.0       # seconds after authorizing
    reconnect_wait: float = 1.0        # the wait the request asks for
    reject_every: int = 0              # reject every n-th good share (counted as "forced")
    reject_with: str = "none"          # "none": {"result":false,"error":null}; or "CODE:TEXT"
    submit_delay: float = 0.0          # seconds before a share is answered
    silent_after_answers: int = 0      # go silent once this many shares are answered
    inject_dir: str = ""               # once authorized, each NAME.line file put here is sent as one line

    def validate(self):
        _check_choice("subscribe", self.subscribe, SUBSCRIBE_MODES)
        _check_choice("authorize", self.authorize, AUTHORIZE_MODES)
        _check_choice("target_mode", self.target_mode, TARGET_MODES)
        _check_choice("close_mode", self.close_mode, CLOSE_MODES)
        if self.bad_job:
            _check_choice("bad_job", self.bad_job, BAD_JOBS)
        if self.extranonce1 != "auto":
            _check_hex("extranonce1", self.extranonce1)
        if self.set_extranonce:
            _check_hex("set_extranonce", self.set_extranonce)
        if self.target:
            _check_hex("target", self.target)
            if len(self.target) > 64:
                raise ValueError("target: at most 64 hex digits")
        if not (self.notify_id is None or isinstance(self.notify_id, str)
                or (isinstance(self.notify_id, int) and not isinstance(self.notify_id, bool))):
            raise ValueError("notify_id: null, 'absent', an integer or a string")
        _check_choice("subscribe_shape", self.subscribe_shape, SUBSCRIBE_SHAPES)
        _check_choice("extranonce_subscribe", self.extranonce_subscribe, EXTRANONCE_SUBSCRIBE_MODES)
        _check_choice("reconnect", self.reconnect, RECONNECT_MODES)
        for request in self.requests:
            _check_choice("requests", request, POOL_REQUESTS)
        if self.reject_with != "none" and not re.fullmatch(r"-?\d+:.*", self.reject_with):
            raise ValueError("reject_with: 'none' or CODE:TEXT")
        if not 0 <= self.job_id_digits <= 64:
            raise ValueError("job_id_digits: 0 to 64")
        for name in ("split_lines", "bad_job_every", "set_extranonce_after"):
            if getattr(self, name) < 1:
                raise ValueError(f"{name}: at least 1")
        if not self.notify_interval > 0:
            raise ValueError("notify_interval: must be positive")


def _check_choice(name, value, choices):
    if value not in choices:
        raise ValueError(f"{name}: {value!r} is not one of {', '.join(choices)}")


def _check_hex(name, value):
    if not isinstance(value, str) or len(value) % 2 or not HEX_RE.fullmatch(value):
        raise ValueError(f"{name}: {value!r} is not an even number of hex digits")


def apply_settings(options, settings, where):
    """Returns a copy of options with the settings of a dict applied, type-checked."""
    defaults = SessionOptions()
    kinds = {f.name: type(getattr(defaults, f.name)) for f in dataclasses.fields(defaults)}
    changes = {}
    for key, value in settings.items():
        if key not in kinds:
            raise ValueError(f"{where}: unknown setting {key!r}")
        kind = kinds[key]
        if key == "notify_id":
            pass
        elif kind is float and isinstance(value, int) and not isinstance(value, bool):
            value = float(value)
        elif key == "requests" and isinstance(value, list):
            pass
        elif kind is list and isinstance(value, list) and all(
                isinstance(v, (int, float)) and not isinstance(v, bool) for v in value):
            value = [float(v) for v in value]
        elif not isinstance(value, kind) or (kind is int and isinstance(value, bool)):
            raise ValueError(f"{where}: {key} must be of type {kind.__name__}")
        changes[key] = value
    result = dataclasses.replace(options, **changes)
    result.validate()
    return result


@dataclass
class Job:
    job_id: str
    header: bytes
    prev_hash: bytes
    height: int
    extranonce1: bytes
    difficulty: float
    target: int
    midstate: tuple
    stale: bool = False


class Stats:
    """Pool-wide counters, written as JSON to a file.

    Changes collect in memory; flush() writes them. A session flushes before
    every write to its socket, so whoever sees an answer on the wire finds
    the counts that led to it in the file. Under a burst the writes are
    spaced WRITE_SPACING apart (replacing a file costs milliseconds on some
    file systems) and the pool's ticker writes the rest, so the file is then
    at most that far behind. Read it after the pool stops for final counts.
    """

    WRITE_SPACING = 0.02

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.dirty = False
        self.last_write = 0.0
        self.data = {
            "port": 0,
            "connections": 0,
            "open_connections": 0,
            "subscribes": 0,
            "authorized": 0,
            "jobs": 0,
            "submits": 0,
            "accepted": 0,
            "rejected": 0,
            "rejected_by_reason": {reason: 0 for reason in REJECTIONS},
            "methods": {},
            "bad_lines_received": 0,
            "injected": 0,
            "answers": {},          # the miner's answers to the pool's requests, by method
            "reconnects_sent": 0,
        }

    def update(self, change):
        with self.lock:
            change(self.data)
            self.dirty = True

    def count(self, key, step=1):
        self.update(lambda d: d.__setitem__(key, d[key] + step))

    def flush(self, force=False):
        with self.lock:
            if not self.dirty or not self.path:
                return
            now = time.monotonic()
            if not force and now - self.last_write < self.WRITE_SPACING:
                return
            temporary = f"{self.path}.tmp{os.getpid()}"
            with open(temporary, "w") as out:
                out.write(json.dumps(self.data, separators=(",", ":"), sort_keys=True))
            os.replace(temporary, self.path)
            self.dirty = False
            self.last_write = now

    def snapshot(self):
        with self.lock:
            return json.loads(json.dumps(self.data))


class Pool:
    def __init__(self, options=None, connection_settings=(), stats_path="", transcript_path="",
                 seed=None, port=0, quiet=False, refuse_for=0.0, tls_cert="", tls_key="", job_prefix=""):
        self.options = options or SessionOptions()
        self.options.validate()
        self.connection_options = [apply_settings(self.options, s, f"connection {i + 1}")
                                   for i, s in enumerate(connection_settings)]
        self.stats = Stats(stats_path)
        self.requested_port = port
        self.refuse_for = refuse_for
        self.tls = None
        if tls_cert:
            self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self.tls.load_cert_chain(tls_cert, tls_key or None)
        self.quiet = quiet
        self.random = random.Random(seed)
        self.lock = threading.Lock()
        self.transcript = open(transcript_path, "w", encoding="utf-8") if transcript_path else None
        self.accepted_shares = set()
        self.job_counter = 0
        self.job_prefix = job_prefix
        self.newest_job = None  # (Job, notify params), for resend_job
        self.connection_counter = 0
        self.reconnect_asked = False  # client.reconnect goes out once a run, as before maintenance
        self.port = 0
        self.stopping = threading.Event()
        self.listener = None
        self.threads = []

    # Shared services for the sessions.

    def log(self, text):
        if not self.quiet:
            with self.lock:
                print(text, flush=True)

    def record(self, number, direction, line: bytes):
        text = line.rstrip(b"\n").decode("utf-8", "backslashreplace")
        with self.lock:
            if self.transcript:
                self.transcript.write(f"{number} {direction} {text}\n")
                self.transcript.flush()

    def next_job_id(self, digits=0):
        with self.lock:
            self.job_counter += 1
            return f"{self.job_prefix}{self.job_counter:0{digits}x}"

    def random_sample(self, population, count):
        with self.lock:
            return self.random.sample(population, count)

    def random_bytes(self, count):
        with self.lock:
            return self.random.randbytes(count)

    def claim_share(self, key):
        """True the first time a share key is seen."""
        with self.lock:
            if key in self.accepted_shares:
                return False
            self.accepted_shares.add(key)
            return True

    # Lifecycle.

    def start(self):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", self.requested_port))
        # A bound socket that doesn't listen yet refuses connections (reset).
        if self.refuse_for <= 0:
            self.listener.listen(16)
        port = self.listener.getsockname()[1]
        self.port = port
        self.stats.update(lambda d: d.__setitem__("port", port))
        self.stats.flush(force=True)
        thread = threading.Thread(target=self._accept_loop, name="pool-accept", daemon=True)
        thread.start()
        self.threads.append(thread)
        return port

    def stop(self):
        self.stopping.set()
        for thread in list(self.threads):
            thread.join(timeout=5)
        self.stats.flush(force=True)
        if self.listener:
            self.listener.close()
        if self.transcript:
            self.transcript.close()
            self.transcript = None

    def _accept_loop(self):
        if self.refuse_for > 0:
            self.stopping.wait(self.refuse_for)
            self.listener.listen(16)
            self.log(f"accepting connections after {self.refuse_for:g} s")
        while not self.stopping.is_set():
            # The short wait doubles as the ticker that writes held-back counts.
            ready, _, _ = select.select([self.listener], [], [], Stats.WRITE_SPACING)
            self.stats.flush()
            if not ready:
                continue
            try:
                sock, peer = self.listener.accept()
            except OSError:
                continue
            with self.lock:
                self.connection_counter += 1
                number = self.connection_counter
            index = number - 1
            options = self.connection_options[index] if index < len(self.connection_options) else self.options
            session = Session(self, sock, number, options)
            self.log(f"connection {number} from {peer[0]}:{peer[1]}")
            thread = threading.Thread(target=session.run, name=f"pool-conn-{number}", daemon=True)
            thread.start()
            self.threads.append(thread)


class ConnectionClosed(Exception):
    pass


class Session:
    """One client connection, run on its own thread."""

    def __init__(self, pool, sock, number, options):
        self.pool = pool
        self.sock = sock
        self.number = number
        self.o = options
        self.started = time.monotonic()
        if options.extranonce1 == "auto":
            self.extranonce1 = struct.pack(">I", number & 0xFFFFFFFF)
        else:
            self.extranonce1 = bytes.fromhex(options.extranonce1)
        self.subscribed = False
        self.authorized = False
        self.worker = None
        self.difficulty = 1.0        # what the miner holds, as far as this pool has told it
        self.jobs = {}
        self.jobs_sent = 0
        self.lines_sent = 0
        self.messages_received = 0
        self.next_notify = None
        self.pending_authorize = None  # (deadline, id)
        self.authorized_at = None
        self.extranonce_switched = False
        self.close_reason = None
        self.requests_sent = {}       # id -> method of the pool's own requests
        self.reconnect_sent = pool.reconnect_asked
        self.good_shares = 0
        self.answers_sent = 0
        self.delayed_answers = []     # (due, message) in order, for submit_delay
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # A client that stops reading must not hold a session (and the pool's stop) forever.
        sock.settimeout(10)

    # Writing.

    def _write(self, data: bytes):
        self.pool.stats.flush()
        self.sock.sendall(data)

    def send_raw(self, line: bytes, count=True):
        """Writes one line, in pieces if asked, with garbage ahead of it if asked."""
        if count:
            self.lines_sent += 1
            if self.o.garbage_every and self.lines_sent % self.o.garbage_every == 0:
                garbage = GARBAGE_LINES[(self.lines_sent // self.o.garbage_every - 1) % len(GARBAGE_LINES)]
                self.pool.record(self.number, ">", garbage)
                self._write(garbage)
        self.pool.record(self.number, ">", line)
        pieces = min(self.o.split_lines, len(line))
        if pieces <= 1:
            self._write(line)
            return
        if self.o.split_random:
            cuts = sorted(self.pool.random_sample(range(1, len(line)), pieces - 1))
        else:
            step = -(-len(line) // pieces)
            cuts = list(range(step, len(line), step))
        for start, end in zip([0] + cuts, cuts + [len(line)]):
            if start:
                time.sleep(self.o.split_delay)
            self._write(line[start:end])

    def send(self, message: dict):
        if self.o.jsonrpc2:
            message = {"jsonrpc": "2.0", **message}
        self.send_raw(json.dumps(message, separators=(",", ":")).encode() + b"\n")

    def respond(self, msg_id, result, delay=0.0):
        if self.o.jsonrpc2:
            self.answer({"id": msg_id, "result": result}, delay)
        else:
            self.answer({"id": msg_id, "result": result, "error": None}, delay)

    def respond_error(self, msg_id, code, text, delay=0.0):
        if self.o.jsonrpc2:
            self.answer({"id": msg_id, "error": {"code": code, "message": text}}, delay)
        else:
            self.answer({"id": msg_id, "result": None, "error": [code, text, None]}, delay)

    def answer(self, message, delay):
        """Sends an answer now, or after `delay` seconds (in order with the others)."""
        if delay > 0 or self.delayed_answers:
            self.delayed_answers.append((time.monotonic() + delay, message))
        else:
            self.send(message)

    def request(self, method, msg_id, params):
        """A request of the pool's own; the miner's answer is counted by method."""
        if msg_id is not None:
            self.requests_sent[msg_id] = method
        self.send({"id": msg_id, "method": method, "params": params})

    def send_requests(self):
        for n, method in enumerate(self.o.requests):
            if method == "client.get_version":
                self.request(method, f"v{n}", [])
            elif method == "mining.ping":
                self.request(method, 100 + n, [])
            else:
                self.request(method, None, [f"Hello from test pool connection {self.number}"])

    def send_reconnect(self):
        self.reconnect_sent = self.pool.reconnect_asked = True
        host = "127.0.0.1" if self.o.reconnect == "same" else "pool.elsewhere.example"
        self.pool.stats.count("reconnects_sent")
        self.send({"id": None, "method": "client.reconnect", "params": [host, self.pool.port, self.o.reconnect_wait]})

    def notify(self, method, params):
        message = {}
        if self.o.notify_id != "absent":
            message["id"] = self.o.notify_id
        message["method"] = method
        message["params"] = params
        self.send(message)

    # Pool side of the conversation.

    def announce_difficulty(self, before_authorize=False):
        # The miner takes mining.set_target only once it is mining, so before
        # authorization the difficulty always goes as mining.set_difficulty.
        mode = "difficulty" if before_authorize and self.o.target_mode != "none" else self.o.target_mode
        if mode == "difficulty":
            self.notify("mining.set_difficulty", [self.o.difficulty])
            self.difficulty = self.o.difficulty
        elif mode == "both":
            self.notify("mining.set_difficulty", [self.o.difficulty / 4])
            self.notify("mining.set_target", [targets.target_hex(targets.difficulty_to_target(self.o.difficulty))])
            self.difficulty = self.o.difficulty
        elif mode == "target":
            if self.o.target:
                target = int(self.o.target, 16)
            else:
                target = targets.difficulty_to_target(self.o.difficulty)
            self.notify("mining.set_target", [targets.target_hex(target)])
            self.difficulty = targets.target_to_difficulty(target)

    def resend_newest_job(self):
        """Sends the pool's newest job as it was, if it was made for this extranonce."""
        with self.pool.lock:
            newest = self.pool.newest_job
        if newest is None or newest[0].extranonce1 != self.extranonce1:
            return False
        job, params = newest
        self.jobs[job.job_id] = dataclasses.replace(job, stale=False)
        self.notify("mining.notify", params)
        self.pool.stats.count("jobs")
        return True

    def send_job(self):
        self.jobs_sent += 1
        kind = self.o.bad_job if self.o.bad_job and self.jobs_sent % self.o.bad_job_every == 0 else ""
        job_id = self.pool.next_job_id(self.o.job_id_digits)
        header = self.pool.random_bytes(32)
        prev_hash = self.pool.random_bytes(32)
        height = 1000 + self.jobs_sent
        header_text, prev_text, clean = header.hex(), prev_hash.hex(), kind != "not-clean"
        if kind == "invalid-hex":
            header_text = "zz" + header_text[2:]
        elif kind == "hex-prefix":
            header_text, prev_text = "0x" + header_text, "0x" + prev_text
        elif kind == "short-header":
            header_text = header_text[:62]
        elif kind == "short-prevhash":
            prev_text = prev_text[:62]
        params = [job_id, header_text, height, prev_text, clean]
        if kind == "four-params":
            params = params[:4]
        if kind not in REFUSED_BAD_JOBS:
            if clean:
                for job in self.jobs.values():
                    job.stale = True
            target = targets.difficulty_to_target(self.difficulty)
            self.jobs[job_id] = Job(job_id, header, prev_hash, height, self.extranonce1,
                                    self.difficulty, target, eaglesong.midstate(header))
            with self.pool.lock:
                self.pool.newest_job = (self.jobs[job_id], params)
            while len(self.jobs) > JOB_HISTORY:
                del self.jobs[next(iter(self.jobs))]
        self.notify("mining.notify", params)
        self.pool.stats.count("jobs")
        if (self.o.set_extranonce and not self.extranonce_switched
                and self.jobs_sent == self.o.set_extranonce_after):
            self.extranonce_switched = True
            self.extranonce1 = bytes.fromhex(self.o.set_extranonce)
            size = self.o.set_extranonce_size
            if size < 0:
                size = max(0, 16 - len(self.extranonce1))
            self.notify("mining.set_extranonce", [self.o.set_extranonce, size])

    def on_connect(self):
        if self.o.notify_before_subscribe:
            self.send_job()

    def on_subscribe(self, msg_id):
        self.pool.stats.count("subscribes")
        mode = self.o.subscribe
        if mode == "silent":
            return
        if mode == "error":
            self.respond_error(msg_id, 20, "Subscription refused")
            return
        if mode == "not-array":
            self.respond(msg_id, True)
            return
        subscriptions = [["mining.set_difficulty", d] for d in self.o.subscribe_difficulty]
        subscriptions.append(["mining.notify", f"{self.number:08x}"])
        shape = self.o.subscribe_shape
        if shape != "pairs":
            subscriptions = {"null": None, "empty": [], "notify-pair": [["mining.notify", f"{self.number:016x}"]],
                             "session-id": f"{self.number:08x}"}[shape]
        size = self.o.extranonce2_size
        if size < 0:
            size = max(0, 16 - len(self.extranonce1))
        result = [subscriptions, self.extranonce1.hex(), size]
        if mode == "short":
            result = result[:2]
        self.respond(msg_id, result)
        if mode == "short":
            return
        self.subscribed = True
        if self.o.subscribe_difficulty:
            self.difficulty = self.o.subscribe_difficulty[-1]
        if self.o.notify_before_authorize:
            self.announce_difficulty(before_authorize=True)
            self.send_job()

    def on_authorize(self, msg_id, params):
        if self.o.authorize == "silent":
            return
        if self.o.authorize_delay > 0:
            self.pending_authorize = (time.monotonic() + self.o.authorize_delay, msg_id, params)
            return
        self.answer_authorize(msg_id, params)

    def answer_authorize(self, msg_id, params):
        if self.o.authorize == "false":
            self.respond(msg_id, False)
            return
        if self.o.authorize == "error":
            self.respond_error(msg_id, 24, "Unauthorized worker")
            return
        self.authorized = True
        self.authorized_at = time.monotonic()
        self.worker = params[0] if isinstance(params, list) and params and isinstance(params[0], str) else ""
        self.pool.stats.count("authorized")
        self.respond(msg_id, True)
        if self.o.requests:
            self.send_requests()
        if self.o.huge_line > 0:
            self.send_huge_line()
        self.announce_difficulty()
        if not (self.o.resend_job and self.resend_newest_job()):
            self.send_job()
        self.next_notify = time.monotonic() + self.o.notify_interval

    def send_huge_line(self):
        head = b'{"id":null,"method":"client.show_message","params":["'
        tail = b'"]}\n'
        filler = max(1, self.o.huge_line - len(head) - len(tail))
        self.send_raw(head + b"x" * filler + tail)

    def on_submit(self, msg_id, params):
        self.pool.stats.count("submits")
        reason, job, nonce = self.judge(params)
        job_text = params[1] if isinstance(params, list) and len(params) > 1 else None
        delay = self.o.submit_delay
        self.answers_sent += 1
        if not reason and self.o.reject_every:
            self.good_shares += 1
            if self.good_shares % self.o.reject_every == 0:
                reason = "forced"
        if reason == "forced" and self.o.reject_with == "none":
            self.pool.stats.update(lambda d: (d.__setitem__("rejected", d["rejected"] + 1),
                                              d["rejected_by_reason"].__setitem__("forced",
                                                                                  d["rejected_by_reason"]["forced"] + 1)))
            self.respond(msg_id, False, delay)
            return
        if reason:
            code, text = REJECTIONS[reason]
            if reason == "forced":
                code, text = self.o.reject_with.split(":", 1)
                code = int(code)

            def book(d):
                d["rejected"] += 1
                d["rejected_by_reason"][reason] += 1
            self.pool.stats.update(book)
            shown = nonce.hex() if nonce else (params[2] if isinstance(params, list) and len(params) > 2 else None)
            self.pool.log(f"share rejected ({reason}): connection {self.number}, job {job_text!r}, nonce {shown!r}")
            self.respond_error(msg_id, code, text, delay)
            return
        self.pool.stats.count("accepted")
        self.pool.log(f"share accepted: connection {self.number}, job {job.job_id}, nonce {nonce.hex()}, "
                      f"difficulty {job.difficulty:g}")
        self.respond(msg_id, True, delay)

    def judge(self, params):
        """Returns (rejection reason or None, job, full nonce)."""
        if not isinstance(params, list) or len(params) < 3 or not all(isinstance(p, str) for p in params[:3]):
            return "malformed", None, None
        worker, job_id, nonce_text = params[:3]
        if not self.authorized or worker != self.worker:
            return "unauthorized", None, None
        job = self.jobs.get(job_id)
        if job is None:
            return "unknown-job", None, None
        if job.stale:
            return "stale", job, None
        if len(nonce_text) % 2 or not HEX_RE.fullmatch(nonce_text):
            return "invalid-nonce", job, None
        nonce = job.extranonce1 + bytes.fromhex(nonce_text)
        if len(nonce) != 16:
            return "invalid-nonce", job, None
        digest = eaglesong.hash_with_midstate(job.midstate, nonce)
        if eaglesong.hash_value(digest) > job.target:
            return "low-difficulty", job, nonce
        if not self.pool.claim_share((job.job_id, nonce)):
            return "duplicate", job, nonce
        return None, job, nonce

    # Reading and timing.

    def handle_line(self, line: bytes):
        self.pool.record(self.number, "<", line)
        try:
            message = json.loads(line)
        except ValueError:
            message = None
        if not isinstance(message, dict):
            self.pool.stats.count("bad_lines_received")
            return
        self.messages_received += 1
        method = message.get("method")
        msg_id = message.get("id")
        params = message.get("params")
        if isinstance(method, str):
            self.pool.stats.update(lambda d: d["methods"].__setitem__(method, d["methods"].get(method, 0) + 1))
        if method == "mining.subscribe":
            self.on_subscribe(msg_id)
        elif method == "mining.extranonce.subscribe":
            if self.o.extranonce_subscribe == "answer":
                self.respond(msg_id, True)
        elif method is None and msg_id in self.requests_sent:
            answered = self.requests_sent.pop(msg_id)
            self.pool.stats.update(lambda d: d["answers"].__setitem__(answered, d["answers"].get(answered, 0) + 1))
        elif method == "mining.authorize":
            self.on_authorize(msg_id, params)
        elif method == "mining.submit":
            self.on_submit(msg_id, params)
        elif method is not None and msg_id is not None:
            self.respond_error(msg_id, 20, "Unknown method")
        if self.o.close_after and self.messages_received >= self.o.close_after:
            raise ConnectionClosed(f"after {self.messages_received} messages")

    def inject_lines(self):
        """Sends the bytes of each *.line file in inject_dir, in name order, as
        one line each, and removes the file. A test writes a file when it wants
        its line sent; whatever bytes it holds go out as they are."""
        try:
            names = sorted(n for n in os.listdir(self.o.inject_dir) if n.endswith(".line"))
        except OSError:
            return
        for name in names:
            path = os.path.join(self.o.inject_dir, name)
            claimed = f"{path}.{self.number}.sent"
            try:
                os.rename(path, claimed)  # another session may be after it too
            except OSError:
                continue
            with open(claimed, "rb") as source:
                line = source.read()
            os.remove(claimed)
            if not line.endswith(b"\n"):
                line += b"\n"
            self.send_raw(line, count=False)
            self.pool.stats.count("injected")
            self.pool.log(f"connection {self.number}: injected {name} ({len(line)} bytes)")

    def run_timers(self):
        now = time.monotonic()
        while self.delayed_answers and self.delayed_answers[0][0] <= now:
            self.send(self.delayed_answers.pop(0)[1])
        if self.o.inject_dir and self.authorized:
            self.inject_lines()
        if (self.o.reconnect and not self.reconnect_sent and self.authorized_at is not None
                and now - self.authorized_at >= self.o.reconnect_after):
            self.send_reconnect()
        if self.o.close_at and now - self.started >= self.o.close_at:
            raise ConnectionClosed(f"after {self.o.close_at:g} s")
        if self.pending_authorize and now >= self.pending_authorize[0]:
            _, msg_id, params = self.pending_authorize
            self.pending_authorize = None
            self.answer_authorize(msg_id, params)
        if self.next_notify is not None and now >= self.next_notify:
            self.send_job()
            self.next_notify += self.o.notify_interval
            if self.next_notify < now:
                self.next_notify = now + self.o.notify_interval

    def wait_time(self):
        deadlines = [time.monotonic() + 0.1]
        if self.o.silent_after and self.authorized_at is not None:
            deadlines.append(self.authorized_at + self.o.silent_after)
        if self.o.close_at:
            deadlines.append(self.started + self.o.close_at)
        if self.pending_authorize:
            deadlines.append(self.pending_authorize[0])
        if self.delayed_answers:
            deadlines.append(self.delayed_answers[0][0])
        if self.o.reconnect and not self.reconnect_sent and self.authorized_at is not None:
            deadlines.append(self.authorized_at + self.o.reconnect_after)
        if self.next_notify is not None:
            deadlines.append(self.next_notify)
        return max(0.0, min(deadlines) - time.monotonic())

    def run(self):
        self.pool.stats.update(lambda d: (d.__setitem__("connections", d["connections"] + 1),
                                          d.__setitem__("open_connections", d["open_connections"] + 1)))
        self.pool.stats.flush()
        reason = "by the client"
        buffer = b""
        try:
            if self.pool.tls:
                self.sock = self.pool.tls.wrap_socket(self.sock, server_side=True)
            self.on_connect()
            while not self.pool.stopping.is_set():
                if ((self.o.silent_after and self.authorized_at is not None
                        and time.monotonic() - self.authorized_at >= self.o.silent_after)
                        or (self.o.silent_after_answers and self.answers_sent >= self.o.silent_after_answers
                            and not self.delayed_answers)):
                    # Gone quiet: the connection stays open, nothing is read or written.
                    time.sleep(0.1)
                    continue
                ready, _, _ = select.select([self.sock], [], [], self.wait_time())
                if ready:
                    data = self.sock.recv(65536)
                    if not data:
                        break
                    # TLS may hold decrypted bytes that select() can't see.
                    while isinstance(self.sock, ssl.SSLSocket) and self.sock.pending():
                        data += self.sock.recv(65536)
                    buffer += data
                    while b"\n" in buffer:
                        line, buffer = buffer.split(b"\n", 1)
                        if line.strip():
                            self.handle_line(line)
                            self.pool.stats.flush()
                    if len(buffer) > MAX_LINE:
                        raise ConnectionClosed("line too long from the client")
                self.run_timers()
            else:
                reason = "pool stopping"
        except ConnectionClosed as closed:
            reason = f"by the pool {closed}"
            if self.o.close_mode == "reset":
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                reason += " (reset)"
        except OSError as error:
            reason = f"on error: {error}"
        finally:
            self.sock.close()
            self.pool.stats.update(lambda d: d.__setitem__("open_connections", d["open_connections"] - 1))
            self.pool.stats.flush()
            self.pool.log(f"connection {self.number} closed {reason}")


def build_parser():
    parser = argparse.ArgumentParser(description="Stratum test pool for the miner's dialect.",
                                     argument_default=argparse.SUPPRESS)
    add = parser.add_argument
    add("--port", type=int, default=0, help="TCP port on 127.0.0.1; 0 picks a free one")
    add("--stats", default="", help="JSON file with the counts, rewritten after every change")
    add("--transcript", default="", help="file that records every line in (<) and out (>)")
    add("--duration", type=float, default=0.0, help="exit after this many seconds (0: run until signalled)")
    add("--seed", type=int, default=None, help="seed for the job hashes")
    add("--job-prefix", default="", help="text in front of every job id, so that pools' jobs differ")
    add("--script", default="", help="JSON file with settings; its \"connections\" list applies per connection")
    add("--quiet", action="store_true", default=False, help="no log lines")
    add("--extranonce1", help="hex, or auto (4 bytes: the connection number)")
    add("--extranonce2-size", type=int, help="sent in the subscribe answer (default: 16 - extranonce1 bytes)")
    add("--subscribe-difficulty", type=float, action="append",
        help="add a [\"mining.set_difficulty\", D] pair to the subscribe answer (repeatable)")
    add("--difficulty", type=float, help="share difficulty announced after authorize")
    add("--target-mode", choices=TARGET_MODES, help="announce by mining.set_difficulty, mining.set_target or not")
    add("--target", help="hex target for mining.set_target (default: from --difficulty)")
    add("--notify-interval", type=float, help="seconds between jobs")
    add("--subscribe", choices=SUBSCRIBE_MODES, help="subscribe answer: ok, short (two elements), error, "
        "not-array, silent")
    add("--authorize", choices=AUTHORIZE_MODES, help="authorize answer: accept, false, error, silent")
    add("--authorize-delay", type=float, help="seconds before the authorize answer")
    add("--close-after", type=int, help="close after handling this many client messages")
    add("--close-at", type=float, help="close this many seconds after accepting")
    add("--close-mode", choices=CLOSE_MODES, help="close normally or by reset")
    add("--notify-before-subscribe", action="store_true", help="send a job before the subscribe answer")
    add("--notify-before-authorize", action="store_true",
        help="send the difficulty and a job between the subscribe and authorize answers")
    add("--split-lines", type=int, help="write every line in this many pieces")
    add("--split-delay", type=float, help="seconds between the pieces of a line")
    add("--split-random", action="store_true", help="cut lines at random bytes instead of evenly")
    add("--silent-after", type=float, help="seconds after authorizing from which nothing is read or written")
    add("--resend-job", action="store_true", help="a new connection first gets the pool's newest job again")
    add("--tls-cert", default="", help="serve TLS with this PEM certificate (chain)")
    add("--tls-key", default="", help="the certificate's PEM key")
    add("--refuse-for", type=float, default=0.0, help="refuse connections for this many seconds after start")
    add("--garbage-every", type=int, help="write a garbage line before every n-th line")
    add("--set-extranonce", help="hex extranonce1 sent by mining.set_extranonce")
    add("--set-extranonce-size", type=int, help="extranonce2 size sent with it")
    add("--set-extranonce-after", type=int, help="send it after this many jobs")
    add("--notify-id", type=_notify_id, help="id of notifications: null, absent, a number or a string")
    add("--huge-line", type=int, help="send one line of this many bytes after authorize")
    add("--bad-job", choices=BAD_JOBS, help="send malformed jobs of this kind")
    add("--bad-job-every", type=int, help="every n-th job is the bad one")
    add("--jsonrpc2", action="store_true", help="JSON-RPC 2.0 form (jsonrpc member, error objects)")
    add("--profile", default="", choices=[""] + sorted(PROFILES), help="speak as some real pools do (settings of PROFILES); "
        "other options override it")
    add("--subscribe-shape", choices=SUBSCRIBE_SHAPES, help="first element of the subscribe answer")
    add("--job-id-digits", type=int, help="job ids of this many hex digits")
    add("--extranonce-subscribe", choices=EXTRANONCE_SUBSCRIBE_MODES, help="answer mining.extranonce.subscribe or not")
    add("--request", dest="requests", action="append", choices=POOL_REQUESTS,
        help="send this request once a connection is authorized (repeatable)")
    add("--reconnect", choices=[m for m in RECONNECT_MODES if m], help="send client.reconnect to the pool's own "
        "host (same) or another")
    add("--reconnect-after", type=float, help="seconds after authorizing for client.reconnect")
    add("--reconnect-wait", type=float, help="the wait client.reconnect asks for")
    add("--reject-every", type=int, help="reject every n-th good share on purpose (counted as forced)")
    add("--reject-with", help="how: none ({\"result\":false,\"error\":null}) or CODE:TEXT")
    add("--submit-delay", type=float, help="seconds before a share is answered")
    add("--silent-after-answers", type=int, help="go silent once this many shares are answered")
    add("--inject-dir", help="once authorized, send the bytes of each NAME.line file put in this directory as "
        "one line, in name order, and remove the file")
    return parser


def _notify_id(text):
    if text in ("null", "absent"):
        return None if text == "null" else "absent"
    try:
        return int(text)
    except ValueError:
        return text


GLOBAL_KEYS = ("port", "stats", "transcript", "duration", "seed", "script", "quiet", "refuse_for", "tls_cert",
               "tls_key", "job_prefix", "profile")


def options_from_arguments(argv):
    """(SessionOptions, per-connection settings, global settings) from the command line."""
    arguments = vars(build_parser().parse_args(argv))
    globals_ = {key: arguments.pop(key) for key in GLOBAL_KEYS}
    options = SessionOptions()
    if globals_["profile"]:
        options = apply_settings(options, PROFILES[globals_["profile"]], f"profile {globals_['profile']}")
    connections = []
    if globals_["script"]:
        with open(globals_["script"]) as source:
            script = json.load(source)
        if not isinstance(script, dict):
            raise ValueError("script: must be a JSON object")
        connections = script.pop("connections", [])
        if not isinstance(connections, list) or not all(isinstance(c, dict) for c in connections):
            raise ValueError("script: connections must be a list of objects")
        options = apply_settings(options, script, "script")
    options = apply_settings(options, arguments, "command line")
    return options, connections, globals_


def main(argv=None):
    try:
        options, connections, settings = options_from_arguments(argv)
        pool = Pool(options, connections, stats_path=settings["stats"], transcript_path=settings["transcript"],
                    seed=settings["seed"], port=settings["port"], quiet=settings["quiet"],
                    refuse_for=settings["refuse_for"], tls_cert=settings["tls_cert"],
                    tls_key=settings["tls_key"], job_prefix=settings["job_prefix"])
    except (ValueError, OSError) as error:
        print(f"pool: {error}", file=sys.stderr)
        return 2
    # The stop signals are taken by sigwait, not by a handler: a handler that
    # sets an Event deadlocks on the Event's own lock when the signal lands
    # while the main thread holds it. Blocked before the threads start, so
    # none of them takes a signal either.
    stop_signals = {signal.SIGTERM, signal.SIGINT}
    signal.pthread_sigmask(signal.SIG_BLOCK, stop_signals)
    port = pool.start()
    print(f"listening on 127.0.0.1:{port}", flush=True)
    if settings["duration"] > 0:
        signal.sigtimedwait(stop_signals, settings["duration"])
    else:
        signal.sigwait(stop_signals)
    pool.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
