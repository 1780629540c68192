"""Item lists rebuilt from live manifests after a restart."""
import os
import random
import time

import pytest

from harness import names, until

def manifest_path(src):
    return os.path.join(src.d.data, src.name, src.name + ".manifest_live")

def entries(segs):
    return [f"{n}: {seg.line()}\n" for n, seg in enumerate(segs, 1)]

@pytest.fixture
def crashed(lumo):
    """A daemon that was killed after its source had delivered some segments, and is started again."""
    d = lumo()
    src = d.source()
    segs = src.feed(4, dur=10.0)
    d.ask("T1 LIV chan")
    d.kill()
    src.sock.close()
    return d.start(), src, segs

def come_back(d, src, content, imported, max_sec=3600):
    with open(manifest_path(src), "wb") as out:
        out.write(content if isinstance(content, bytes) else "".join(content).encode())
    again = d.source("chan", params=f"max_sec={max_sec} data_dir={d.data}", start=src.next_start)
    again.count = src.count
    d.wait_log(rf"\n.* {imported} entries imported from \[{manifest_path(src)}\]")
    return again

def test_a_pipe_is_no_manifest(lumo):
    """Nobody writes into it: opening it must not stop the daemon."""
    d = lumo()
    os.makedirs(os.path.join(d.data, "chan"))
    os.mkfifo(os.path.join(d.data, "chan", "chan.manifest_live"))
    segs = d.source().feed(1)
    d.wait_log(r"read_manifest: fopen\(.*\) ERROR\(22\)")
    assert d.ask("T1 LIV chan").playlist.names == names(segs)

def test_import_after_a_crash(crashed):
    """A file that is gone and one that is half written cost themselves, not what stands behind them."""
    d, src, segs = crashed
    segs += [src.segment(10.0), src.segment(10.0)]
    content = entries(segs)
    os.remove(segs.pop(1).full)
    os.truncate(segs.pop(3).full, 10)
    again = come_back(d, src, content, 4)
    vod = d.ask("T1 VOD chan").playlist
    assert vod.names == names(segs) + ["DIS"]
    late = again.feed(2, dur=10.0)
    assert d.ask("T1 LIV chan").playlist.names == names(segs) + ["DIS"] + names(late)
    assert d.ask(f"T1 EVE chan {segs[1].start} 20").playlist.names == names(segs[1:3])
    again.close()
    d.source("chan")
    assert d.log_text().count("imported from") == 1

def test_binary_manifests(crashed):
    d, src, segs = crashed
    rng = random.Random(1)
    good = "".join(entries(segs)).encode()
    for n in range(30):
        name = f"bin{n}"
        os.mkdir(f"{d.data}/{name}")
        junk = bytes(rng.randrange(256) for _ in range(rng.randint(1, 700)))
        at = rng.randint(0, len(good))
        with open(f"{d.data}/{name}/{name}.manifest_live", "wb") as out:
            out.write(rng.choice((junk, good[:at] + junk + good[at:], b"\0" * 1000, good.replace(b"\n", b"\0"))))
        d.source(name).feed(1)
        assert d.ask(f"T1 VOD {name}").playlist.names[-1] == "s0.ts"
    os.makedirs(f"{d.data}/dir/dir.manifest_live")
    d.source("dir").feed(1)

def test_import_is_trimmed_to_the_playback_depth(crashed):
    d, src, segs = crashed
    for _ in range(9):
        segs.append(src.segment(10.0))
    now = int(time.time())
    for n, seg in enumerate(segs):
        seg.start = now - 90 + n
    come_back(d, src, entries(segs), 13, max_sec=100)
    assert d.ask("T1 VOD chan").playlist.names == names(segs[3:]) + ["DIS"]
    until(lambda: not segs[1].exists(), "the retired files to go")
    assert not segs[0].exists() and all(seg.exists() for seg in segs[2:])
