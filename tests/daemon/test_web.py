"""The front end: real daemon, real HTTP. Routes and headers, files and what is none, sessions, bad connections,
and a daemon that is away, hangs, answers nonsense or takes a playlist away."""
import gzip
import http.client
import json
import os
import re
import signal
import socket
import subprocess
import threading
import time

import pytest

from harness import BAD_WORDS, LIMIT, free_port, until

WEB = os.environ.get("LUMO_WEB_BIN", "")
pytestmark = pytest.mark.skipif(not WEB, reason="built without the front end")

class Web:
    def __init__(self, dir, data, pl_sock, *args):
        self.port = free_port()
        self.errors = os.path.join(dir, "web.err")
        with open(self.errors, "ab") as err:
            self.proc = subprocess.Popen([WEB, "-d", data, "-Y", pl_sock, "-p", str(self.port), *args], stderr=err,
                                         env=dict(os.environ, UBSAN_OPTIONS="print_stacktrace=1"))
        until(self.is_up, "the front end")

    def is_up(self):
        assert self.proc.poll() is None, open(self.errors).read()
        with socket.socket() as sock:
            return sock.connect_ex(("127.0.0.1", self.port)) == 0

    def ask(self, path, method="GET", **headers):
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT)
        conn.request(method, path, headers={k.replace("_", "-"): v for k, v in headers.items()})
        answer = conn.getresponse()
        answer.body = answer.read()
        conn.close()
        return answer

    def status(self, path, **headers):
        return self.ask(path, **headers).status

    def raw(self, data=b""):
        sock = socket.create_connection(("127.0.0.1", self.port), timeout=LIMIT)
        sock.sendall(data)
        return sock

    def metric(self, name):
        return int(re.search(rf"^{name} (\d+)$", self.ask("/metrics").body.decode(), re.MULTILINE)[1])

    def close(self):
        self.proc.terminate()
        assert self.proc.wait(LIMIT) == 0
        text = open(self.errors).read()
        assert not any(word in text for word in BAD_WORDS), text

class FakeDaemon:
    """Answers every question by `reply(line)`; None = nothing at all."""
    def __init__(self, path, reply):
        self.path, self.reply, self.lines = path, reply, []
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.bind(path)
        self.sock.listen(64)
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                conn = self.sock.accept()[0]
            except OSError:
                return
            threading.Thread(target=self.talk, args=(conn,), daemon=True).start()

    def talk(self, conn):
        for line in conn.makefile():
            tag, question = line.rstrip("\n").split(" ", 1)
            self.lines.append(question)
            answer = self.reply(question)
            if answer is not None:
                conn.sendall(f"{tag} {answer}\n".encode())

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        os.unlink(self.path)

@pytest.fixture
def web(request):
    def start(dir, data, pl_sock, *args):
        one = Web(str(dir), str(data), str(pl_sock), *args)
        request.addfinalizer(one.close)
        return one
    return start

@pytest.fixture
def chan(lumo, web):
    """A daemon with ten minutes of segments, and a front end before it."""
    d = lumo(refresh_playlists=True, log={"hangups": "debug"})
    src = d.source(start=int(time.time()) - 600)
    segs = src.feed(60, dur=10.0)
    return d, src, segs, web(d.dir, d.data, d.pl_sock)

@pytest.fixture
def fake(tmp_path, web):
    """A front end before a made-up daemon."""
    made = []
    def start(reply, *args):
        made.append(FakeDaemon(str(tmp_path / "pl"), reply))
        return made[-1], web(tmp_path, tmp_path, made[-1].path, *args)
    yield start
    for one in made:
        one.close()

def playlist(body):
    return re.findall(r"^(?!#)(.+)$", body.decode(), re.MULTILINE)

def test_playlists(chan):
    d, src, segs, w = chan
    live = w.ask("/chan/live.m3u8", Origin="http://else.where")
    assert (live.status, live.headers["Content-Type"], live.headers["Cache-Control"]) == (
        200, "application/vnd.apple.mpegurl", "public, max-age=1")
    assert live.headers["Access-Control-Allow-Origin"] == "*" and not live.headers["Content-Encoding"]
    assert playlist(live.body) == [seg.path for seg in segs[-7:]]
    again = w.ask("/chan/live.m3u8", If_None_Match=f'"x", W/{live.headers["ETag"]}')
    assert (again.status, again.body, int(again.headers["Content-Length"])) == (304, b"", len(live.body))
    head = w.ask("/chan/live.m3u8", "HEAD")
    assert (head.status, head.body, int(head.headers["Content-Length"])) == (200, b"", len(live.body))
    packed, plain = w.ask("/chan/vod.m3u8", Accept_Encoding="br, gzip;q=0.5"), w.ask("/chan/vod.m3u8")
    assert packed.headers["Content-Encoding"] == "gzip" and not plain.headers["Content-Encoding"]
    assert gzip.decompress(packed.body) == plain.body and len(playlist(plain.body)) == 60
    assert packed.headers["ETag"] != plain.headers["ETag"] and plain.headers["Vary"] == "Accept-Encoding"
    for refusing in ("gzip;q=0", "identity", "*;q=0.0"):
        assert w.ask("/chan/vod.m3u8", Accept_Encoding=refusing).body == plain.body
    # Relative to the playlist and from the root, a segment is the same file.
    with open(segs[-1].full, "rb") as file:
        content = file.read()
    for url in ("/chan/" + segs[-1].path, "/" + segs[-1].path):
        segment = w.ask(url)
        assert (segment.status, segment.body, segment.headers["Content-Type"]) == (200, content, "video/mp2t")
    src.feed(1, dur=10.0)
    until(lambda: w.ask("/chan/live.m3u8").body != live.body, "the next playlist")

def test_locks_are_touched_while_watched(lumo, web):
    d = lumo(task_tmout_sec=4)
    d.source(params=f"max_sec=3600 data_dir={d.data}").feed(3)
    os.symlink(d.data, d.path("link"))
    w = web(d.dir, d.path("link"), d.pl_sock)
    w.ask("/chan/live.m3u8")
    lock, = d.files("*.alk")
    node, begun = os.stat(lock).st_ino, time.monotonic()
    until(lambda: w.status("/chan/live.m3u8") != 200 or w.metric("lumo_web_touches_total") > 6)
    assert os.stat(lock).st_ino == node and time.monotonic() - begun > 5, "longer than one that nobody watches lives"
    until(lambda: not os.path.exists(lock), "the silent playlist to go", poke=d.poke)
    assert w.status("/chan/live.m3u8") == 200

def test_events_and_sessions(chan, web):
    d, _, segs, _ = chan
    w = web(d.dir, d.data, d.pl_sock, "--max-sessions", "3")
    start = segs[10].start // 10 * 10
    ended = w.ask(f"/chan/event.m3u8?start={start + 3}&duration=55")
    assert ended.status == 200 and ended.body.endswith(b"#EXT-X-ENDLIST\n")
    assert ended.headers["Cache-Control"] == "public, max-age=600"
    assert w.ask(f"/chan/event.m3u8?start={start + 9}&duration=47").body == ended.body, "one grid, one playlist"
    moving = f"/chan/event.m3u8?start={start + 3}"
    first = w.ask(moving)
    assert first.status == 307 and first.headers["Cache-Control"] == "no-store"
    target = first.headers["Location"]
    assert re.fullmatch(rf"event\.m3u8\?start={start}&session=[\w-]{{8}}", target)
    assert w.ask(moving).headers["Location"] != target
    for _ in range(2):
        assert w.ask("/chan/" + target).headers["Cache-Control"] == "private, no-cache"
    shift = w.ask("/chan/shift.m3u8?back=100").headers["Location"]
    assert playlist(w.ask("/chan/" + shift).body) and w.metric("lumo_web_sessions") == 2
    assert w.status("/chan/" + shift[:-8] + "another1") == 429, "a third of one address is one too many"
    for bad, text in (("event.m3u8", b"start="), ("event.m3u8?start=x", b"start="), ("shift.m3u8?back=-1", b"back="),
                      (f"event.m3u8?start={start}&duration=0", b"duration=")):
        answer = w.ask("/chan/" + bad)
        assert answer.status == 400 and text in answer.body
    # A session id of another shape is no session.
    assert w.status("/chan/shift.m3u8?back=100&session=x%20LIV") == 307
    assert web(d.dir, d.data, d.pl_sock).ask("/chan/event.m3u8?start=1000&duration=10").body == b"no data for the event\n"

def test_silent_sessions_end(fake, tmp_path):
    (tmp_path / "p.m3u8").write_text("#EXTM3U\n")
    d, w = fake(lambda line: f"text/M3U {tmp_path}/p.m3u8 ", "--session-tmout", "5", "--max-sessions", "1",
                "--client-header", "X-Forwarded-For")
    url = "/chan/shift.m3u8?back=50&session=abcdefg"
    assert (w.status(url + "1"), w.status(url + "2")) == (200, 429) and d.lines == ["EVE chan -50 0 peer=abcdefg1"]
    # The proxy's word on who asks, and one network for one viewer.
    for n, (viewer, status) in enumerate((("10.0.0.1", 200), ("10.0.0.2", 200), ("10.9.9.9, 10.0.0.1 ", 429), ("2001:db8::1", 200),
                                          ("2001:db8::2", 429), ("2001:db8:0:1::1", 200), ("::ffff:127.0.0.1", 429), ("unknown", 200))):
        assert w.status(f"{url[:-1]}{n}{n}", X_Forwarded_For=viewer) == status, viewer
    until(lambda: w.metric("lumo_web_sessions") == 0, "the silent session's end")
    assert w.status(url + "2") == 200

def test_files(chan):
    d, _, segs, w = chan
    url, data = "/" + segs[0].path, bytes(range(256)) * 4
    with open(segs[0].full, "wb") as out:
        out.write(data)
    os.utime(segs[0].full, (time.time() + LIMIT,) * 2)
    assert w.ask(url).headers["Cache-Control"] == "public, max-age=2", "it may still be growing"
    os.utime(segs[0].full, (1e9, 1e9))
    until(lambda: w.ask(url).headers["Cache-Control"] == "public, max-age=86400, immutable", "the next look at the file")
    whole = w.ask(url)
    etag, date = whole.headers["ETag"], whole.headers["Last-Modified"]
    assert whole.body == w.ask(url).body == data
    for headers in ({"If_None_Match": etag}, {"If_None_Match": "*"}, {"If_Modified_Since": date}):
        known = w.ask(url, Range="bytes=0-9", **headers)
        assert (known.status, known.headers["Content-Length"], known.body) == (304, "1024", b"")
    for spec, part in (
            ("bytes=0-0", (0, 1)), ("bytes=10-19", (10, 20)), ("bytes=1000-", (1000, 1024)), ("bytes=-24", (1000, 1024)),
            ("bytes=-9999", (0, 1024)), ("bytes=1023-99999999999999999999", (1023, 1024)), ("bytes=1024-", None),
            ("bytes=-0", None), ("bytes=99999999999999999999-", None),
            ("bytes=5-4", data), ("bytes=a-b", data), ("bytes=-", data), ("bytes=", data), ("bytes=0-1,3-4", data),
            ("items=0-1", data), ("bytes=0x1-2", data), ("bytes= 10-19 ", (10, 20)), ("bytes=+1-2", data)):
        answer = w.ask(url, Range=spec)
        if part == data:
            assert (answer.status, answer.body) == (200, data), spec
        elif part:
            assert (answer.status, answer.body) == (206, data[slice(*part)]), spec
            assert answer.headers["Content-Range"] == f"bytes {part[0]}-{part[1] - 1}/1024"
        else:
            assert (answer.status, answer.headers["Content-Range"]) == (416, "bytes */1024"), spec
    assert w.ask(url, Range="bytes=0-1", If_Range=etag).status == 206
    assert w.ask(url, Range="bytes=0-1", If_Range='"other"').status == 200
    head = w.ask(url, "HEAD", Range="bytes=0-9")
    assert (head.status, head.body, head.headers["Content-Length"]) == (206, b"", "10")

def test_nothing_else_is_opened(chan):
    d, _, segs, w = chan
    with open(d.path("secret.ts"), "w") as out:
        out.write("secret")
    os.symlink(d.path("secret.ts"), d.path("data", "link.ts"))
    os.symlink(d.dir, d.path("data", "away"))
    os.symlink("/dev/zero", d.path("data", "zero.ts"))
    os.mkfifo(d.path("data", "pipe.ts"))
    os.mkdir(d.path("data", "dir.ts"))
    for path, status in (
            ("/../secret.ts", 400), ("/chan/../../secret.ts", 400), ("/%2e%2e/secret.ts", 400), ("/..%2fsecret.ts", 400),
            ("/%2E./secret.ts", 400), ("//secret.ts", 400), ("/chan//s0.ts", 400), ("/./chan/s0.ts", 400),
            ("/" + segs[0].path + "%00.ts", 400), ("/chan/s0.ts%0a", 400), ("/chan/s0%zz.ts", 400), ("/chan/s0.ts%2", 400),
            ("/link.ts", 404), ("/away/secret.ts", 404), ("/zero.ts", 404), ("/pipe.ts", 404), ("/dir.ts", 404),
            ("/dir.ts/", 400), ("/secret.ts", 404), ("/chan/chan/chan/s0.ts", 404), ("/lum.conf", 404),
            ("/chan-LIV1-M0.m3u8", 404), ("/chan/s0.ts/x.ts", 404), ("/" + "a" * 300 + ".ts", 404), ("/chan/", 400),
            ("/~chan/live.m3u8", 404), ("/a%20b/live.m3u8", 404), ("/none/live.m3u8", 404), ("/chan/s%30.ts", 200)):
        answer = w.ask(path)
        assert answer.status == status and b"secret" not in answer.body, path
    for method, status in (("POST", 405), ("DELETE", 405), ("OPTIONS", 204)):
        assert w.ask("/chan/live.m3u8", method).status == status
    assert w.status("/" + "x" * 20000) == 414
    assert w.ask("/chan/live.m3u8", X_Long="y" * 20000).status in (413, 431)

def test_page_list_metrics(chan, web, tmp_path):
    d, _, segs, _ = chan
    with open(d.path("data", "chan", "chan.manifest_live"), "w") as out:
        out.writelines(f"{i}: {seg.line()}\n" for i, seg in enumerate(segs))
    sources = [(r'a\"b\\xc3\\xa9', 1, 600, 8), ("chan", 0, 60, 9), ("old", 1, 60, 99), ("~chan", 1, 1, 1)]
    (tmp_path / "status").write_text("lumo_up 1\nlumo_source_held_seconds 1\nlumo_source_x{source=\"\n" + "".join(
        f'lumo_source_{key}{{source="{name}"}} {value}\n' for name, *values in sources
        for key, value in zip(("connected", "held_seconds", "newest_segment_age_seconds"), values)))
    (tmp_path / "index.html").write_text("<html>")
    w = web(d.dir, d.data, d.pl_sock, "-w", str(tmp_path), "--status", str(tmp_path / "status"), "--accel", "/media/")
    assert (w.ask("/").body, w.ask("/").headers["Content-Type"]) == (b"<html>", "text/html; charset=utf-8")
    assert w.status("/status") == 404
    now = int(os.stat(tmp_path / "status").st_mtime)
    assert json.loads(w.ask("/channels.json").body)["channels"] == [
        {"name": 'a"bé', "state": "live", "first": now - 608, "last": now - 8},
        {"name": "chan", "state": "off", "first": now - 69, "last": now - 9},
        {"name": "old", "state": "waiting", "first": now - 159, "last": now - 99}]
    metrics = w.ask("/metrics").body
    assert metrics.startswith(b"lumo_up 1\n") and b"\n# HELP lumo_web_" in metrics
    accel = w.ask("/chan/" + segs[0].path)
    assert (accel.body, accel.headers["X-Accel-Redirect"]) == (b"", "/media/" + segs[0].path)
    assert not w.ask("/chan/none.ts").headers["X-Accel-Redirect"]
    plain = web(d.dir, d.data, d.pl_sock)
    assert json.loads(plain.ask("/channels.json").body)["channels"] == [
        {"name": "chan", "state": "live", "first": segs[0].start, "last": segs[-1].start + 10}]

def test_crowds_and_bad_connections(chan):
    other = subprocess.run([WEB, "-d", chan[0].data, "-p", str(chan[3].port)], capture_output=True, timeout=LIMIT)
    assert other.returncode == 1 and b"cannot listen" in other.stderr, "one front end has the port"
    d, _, segs, w = chan
    idle = [w.raw() for _ in range(1000)]
    halves = [w.raw(data) for data in (b"GET /chan/li", b"GET /chan/live.m3u8 HTTP/1.1\r\nHost: x\r\n", b"\r\n\r\n", b"\0\0\0",
                                       b"GET / HTTP/9.9\r\n\r\n", b"POST /chan/live.m3u8 HTTP/1.1\r\nContent-Length: 99\r\n\r\nx")]
    before, counts, begun = w.metric("lumo_web_questions_total"), [], time.monotonic()
    def watch():
        conn = http.client.HTTPConnection("127.0.0.1", w.port, timeout=LIMIT)
        n = 0
        for _ in range(10):
            conn.request("GET", "/chan/live.m3u8")
            answer = conn.getresponse()
            answer.read()
            n += answer.status == 200
            time.sleep(0.1)
        counts.append(n)
    crowd = [threading.Thread(target=watch) for _ in range(200)]
    for one in crowd:
        one.start()
    for one in crowd:
        one.join()
    assert counts == [10] * 200
    assert 1 <= w.metric("lumo_web_questions_total") - before <= 2 + 2 * (time.monotonic() - begun)
    assert w.metric("lumo_web_connections") >= 1000
    for sock in idle + halves:
        sock.close()
    # The end right behind half a request.
    for _ in range(50):
        w.raw(b"GET /chan/li").close()
    until(lambda: w.metric("lumo_web_connections") < 10, "the connections' end")

def test_trickling_connections_are_closed(fake):
    _, w = fake(lambda line: None, "--idle-tmout", "1")
    def is_open(slow):
        try:
            return slow.sendall(b"x") is None
        except OSError:
            return False
    slow = [w.raw(data) for data in (b"GET /chan", b"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 9999\r\n\r\n")]
    until(lambda: not any(list(map(is_open, slow))), "the end of the slow requests", poke=lambda: time.sleep(0.1))

def test_daemon_that_stops_hangs_and_comes_back(chan, web):
    d, src, segs, _ = chan
    w = web(d.dir, d.data, d.pl_sock, "--grace", "90")
    assert w.status("/healthz") == w.status("/chan/live.m3u8") == 200 and "(ERR)" not in d.log_text()
    os.kill(d.pid, signal.SIGSTOP)
    try:
        begun = time.monotonic()
        waiting = w.raw(b"GET /other/live.m3u8 HTTP/1.1\r\nHost: x\r\n\r\n")
        while time.monotonic() - begun < 1:
            assert w.status("/" + segs[0].path) == 200, "files go on meanwhile"
        assert waiting.recv(12) == b"HTTP/1.1 504"
        assert w.status("/chan/live.m3u8") == 200, "its viewers keep what they have for a while"
    finally:
        os.kill(d.pid, signal.SIGCONT)
    until(lambda: w.status("/healthz") == 200, "the daemon's return")
    d.kill()
    assert w.status("/other/live.m3u8") == 503
    until(lambda: w.status("/healthz") == 503, "the daemon's absence")
    assert w.status("/chan/live.m3u8") == 200
    d.start()
    src = d.source(start=segs[-1].start + 10)
    fresh = src.feed(2)
    until(lambda: playlist(w.ask("/chan/live.m3u8").body) == [seg.path for seg in fresh], "the new playlist")

@pytest.mark.parametrize("answer, status, text", [
    ("ERROR HTTP:404 - no items", 404, "no items"), ("ERROR HTTP:500 - internal", 500, "internal"),
    ("ERROR HTTP:200 - x", 502, "not understood"), ("nonsense", 502, "not understood"), ("", 502, "not understood"),
    (None, 504, "does not answer"), ("text/M3U {}/gone.m3u8 ", 503, "is gone"), ("gzip/M3U {}/p.m3u8 ", 502, "unpacked"),
    ("text/M3U /etc/passwd ", 500, "outside"), ("text/M3U {}/../p.m3u8 ", 503, "is gone"), ("text/M3U {}/link ", 503, "is gone")])
def test_answers(fake, tmp_path, answer, status, text):
    (tmp_path / "p.m3u8").write_text("#EXTM3U\n")
    (tmp_path / "link").symlink_to("p.m3u8")
    d, w = fake(lambda line: answer and answer.format(tmp_path), *(["--answer-tmout", "300"] if answer is None else []))
    got = w.ask("/chan/live.m3u8")
    assert got.status == status and text in got.body.decode() and got.headers["Cache-Control"] == "no-store"
    assert len(d.lines) == (2 if text == "is gone" else 1)

@pytest.mark.parametrize("args", [("--port",), ("-p", "70000"), ("-d", "data"), ("--event-grid", "0"), ("--nothing",),
                                  ("-C", "/nowhere"), ("extra",), ("-d", "/nowhere"), ("--accel", "media")])
def test_bad_options(args):
    run = subprocess.run([WEB, *args], capture_output=True, text=True, timeout=LIMIT)
    assert run.returncode in (1, 2) and run.stderr
