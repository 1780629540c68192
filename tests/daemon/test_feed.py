"""The feeder: real ffmpeg and the real daemon, or a daemon that is played where its moves matter."""
import os
import re
import shutil
import signal
import socket
import subprocess
import time

import pytest

from harness import BAD_WORDS, LIMIT, connect, until

FEED = os.environ.get("LUMO_FEED_BIN", "")
pytestmark = pytest.mark.skipif(not (FEED and shutil.which("ffmpeg")), reason="needs the feeder and ffmpeg")
PICTURE = ["-re", "-f", "lavfi", "-i", "testsrc=size=64x48:rate=10"]
TONE = ["-re", "-f", "lavfi", "-i", "sine=frequency=440"]
CODE = ["-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-pix_fmt", "yuv420p", "-c:a", "aac"]

class Feeder:
    def __init__(self, d, *args, ffmpeg=(), **popen):
        self.d, self.dir = d, d.path("data", "chan")
        self.err = d.path(f"feed-{len(d.peers)}.err")
        d.peers.append(self)
        command = [FEED, "-C", d.conf, "-v", *args, "chan", *(["--", *ffmpeg] if ffmpeg else [])]
        with open(self.err, "wb") as err:
            self.proc = subprocess.Popen(command, stdin=subprocess.PIPE, stderr=err, **popen)
        self.sock = self  # closed with the daemon's other peers

    def text(self):
        return self.d.read(self.err)

    def wait(self, pattern, count=1):
        def look():
            found = list(re.finditer(pattern, self.text()))
            return found[count - 1] if len(found) >= count else None
        return until(look, f"[{pattern}] from the feeder:\n{self.text()}")

    def wait_segments(self, count):
        self.wait(r"SEGMENT: chan/", count)

    def encoder(self):
        def look():
            with open(f"/proc/{self.proc.pid}/task/{self.proc.pid}/children") as children:
                return [int(pid) for pid in children.read().split()]
        return until(look, "the encoder")[0]

    def row(self, name, start, end):
        self.proc.stdin.write(f"{name},{start},{end}\n".encode())
        self.proc.stdin.flush()

    def end(self, signo=signal.SIGTERM, code=0):
        self.proc.send_signal(signo)
        assert self.proc.wait(LIMIT) == code, self.text()

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.stdin.close()
        self.proc.wait()
        assert not any(word in self.text() for word in BAD_WORDS), self.text()

def entries(d):
    """The manifest's lines, split into words; each must be whole."""
    rows = [line.split() for line in d.read(d.path("data", "chan", "chan.manifest_live")).splitlines()]
    assert all(len(row) == 8 and row[1] == "SEGMENT:" for row in rows), rows
    assert [int(row[0][:-1]) for row in rows] == list(range(1, len(rows) + 1))
    return [row[2:] for row in rows]

def noted(d):
    return [os.path.basename(row[0]) for row in entries(d)]

def names(first, last, name="main"):
    return [f"{name}-{n:06d}.ts" for n in range(first, last + 1)]

def listed(d):
    """All that the daemon has, breaks left out: those at a hand-over are its own."""
    reply = d.ask("T1 VOD chan")
    return [] if reply.error else [name for name in reply.playlist.names if name != "DIS"]

def probe(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pts", "-of",
                          "csv=p=0", "-read_intervals", "%+#1", path], capture_output=True, check=True).stdout
    return int(out.split(b",")[0])

def write_ts(d, name, pts, stream=0xe0):
    """One packet, in which a stream's packet with a time stamp begins."""
    stamp = bytes([0x21 | pts >> 29 & 14, pts >> 22 & 255, pts >> 14 & 255 | 1, pts >> 7 & 255, pts << 1 & 255 | 1])
    os.makedirs(d.path("data", "chan"), exist_ok=True)
    with open(d.path("data", "chan", name), "wb") as out:
        out.write((b"\x47\x40\x64\x10\0\0\1" + bytes([stream]) + b"\0\0\x80\x80\x05" + stamp).ljust(188, b"\xff"))

def test_a_whole_channel(lumo):
    d = lumo()
    os.makedirs(d.path("data", "chan"))
    old = {"main-000000.ts": 5000, "../kept.ts": 5000, "ancient.ts": 9000, "lost.ts": 2000}
    with open(d.path("data", "chan", "chan.manifest_live"), "w") as out:  # what nobody lists any more, but the last
        for name, age in old.items():
            write_ts(d, name, 1)
            out.write(f"1: SEGMENT: chan/{name} {time.time() - age:.0f} 2 188 1 1\n")
    os.unlink(d.path("data", "chan", "lost.ts"))
    feed = Feeder(d, "-s", "2", ffmpeg=[*PICTURE, *TONE, *CODE])
    feed.wait_segments(3)
    for path, start, dur, size, _, pts in (rows := entries(d)[2:]):
        full = d.path("data", path)
        assert os.path.getsize(full) == int(size) and probe(full) == int(pts) and 1.9 < float(dur) < 2.3
    assert all(1 < int(b[1]) - int(a[1]) < 4 for a, b in zip(rows, rows[1:])), "whole seconds"
    assert -1 < os.path.getmtime(full) - int(rows[-1][1]) - 2 < 3, "it was finished when its time was over"
    feed.end()
    count = len(entries(d)) - 2
    until(lambda: listed(d) == names(1, count), "the last segment")
    assert sorted(os.listdir(feed.dir)) == sorted(names(1, count) + ["ancient.ts", "chan.manifest_live", "main.lock"])
    assert os.path.exists(d.path("data", "kept.ts"))
    again = Feeder(d, "-s", "1", ffmpeg=[*TONE, "-c:a", "aac"])  # without a picture
    again.wait_segments(2)
    until(lambda: listed(d)[:count + 2] == names(1, count + 2), "the same numbers going on")
    assert d.ask("T2 VOD chan").playlist.items.count("DIS") == 1
    assert noted(d)[2:count + 4] == names(1, count) + ["DISCONTINUITY", names(count + 1, count + 1)[0]]
    again.end(signal.SIGINT)
    vod = d.path("data", "vod.m3u8")
    with open(vod, "w") as out:
        out.write(d.ask("T3 VOD chan").playlist.text)
    done = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-i", vod, "-f", "null", "-"], capture_output=True)
    assert done.returncode == 0 and not done.stderr, done.stderr

def test_nothing_is_lost_or_listed_twice(lumo):
    """The daemon is killed and started again, stopped and continued, at any moment."""
    d = lumo()
    feed = Feeder(d, "-s", "1", ffmpeg=[*PICTURE, *CODE])
    for n in range(4):
        feed.wait_segments(2 * n + 1)
        d.kill()
        if n % 2:
            feed.wait_segments(2 * n + 2)
        d.start()
    d.proc.send_signal(signal.SIGSTOP)
    feed.wait_segments(12)
    d.proc.send_signal(signal.SIGCONT)
    feed.wait(r"SEGMENT: chan/main-000013")
    until(lambda: listed(d)[:13] == names(1, 13), "all of them")
    assert [name for name in noted(d) if name != "DISCONTINUITY"][:13] == names(1, 13)
    assert noted(d).count("DISCONTINUITY") in (3, 4), "those that imports put into the daemon's list"
    feed.end()

@pytest.mark.parametrize("imports", [True, False])
def test_what_a_living_daemon_missed(make, imports):
    """It is sent again, unless it came with the manifest, which is read before the daemon's side closes."""
    d = make()
    feed = Feeder(d, "-l", "-s", "1")
    manifest = d.path("data", "chan", "chan.manifest_live")
    def row(n):
        write_ts(d, f"s{n}.ts", n * 90000)
        feed.row(f"s{n}.ts", n, n + 1)
        feed.wait(rf"SEGMENT: chan/s{n}\.ts")
    def serve(server):
        peer, _ = server.accept()
        peer.settimeout(LIMIT)
        lines = peer.makefile()
        assert re.fullmatch(rf"S1 init chan max_sec=3600 target_sec=1 data_dir={d.data}\n", lines.readline())
        if imports:
            d.read(manifest)
        peer.shutdown(socket.SHUT_WR)
        return peer, lines
    def listen():
        server = socket.socket(socket.AF_UNIX)
        server.bind(d.src_sock)
        server.listen()
        return server
    server = listen()
    row(1)
    peer, lines = serve(server)
    assert lines.readline() == "SEGMENT: DISCONTINUITY\n" and "s1.ts" in lines.readline()
    os.unlink(d.src_sock)
    for sock in (server, lines, peer):
        sock.close()
    feed.wait("the connection to the daemon is lost")
    row(2)
    row(3)
    until(lambda: noted(d) == ["s1.ts", "s2.ts", "s3.ts"], "the manifest")
    server = listen()
    peer, lines = serve(server)
    row(4)
    for name in ["DISCONTINUITY"] if imports else ["s2.ts", "s3.ts"]:
        assert name in lines.readline()
    assert "s4.ts" in lines.readline()
    for sock in (server, lines, peer):
        sock.close()
    assert noted(d) == ["s1.ts", "s2.ts", "s3.ts", *["DISCONTINUITY"] * imports, "s4.ts"]

def test_a_source_that_the_daemon_dropped(lumo):
    d = lumo(src_tmout_sec=1, task_tmout_sec=1)
    feed, expected = Feeder(d, "-l", "-s", "1"), []
    for n in range(1, 4):
        write_ts(d, f"s{n}.ts", n * 90000)
        feed.row(f"s{n}.ts", n, n + 1)
        feed.wait("connected to the daemon", n)
        expected += [f"s{k}" for k in range(1, n + 1)]
        until(lambda: re.findall(r"added .* chan/(\w+)\.ts", d.log_text()) == expected, "each of them once")
        feed.wait("the connection to the daemon is lost", n)

def test_lists(lumo):
    """Rows with their files' time stamps, and whether the segment is listed behind a break, or at all."""
    wrap, turn = 1 << 33, (1 << 33) / 90000
    rows = [("a.ts", turn - 4, turn - 2, wrap - 360000, "listed"), ("b.ts", turn - 2, turn, wrap - 180000, "listed"),
            ("c.ts", 0, 2, 0, "listed"), ("d.ts", 2, 4, 180000, "listed"),
            ("e.ts", 50, 52, 50 * 90000, "broken"), ("f.ts", 52, 54, 10 * 90000, "broken"),
            ("g.ts", 54, 54, 12 * 90000, "broken"), ("h.ts", 54, 56, 14 * 90000, "listed"),
            ("gone.ts", 56, 58, None, "out"), ("i.ts", 58, 60, 18 * 90000, "broken"),
            ("../../etc/passwd", 60, 62, None, "out"), ("/etc/passwd", 60, 62, None, "out"),
            ("a b.ts", 60, 62, 0, "out"), ("x" * 60 + ".ts", 60, 62, 0, "out"), ("chan", 60, 62, None, "out"),
            ("j.ts", 60, 62, 20 * 90000, "broken"), ("k.ts", 10, 12, 22 * 90000, "broken"),
            ("l.ts", 12, 14, 22 * 90000, "broken"), ("m.ts", 14, 1e6, 24 * 90000, "broken"), ("nan.ts", "nan", 64, 0, "out")]
    d = lumo()
    feed = Feeder(d, "-l", "-s", "2", "--start-ago", "3000")
    expected = []
    feed.proc.stdin.write(b"no row\n\n1,2\n" + b"x" * 10000 + b"\n")
    for name, start, end, pts, result in rows:
        if pts is not None:
            write_ts(d, name, pts, stream=0xc0)
        feed.row(name, start, end)
        expected += (["DISCONTINUITY"] if result == "broken" else []) + ([name] if result != "out" else [])
    until(lambda: noted(d) == expected, f"{expected}")
    until(lambda: [{"DIS": "DISCONTINUITY"}.get(n, n) for n in d.ask("T1 VOD chan").playlist.names] == expected,
          "the playlist")
    stamps = [int(row[5]) for row in entries(d) if row[0] != "DISCONTINUITY"]
    assert stamps[:4] == [wrap - 360000, wrap - 180000, wrap, wrap + 180000] and min(stamps) > 0
    feed.proc.stdin.close()
    assert feed.proc.wait(LIMIT) == 0

def test_an_encoder_that_dies_or_hangs(lumo):
    d = lumo()
    feed = Feeder(d, "-s", "1", ffmpeg=[*PICTURE, *CODE])
    feed.wait_segments(2)
    os.kill(feed.encoder(), signal.SIGKILL)
    feed.wait("the encoder has ended, status 137")
    assert "no segment" not in feed.text()
    feed.wait_segments(4)
    os.kill(feed.encoder(), signal.SIGSTOP)
    feed.wait("the encoder has finished no segment in 3 s")
    feed.wait("connected to the daemon", 3)
    feed.end()
    order = noted(d)
    until(lambda: listed(d) == [name for name in order if name != "DISCONTINUITY"], "all segments")
    assert order.count("DISCONTINUITY") == 2
    numbers = [int(name[5:11]) for name in order if name != "DISCONTINUITY"]
    assert numbers == sorted(set(numbers))

@pytest.mark.parametrize("args, ffmpeg, code, words", [
    (["-1"], ["-no-such-option"], 1, "Unrecognized option 'no-such-option'"),
    (["-1", "-s", "1"], [*PICTURE, "-t", "2", *CODE], 0, "main-000002.ts"),
    (["--ffmpeg", "no-such-program"], ["-i", "x"], 1, "there is no program [no-such-program]"),
    (["-D", "/nowhere"], ["-i", "x"], 1, "no data directory [/nowhere]"),
    (["-n", "a/b"], ["-i", "x"], 2, "cannot be called [a/b]"),
    (["-d", "99"], ["-i", "x"], 2, "--depth wants a whole number from 100"),
    ([], [], 2, "nothing to feed"),
    (["-l"], [], 0, "0 segments"),
    (["-a", "/nowhere/args"], [], 1, "cannot read [/nowhere/args]"),
])
def test_ends(lumo, args, ffmpeg, code, words):
    feed = Feeder(lumo(), *args, ffmpeg=ffmpeg, preexec_fn=lambda: os.close(0))
    assert feed.proc.wait(LIMIT) == code and words in feed.text(), feed.text()

def test_arguments_from_a_file(lumo):
    d = lumo()
    with open(d.path("args"), "w") as out:
        out.write("--segment 1 --once -- # options first\n-f lavfi -i 'testsrc=size=64x48:rate=10' \\\n"
                  "-metadata title=\"two \\\"words\\\"\"\n-t 1 -c:v\tlibx264 -pix_fmt yuv420p\n")
    feed = Feeder(d, "-a", d.path("args"))
    assert feed.proc.wait(LIMIT) == 0 and 'title=two "words" -t' in feed.text(), feed.text()

def test_stand_in(lumo):
    d = lumo()
    code = [*PICTURE, *CODE]
    main = Feeder(d, "-s", "1", ffmpeg=code)
    main.wait_segments(2)
    other = Feeder(d, "-s", "1", ffmpeg=code)
    assert other.proc.wait(LIMIT) == 1 and "another feeder" in other.text()
    backup = Feeder(d, "-s", "1", "-b", ffmpeg=code)
    backup.wait("as the stand-in")
    backup.wait_segments(3)
    backup.end()
    assert len(d.files("chan/backup-*.ts")) == 1, "the last could be the channel's by now"
    backup = Feeder(d, "-s", "1", "-b", ffmpeg=code)
    backup.wait("as the stand-in")
    main.proc.kill()
    until(lambda: noted(d)[-1].startswith("backup"), "the stand-in")
    main = Feeder(d, "-s", "1", ffmpeg=code)
    main.wait("as the stand-in")
    os.kill(backup.encoder(), signal.SIGKILL)  # the feeder lives on and stands in
    d.wait_log("Roll-over", count=2)
    backup.wait("as the stand-in", 2)
    until(lambda: noted(d)[-1].startswith("main"), "the main feeder")
    d.kill()
    backup.wait("the connection to the daemon is lost")
    main.end()
    count = backup.text().count("as the stand-in")
    d.start()
    until(lambda: any(name.startswith("backup") for name in listed(d)[-1:]), "the stand-in as the channel")
    order = [name for name in noted(d) if name != "DISCONTINUITY"]
    assert listed(d)[:len(order)] == order and len(set(order)) == len(order)
    assert backup.text().count("as the stand-in") == count
    backup.end()
