"""What peers may send on both sockets, well formed and not."""
import random
import socket

import pytest

from harness import at_end, connect, names

def lines_of(src, count):
    segs = [src.segment() for _ in range(count)]
    return segs, [seg.line() + "\n" for seg in segs]

# --- playlist clients ---

def test_split_request_lines_wait_without_time_out(lumo):
    d = lumo(log={"level": "debug"}, urq_tmout_sec=1)
    d.source().feed(1)
    split, idle = d.client(), d.client()
    for part in ("T", "1 LI", "V ch"):
        mark = d.mark()
        split.send(part)
        d.wait_log("incomplete read", since=mark)
    assert idle.is_closed()
    d.wait_log("time_out.* requests timed out|TIME-OUT")
    assert split.ask("an\r").tag == "T1"
    assert split.ask("T2 VOD chan").tag == "T2"

@pytest.mark.parametrize("line, is_answered", [
    ("T1 LIV chan" + " " * 243, True), ("T1 LIV " + "n" * 247, True), ("T" * 254, False),
    ("T1 VOD chan 100", False), ("t1 LIV chan", False), ("T1 LIV", False), ("  ", False), ("%s%n%s%n", False),
    ("Tx LIV chan 1 2 peer=a&x=1", True), ("T1 LiV chan\ttail", True), ("T-1 vod\tchan  ", True),
    ("S1 LIV chan", False), ("T1 LIV ../chan", True), ("T1 EVE chan x y z", True)])
def test_request_lines(lumo, line, is_answered):
    d = lumo()
    d.source().feed(1)
    client = d.client()
    client.send(line + "\n")
    if is_answered:
        assert client.read_reply().tag == line.split()[0]
    else:
        assert client.is_closed()
    d.is_answering()

def test_several_lines_in_one_write(lumo):
    """Only the first line of a write is a request; the connection then serves the next one."""
    d = lumo()
    d.source().feed(1)
    client = d.client()
    client.send("T1 LIV chan\nT2 LIV chan\nT3 LIV chan\n")
    assert client.read_reply().tag == "T1"
    assert client.ask("T4 LIV chan").tag == "T4"

def test_unknown_kinds_get_no_answer_and_keep_the_connection(lumo):
    d = lumo()
    d.source().feed(1)
    client = d.client()
    for kind in ("XYZ", "LIVE", "1"):
        mark = d.mark()
        client.send(f"T1 {kind} chan 1 2 peer=p\n")
        d.is_answering()
        assert not at_end(client.sock, limit=0)
        assert "process_pl_rq" not in d.log_text()[mark:]
    client.sock.settimeout(20)
    assert client.ask("T2 LIV chan").tag == "T2"

@pytest.mark.parametrize("size", [255, 256, 300, 5000])
def test_overlong_lines_end_the_connection(lumo, size):
    d = lumo()
    for sock in (connect(d.pl_sock), connect(d.src_sock)):
        sock.sendall(b"T1 LIV " + b"x" * (size - 7))
        if size > 255:
            assert at_end(sock)
    d.is_answering()

@pytest.mark.parametrize("seed", range(4))
def test_random_bytes(lumo, seed):
    d = lumo(log={"level": "debug"})
    rng = random.Random(seed)
    words = [b"T1", b"S1", b"init", b"SEGMENT:", b"LIV", b"VOD", b"EVE", b"chan", b"\n", b"\r\n", b"\0", b" ", b"peer=",
             b"max_sec=", b"data_dir=/", b"-1", b"99999999999999999999", b"%n", b"nan", b"\xff", b"DISCONTINUITY", b"~"]
    feeder = d.source("feeder")
    held = []
    for _ in range(120):
        sock = connect(rng.choice((d.src_sock, d.pl_sock)))
        blob = b"".join(rng.choice(words) + b" " * rng.randint(0, 1) if rng.random() < 0.7
                        else rng.randbytes(rng.randint(1, 40)) for _ in range(rng.randint(1, 60)))
        try:
            sock.sendall(blob)
            feeder.send(blob if rng.random() < 0.3 else blob + b"\n")
        except (BrokenPipeError, ConnectionResetError):
            pass
        held.append(sock)
        if rng.random() < 0.5:
            held.pop(rng.randrange(len(held))).close()
    d.is_answering()
    feeder.send("\n")
    d.source("after").feed(2)
    assert d.ask("T1 LIV after").playlist.names == ["s0.ts", "s1.ts"]

def test_half_lines_left_open_and_closed(lumo):
    d = lumo()
    src = d.source()
    src.feed(1)
    socks = []
    for path in (d.pl_sock, d.src_sock) * 20:
        sock = connect(path)
        sock.sendall(b"T1 LIV cha" if path == d.pl_sock else b"S1 init oth")
        socks.append(sock)
    for sock in socks[::3]:
        sock.close()
    for sock in socks[1::3]:
        sock.shutdown(socket.SHUT_WR)
        assert at_end(sock)
    d.is_answering()
    socks[2].sendall(b"n\n")
    assert b" text/M3U " in socks[2].recv(4096)
    assert d.ask("T1 LIV oth").error == (404, "source not found")

@pytest.mark.parametrize("blob", [b"T1 LIV\0chan\n", b"\0T1 LIV chan\n", b"T1 LIV chan\0\n", b"T1\0\n", b"\0" * 300,
                                  b"T1 EVE chan 1 1 peer=\0\n", b"\n\n\n", b"\r\0\n"])
def test_zero_bytes_and_empty_lines(lumo, blob):
    d = lumo()
    src = d.source()
    src.feed(1)
    for path in (d.pl_sock, d.src_sock):
        sock = connect(path)
        sock.sendall(blob)
        d.is_answering()
        sock.close()
    src.send(blob + b"\n")
    segs = src.feed(1)
    assert d.ask("T1 LIV chan").playlist.names[-1:] == names(segs)

# --- source init lines ---

@pytest.mark.parametrize("line, message", [
    ("S1 init", "bad format; text="), ("S1 start chan", r"unrecognized operation: \[start\]"),
    ("X1 init chan", r"unexpected client tag: \[X1\]"), ("S1 init chan max_sec=99", r"max_sec==99 invalid or too small \(min=100\)"),
    ("S1 init chan data_dir=/tmp", "max_sec==0 invalid"), ("S1 init chan max_sec=-1x", "failed|created"),
    ("S1 init chan max_sec=100 data_dir=/no/such/dir", r"opendir\('/no/such/dir'"),
    ("S1 init chan max_sec=100 data_dir=/" + "d" * 70, "data_dir refused, too long: 71 bytes, max=63"),
    ("S1 init ..", "source name refused"), ("S1 init ../x", "source name refused"), ("S1 init a/../../x", "source name refused"),
    ("S1 init x/..", "source name refused"), ("S1 init " + "n" * 100, r"manifest path is too long: 21\d bytes"),
])
def test_refused_init_lines(lumo, line, message):
    d = lumo()
    sock = connect(d.src_sock)
    sock.sendall(line.encode() + b"\n")
    d.wait_log(message)
    assert at_end(sock)
    assert d.ask("T1 LIV chan").error[0] == 404
    d.is_answering()

def test_init_line_borders(lumo):
    d = lumo()
    assert d.source("a", params="").d
    d.source("b", params="max_sec=100").feed(0)
    d.source("c..d", params=f"item_pfx=http://h/ data_dir={d.data} max_sec=100").feed(1)
    assert d.ask("T1 LIV c..d").playlist.items == ["http://h/c..d/s0.ts"]
    sock = connect(d.src_sock)
    sock.sendall(b"S1 INIT e\r\n")
    d.wait_log(r"src\[e\] fd\d+ .*created")
    sock = connect(d.src_sock)
    for part in (b"S1 in", b"it ", b"f", b"\n"):
        sock.sendall(part)
        d.is_answering()
    d.wait_log(r"src\[f\] fd\d+ .*created")

def test_name_in_use_and_max_sources(lumo):
    d = lumo(max_sources=2)
    one = d.source("one")
    one.feed(1)
    second = d.source("one", wait=False)
    d.wait_log(r"src\[one\] already exists")
    assert at_end(second.sock)
    two = d.source("two")
    three = d.source("three", wait=False)
    d.wait_log("Cannot add more sources, already at max=2/2")
    assert at_end(three.sock)
    one.feed(1)
    two.feed(1)
    assert d.ask("T1 LIV one").playlist.names == ["s0.ts", "s1.ts"]

# --- source lines ---

def test_source_lines_in_any_portion(lumo):
    d = lumo()
    src = d.source()
    segs, lines = lines_of(src, 12)
    text = "\r\n".join(lines)
    for at in range(0, len(text), 37):
        src.send(text[at:at + 37])
        if at % 3 == 0:
            d.is_answering()
    src.wait(segs[-1].path)
    assert d.ask("T1 VOD chan").playlist.names == names(segs)
    segs, lines = lines_of(src, 40)
    src.send("".join(lines))
    src.wait(segs[-1].path)
    assert d.ask("T1 VOD chan").playlist.names[12:] == names(segs)

def test_lines_behind_the_init_line(lumo):
    d = lumo()
    src = d.source()
    segs, lines = lines_of(src, 2)
    src.close()
    again = d.source(extra=lines[0] + lines[1][:20])
    again.send(lines[1][20:])
    again.wait(segs[1].path)
    assert d.ask("T1 LIV chan").playlist.names == names(segs)

def test_partial_line_dies_with_its_connection(lumo):
    d = lumo()
    src = d.source()
    old, = src.feed(1)
    segs, lines = lines_of(src, 2)
    src.send(lines[0][:-30])
    d.wait_log("got no lines")
    src.close()
    again = d.source()
    again.send(lines[1])
    again.wait(segs[1].path)
    assert "invalid input" not in d.log_text()
    assert d.ask("T1 LIV chan").playlist.names == names([old]) + ["DIS"] + names(segs[1:])

def test_long_partial_line_is_dropped(lumo):
    d = lumo()
    src = d.source()
    src.send("x" * 129)
    d.wait_log("tail too big len=129 bytes")
    src.feed(1)
    src.send("y" * 128)
    d.wait_log("got no lines, len=128 bytes")
    src.send("\n")
    d.wait_log(r"invalid input, \[y{128}\]")
    src.feed(1)

@pytest.mark.parametrize("line, message", [
    ("SEGMENT {path} {start} 1 188 7 1", "invalid input"), ("segment: {path} {start} 1 188 7 1", "invalid input"),
    ("SEGMENT:", "invalid input"), ("SEGMENT: ../{path} {start} 1 188 7 1", "path refused, it leaves the data directory"),
    ("SEGMENT: a/../../{path} {start} 1 188 7 1", "path refused, it leaves"), ("SEGMENT: .. 1 1 1 1 1", "path refused, it leaves"),
    ("SEGMENT: " + "p" * 64 + " {start} 1 188 7 1", "path refused, too long: 64 bytes, max=63"),
    ("SEGMENT: {path}\0 {start} 1 188 7 1", "invalid input"), ("SEGMENT: {path} {start} 1 187 7 1", "mismatch - reported/actual=187/188"),
    ("SEGMENT: {path} {start} nan 188 7 1", "duration refused"), ("SEGMENT: {path} {start} inf 188 7 1", "duration refused"),
    ("SEGMENT: {path} {start} -inf 188 7 1", "duration refused"), ("SEGMENT: {path} {start} 1e99 188 7 1", "duration refused"),
    ("SEGMENT: {path} {start} 1 188 7 0", "skipping .* for src"), ("SEGMENT: {path} {start} 1 188 7 -5", "skipping .* for src"),
    ("SEGMENT: {path} {start} 1 188", "skipping .* for src"), ("SEGMENT: none.ts {start} 1 188 7 1", "retrieve mode"),
])
def test_refused_segment_lines(lumo, line, message):
    d = lumo()
    src = d.source()
    first, = src.feed(1)
    bad = src.segment()
    src.send(line.format(path=bad.path, start=bad.start) + "\n")
    d.wait_log(message)
    d.is_answering()
    last, = src.feed(1)
    assert d.ask("T1 LIV chan").playlist.names == names([first, last])
    assert bad.exists()

@pytest.mark.parametrize("dur", ["0", "-0.0", "-5", "1e-30", "-3e38", "3e38", "9e18", "99.99", "0x10", "1e5"])
@pytest.mark.parametrize("others", [0, 3])
def test_strange_durations(lumo, dur, others):
    d = lumo(max_live_items=4, refresh_playlists=True)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(others, dur=10.0)

    def ask_all():
        for kind in ("LIV chan", "VOD chan", f"EVE chan {src.next_start - 5} 0", f"EVE chan {src.next_start - 5} 7",
                     f"EVE chan {src.next_start - 5} 9000 peer=p", "EVE chan -600 0"):
            assert d.ask("T1 " + kind)

    ask_all()
    for _ in range(2):
        seg = src.segment()
        src.send(seg.line(dur=dur) + "\n")
        src.wait(seg.path)
        ask_all()
    segs += src.feed(14, dur=10.0)
    ask_all()
    newest = d.ask("T1 VOD chan").playlist.names
    assert newest[-1:] == names(segs)[-1:]

@pytest.mark.parametrize("line, is_added", [
    ("SEGMENT: {path} 0 1 188 7 1", True), ("SEGMENT: {path} -9223372036854775808 1 188 7 1", True),
    ("SEGMENT: {path} 9223372036854775807 1 188 7 1", True), ("SEGMENT: {path} 99999999999999999999999 1 188 7 1", None),
    ("SEGMENT: {path} 1 1 188 99999999999 1", None), ("SEGMENT: {path} 1 1 188 7 9223372036854775807", True)])
def test_strange_numbers(lumo, line, is_added):
    d = lumo()
    src = d.source()
    segs = src.feed(2)
    seg = src.segment()
    src.send(line.format(path=seg.path) + "\n")
    if is_added:
        src.wait(seg.path)
    for kind in ("LIV chan", "VOD chan", f"EVE chan {segs[0].start} 2", f"EVE chan {segs[0].start} 900", "EVE chan -1 0",
                 "EVE chan 9223372036854775807 9223372036854775807", "EVE chan -9223372036854775808 1"):
        assert d.ask("T1 " + kind)
    src.feed(2)
    assert d.ask("T1 LIV chan").playlist.names[-1] == "s4.ts"
