"""The daemon on a private directory, and its peers: a source, a playlist client, a playlist reader."""
import glob
import gzip
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from dataclasses import dataclass

LUMO = os.environ.get("LUMO_BIN", "")
RING = os.environ.get("LUMO_RING_BIN", "")
LIMIT = 20.0  # seconds that any awaited event may take
BAD_WORDS = ("ASSERT at", "Aborting at", "AddressSanitizer", "LeakSanitizer", "runtime error:", "Assertion")
IS_ROOT = os.geteuid() == 0

def until(check, what="the event", limit=LIMIT, poke=None):
    """Polls for an observable event; `poke` is run between the looks."""
    deadline = time.monotonic() + limit
    while True:
        value = check()
        if value:
            return value
        assert time.monotonic() < deadline, f"waited {limit} s in vain for {what}"
        if poke:
            poke()
        time.sleep(0.005)

def libconfig(value):
    if isinstance(value, dict):
        return "{ " + " ".join(f"{k}: {libconfig(v)};" for k, v in value.items() if v is not None) + " }"
    if isinstance(value, bool):
        return "true" if value else "false"
    return f'"{value}"' if isinstance(value, str) else f"{value}L"

def merged(base, extra):
    out = dict(base)
    for key, value in extra.items():
        both = isinstance(value, dict) and isinstance(out.get(key), dict)
        out[key] = merged(out[key], value) if both else value
    return out

def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]

def connect(path):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.connect(path)  # blocking: waits while the queue of pending connections is full
    sock.settimeout(LIMIT)
    return sock

def at_end(sock, limit=LIMIT):
    """Whether the peer closes the connection; what it sends before is dropped."""
    sock.settimeout(limit)
    try:
        while sock.recv(4096):
            pass
        return True
    except (ConnectionResetError, BrokenPipeError):
        return True
    except (TimeoutError, BlockingIOError):
        return False

class Daemon:
    def __init__(self, **settings):
        self.dir = tempfile.mkdtemp(prefix="lumo-")
        self.data = self.path("data")
        os.mkdir(self.data)
        self.log, self.conf = self.path("log"), self.path("lum.conf")
        self.src_sock, self.pl_sock = self.path("src"), self.path("pl")
        self.settings = merged({
            "log": {"file": self.log, "level": "info", "enable_syslog": False},
            "runtime": {"non_daemon": True, "quiet": True, "enforce_core_dumps": False},
            "src_socket": self.src_sock, "pl_socket": self.pl_sock, "data_dir": self.data,
            "src_tmout_sec": 300, "task_tmout_sec": 100}, settings)
        self.proc = None
        self.pid = 0
        self.peers = []  # kept open until the end
        self.write_config()

    def path(self, *names):
        return os.path.join(self.dir, *names)

    def write_config(self, **settings):
        self.settings = merged(self.settings, settings)
        with open(self.conf, "w") as out:
            out.write(f"lum: {libconfig(self.settings)};\n")

    def reload(self, **settings):
        since = self.mark()
        self.write_config(**settings)
        self.proc.send_signal(signal.SIGHUP)
        self.wait_log("Configuration reloaded", since=since)

    # --- life ---

    def launch(self, *args, **popen):
        reports = f"log_path={self.path('sanitizer')}"
        env = dict(os.environ, ASAN_OPTIONS=reports, UBSAN_OPTIONS=reports + ":print_stacktrace=1")
        args = args or ("-C", self.conf)
        with open(self.path("stderr"), "ab") as err:
            self.proc = subprocess.Popen([LUMO, *args], stdin=subprocess.DEVNULL, stdout=err, stderr=err,
                                         cwd=self.dir, env=env, **popen)
        self.pid = self.proc.pid
        return self

    def start(self, *args, **popen):
        self.launch(*args, **popen)
        until(lambda: self.is_listening() or self.proc.poll() is not None, "the start")
        assert self.proc.poll() is None, self.all_text()
        return self

    def is_listening(self):
        try:
            self.poke()
            return True
        except OSError:
            return False

    def refuse(self, *args):
        """A start that must fail: what it said."""
        self.launch(*args)
        assert self.proc.wait(LIMIT) == 1, self.all_text()
        self.proc = None
        return self.all_text()

    def kill(self):
        self.proc.kill()
        self.proc.wait(LIMIT)
        self.proc = None
        self.check_text()

    def stop(self, signo=signal.SIGTERM, code=0):
        if self.proc:
            self.proc.send_signal(signo)
            try:
                self.proc.wait(LIMIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
            rc, self.proc = self.proc.returncode, None
            assert rc == code, f"exit code {rc}\n" + self.all_text()[-4000:]
        self.check_text()

    def check_text(self):
        text = self.all_text()
        for word in BAD_WORDS:
            assert word not in text, text[max(0, text.index(word) - 3000):][:6000]

    def close(self):
        try:
            self.stop()
        finally:
            for peer in self.peers:
                peer.sock.close()
            shutil.rmtree(self.dir, ignore_errors=True)

    # --- the log ---

    @staticmethod
    def read(path):
        try:
            with open(path, "rb") as text:
                return text.read().decode("utf-8", "replace")
        except FileNotFoundError:
            return ""

    def log_text(self):
        return self.read(self.log)

    def rotated(self):
        return sorted(glob.glob(self.log + ".*"))

    def all_text(self):
        names = self.rotated() + [self.log, self.path("stderr")] + glob.glob(self.path("sanitizer*"))
        return "".join(self.read(name) for name in names)

    def mark(self):
        return len(self.log_text())

    def wait_log(self, pattern, since=0, count=1, poke=False):
        """Waits until a regular expression has matched `count` times in the current log."""
        def look():
            assert self.proc is None or self.proc.poll() is None, "the daemon died\n" + self.all_text()[-4000:]
            found = list(re.finditer(pattern, self.log_text()[since:]))
            return found[count - 1] if len(found) >= count else None
        return until(look, f"[{pattern}] in the log", poke=self.poke if poke else None)

    # --- peers ---

    def poke(self):
        """Wakes the event loop up."""
        connect(self.pl_sock).close()

    def source(self, name="chan", **kw):
        return Source(self, name, **kw)

    def client(self):
        return Client(self)

    def ask(self, line):
        client = self.client()
        try:
            return client.ask(line)
        finally:
            client.close()

    def is_answering(self):
        """The proof of life: a whole round through the loop."""
        reply = self.ask("Tlife LIV no-such-source")
        assert reply.raw == "Tlife ERROR HTTP:404 - source not found\n"
        return True

    def files(self, pattern):
        return sorted(glob.glob(os.path.join(self.data, pattern)))

@dataclass
class Segment:
    path: str
    start: int
    dur: float
    full: str

    def line(self, size=None, pts=None):
        size = os.path.getsize(self.full) if size is None else size
        pts = self.start * 90000 if pts is None else pts
        return f"SEGMENT: {self.path} {self.start} {self.dur} {size} 7 {pts} rest"

    def exists(self):
        return os.path.exists(self.full)

class Source:
    def __init__(self, daemon, name="chan", params=None, start=None, extra="", wait=True):
        self.d, self.name = daemon, name
        self.dirname = name.replace("~", "b-")
        self.next_start = start if start is not None else int(time.time()) - 600
        self.count = 0
        self.params = f"max_sec=3600 data_dir={daemon.data}" if params is None else params
        os.makedirs(os.path.join(daemon.data, self.dirname), exist_ok=True)
        mark = daemon.mark()
        self.sock = connect(daemon.src_sock)
        daemon.peers.append(self)
        self.send(f"S1 init {name} {self.params}\n{extra}")
        if wait:
            daemon.wait_log(rf"src\[{re.escape(name)}\] fd\d+ .*(created|restored)", since=mark)

    def send(self, text):
        self.sock.sendall(text if isinstance(text, bytes) else text.encode())

    def segment(self, dur=1.0):
        """Writes the next segment file."""
        path = f"{self.dirname}/s{self.count}.ts"
        seg = Segment(path, self.next_start, dur, os.path.join(self.d.data, path))
        with open(seg.full, "wb") as out:
            out.write(b"x" * 188)
        self.count += 1
        self.next_start += max(1, round(dur))
        return seg

    def put(self, *segs, wait=True):
        for seg in segs:
            self.send(seg.line() + "\n")
        if wait and segs:
            self.wait(segs[-1].path)

    def feed(self, count=1, dur=1.0, wait=True):
        segs = [self.segment(dur) for _ in range(count)]
        self.put(*segs, wait=wait)
        return segs

    def wait(self, path):
        return self.d.wait_log(rf"added LIVE .*channel\[.*\] {re.escape(path)}\n")

    def cut(self):
        self.send("SEGMENT: DISCONTINUITY\n")

    def close(self):
        """Breaks the connection and waits until it is noticed."""
        mark = self.d.mark()
        self.sock.close()
        self.d.wait_log(rf"suspend_source: src\[{re.escape(self.name)}\]", since=mark)

class Client:
    def __init__(self, daemon):
        self.sock = connect(daemon.pl_sock)
        daemon.peers.append(self)
        self.buf = b""

    def send(self, text):
        self.sock.sendall(text if isinstance(text, bytes) else text.encode())

    def read_reply(self):
        while b"\n" not in self.buf:
            more = self.sock.recv(4096)
            if not more:
                raise EOFError("closed without an answer")
            self.buf += more
        line, self.buf = self.buf.split(b"\n", 1)
        return Reply(line.decode() + "\n")

    def ask(self, line):
        self.send(line + "\n")
        return self.read_reply()

    def close(self):
        self.sock.close()

class Reply:
    def __init__(self, raw):
        self.raw = raw
        good = re.fullmatch(r"(\S+) (gzip|text)/M3U (\S+) \n", raw)
        bad = re.fullmatch(r"(\S+) ERROR HTTP:(\d+) - (.+)\n", raw)
        assert good or bad, raw
        self.tag, self.form, self.path = good.groups() if good else (bad[1], None, None)
        self.error = (int(bad[2]), bad[3]) if bad else None

    @property
    def playlist(self):
        assert self.path, self.raw
        return Playlist(self.path)

class Playlist:
    """Reads a playlist file of either form; every line must be a known one."""
    FORM = re.compile(r"#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n(?:#EXT-X-PLAYLIST-TYPE:(\w+)\n)?"
                      r"#EXT-X-TARGETDURATION:\d+\n#EXT-X-MEDIA-SEQUENCE:(\d+)\n"
                      r"((?:#EXT-X-DISCONTINUITY\n|#EXTINF:-?\d+\.\d{6},\n.*\n)*)(#EXT-X-ENDLIST\n)?")

    def __init__(self, path):
        with open(path, "rb") as file:
            raw = file.read()
        self.is_gzipped = raw[:2] == b"\x1f\x8b"
        self.text = (gzip.decompress(raw) if self.is_gzipped else raw).decode()
        form = self.FORM.fullmatch(self.text)
        assert form, self.text
        self.type, self.first, self.is_ended = form[1], int(form[2]), bool(form[4])
        lines = [line for line in form[3].splitlines() if not line.startswith("#EXTINF")]
        self.items = ["DIS" if line == "#EXT-X-DISCONTINUITY" else line for line in lines]

    @property
    def names(self):
        """The items by the last part of their paths."""
        return [os.path.basename(item) for item in self.items]

def names(segs):
    return [os.path.basename(seg.path) for seg in segs]
