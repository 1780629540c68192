"""What peers may send on both sockets, well formed and not."""
import random
import socket

import pytest

from harness import at_end, connect, names

def lines_of(src, count):
    segs = [src.segment() for _ in range(count)]
    return segs, [seg.line() + "\n" for seg in segs]

# --- playlist clients ---

def test_several_lines_in_one_write(lumo):
    """Only the first line of a write is a request; the connection then serves the next one."""
    d = lumo()
    d.source().feed(1)
    client = d.client()
    client.send("T1 LIV chan\nT2 LIV chan\nT3 LIV chan\n")
    assert client.read_reply().tag == "T1"
    assert client.ask("T4 LIV chan").tag == "T4"

@pytest.mark.parametrize("seed", range(2))
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

@pytest.mark.parametrize("blob", [b"T1 LIV chan\0junk\n", b"S1 init evil\0\n", b"\0T1 LIV chan\n", b"\0" * 300, b"\n\n\n"])
def test_zero_bytes_and_empty_lines(lumo, blob):
    d = lumo()
    src = d.source()
    src.feed(1)
    for path in (d.pl_sock, d.src_sock):
        sock = connect(path)
        sock.sendall(blob)
        assert at_end(sock)
    assert not d.files("*.m3u8") and d.ask("T1 LIV evil").error == (404, "source not found")
    src.send(blob + b"\n")
    segs = src.feed(1)
    assert d.ask("T1 LIV chan").playlist.names[-1:] == names(segs)

# --- source lines ---

def test_partial_line_dies_with_its_connection(lumo):
    """What follows the next one's init line is input."""
    d = lumo()
    src = d.source()
    old, = src.feed(1)
    segs, lines = lines_of(src, 3)
    src.send(lines[0][:-30])
    d.wait_log("got no lines")
    src.close()
    again = d.source(extra=lines[1] + lines[2][:20])
    again.send(lines[2][20:])
    again.wait(segs[2].path)
    assert "invalid input" not in d.log_text()
    assert d.ask("T1 LIV chan").playlist.names == names([old]) + ["DIS"] + names(segs[1:])

@pytest.mark.parametrize("start, dur", [
    (None, "-0.0"), (None, "1e-30"), (None, "3e38"), (None, "9e18"), (None, "99.99"), (0, "1"), (-2**63, "1"),
    (2**63 - 1, "1")])
def test_strange_numbers(lumo, start, dur):
    d = lumo(max_live_items=4, refresh_playlists=True)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(3, dur=10.0)

    def ask_all():
        at = src.next_start - 5
        for kind in ("LIV chan", "VOD chan", f"EVE chan {at} 0", f"EVE chan {at} 7", f"EVE chan {at} 9000 peer=p",
                     "EVE chan -600 0", f"EVE chan {2**63 - 1} {2**63 - 1}", f"EVE chan {-2**63} 1"):
            assert d.ask("T1 " + kind)

    ask_all()
    for _ in range(2):
        seg = src.segment()
        src.send(f"SEGMENT: {seg.path} {seg.start if start is None else start} {dur} 188 7 1\n")
        src.wait(seg.path)
        ask_all()
    segs += src.feed(14, dur=10.0)
    ask_all()
    assert d.ask("T1 VOD chan").playlist.names[-1] == names(segs)[-1]
