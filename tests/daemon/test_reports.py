"""Meta-data reports over UDP."""
import socket

import pytest

from harness import LIMIT

@pytest.fixture
def listener():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    sock.settimeout(LIMIT)
    yield sock
    sock.close()

def settings(sock, **extra):
    lid = {"prefix": "pfx", "min": 1, "max": 3}
    lid.update(extra.pop("lid", {}))
    url = f"udp://127.0.0.1:{sock.getsockname()[1]}"
    return {"enabled": True, "pub_url": url, "src_base": "base", "lid": lid, **extra}

def test_reports_and_their_ids(lumo, listener):
    d = lumo(md_report=settings(listener))
    src = d.source(params=f"max_sec=150 data_dir={d.data}")
    for number in (2, 3, 1, 2, 3, 1):
        seg, = src.feed(1)
        assert listener.recv(2000).decode() == f"#!pfx-{number} /src/base/{seg.path}/dst/ {seg.start + 150} #EOM"
    bad = src.segment()
    src.send(bad.line(size=1) + "\n")
    d.wait_log("mismatch")
    seg, = src.feed(1)
    assert f"/{seg.path}/" in listener.recv(2000).decode()

def test_reload_changes_reports(lumo, listener):
    d = lumo(md_report=settings(listener))
    src = d.source()
    src.feed(1)
    assert listener.recv(2000).startswith(b"#!pfx-2 /src/base/")
    d.reload(md_report=settings(listener, lid={"prefix": "new", "min": 10, "max": 11}, src_base="other"))
    src.feed(3)
    assert [listener.recv(2000)[:22] for _ in range(3)] == [b"#!new-%d /src/other/ch" % n for n in (11, 10, 11)]

def test_reload_enables_reports_without_a_reporter(lumo, listener):
    d = lumo()
    src = d.source()
    src.feed(1)
    d.reload(md_report=settings(listener))
    src.feed(2)
    listener.setblocking(False)
    with pytest.raises(BlockingIOError):
        listener.recv(2000)

@pytest.mark.parametrize("url", ["tcp://127.0.0.1:80", "udp://", "udp://127.0.0.1", "127.0.0.1:80"])
def test_bad_urls_refuse_the_start(make, listener, url):
    d = make(md_report=settings(listener, pub_url=url))
    text = d.refuse()
    assert f"mdr_open: cannot open [{url}]\n" in text
    assert (f"mdr_open: non-UDP URLs not supported [{url}]\n" in text) == (not url.startswith("udp://"))
    assert "EXIT(1)" in text
