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
    d, src, segs = crashed
    again = come_back(d, src, entries(segs), 4)
    vod = d.ask("T1 VOD chan").playlist
    assert vod.names == names(segs) + ["DIS"]
    late = again.feed(2, dur=10.0)
    assert d.ask("T1 LIV chan").playlist.names == names(segs) + ["DIS"] + names(late)
    assert d.ask(f"T1 EVE chan {segs[1].start} 20").playlist.names == names(segs[1:3])
    assert d.log_text().count("added MANIF [SEG]") == 4
    again.close()
    d.source("chan")
    assert d.log_text().count("imported from") == 1

@pytest.mark.parametrize("change, kept", [
    (lambda lines: lines[:2] + ["3: SEGMNT: x\n"] + lines[2:], [0, 1]), (lambda lines: "".join(lines)[:-40], [0, 1, 2]),
    (lambda lines: "", []), (lambda lines: "\n" * 5 + "".join(lines), []), (lambda lines: [lines[0][:20]], []),
    (lambda lines: lines + lines, [0, 1, 2, 3] * 2), (lambda lines: [lines[0]] * 5, [0] * 5),
    (lambda lines: lines[::-1], [3, 2, 1, 0]), (lambda lines: [lines[0], "2: SEGMENT: none.ts 1 1 1 1 1\n", lines[2]], [0, 2]),
    (lambda lines: [lines[0], "2: SEGMENT: " + "p" * 100 + " 1 1 1 1 1\n", lines[2]], [0, 2]),
    (lambda lines: [lines[0], lines[1].replace(" chan/", " ../chan/"), lines[2]], [0, 2]),
    (lambda lines: [lines[0], lines[1].replace(" 10.0 ", " nan "), lines[2]], [0, 2]),
    (lambda lines: [lines[0], lines[1].replace("\n", " " + "r" * 400 + "\n"), lines[2]], [0, 1, 2]),
    (lambda lines: [lines[0], *[f"2: SEGMENT: DISCONTINUITY {time.time():.0f}\n"] * 2, lines[3]], None),
    (lambda lines: ["1" * 300 + lines[0]], []), (lambda lines: ["x" + lines[0]], []), (lambda lines: [" -7:" + lines[0][2:]], [0])])
def test_strange_manifests(crashed, change, kept):
    d, src, segs = crashed
    if kept is None:
        come_back(d, src, change(entries(segs)), 4)
        expected = [names(segs)[0], "DIS", names(segs)[3], "DIS"]
    else:
        come_back(d, src, change(entries(segs)), len(kept))
        expected = [names(segs)[n] for n in kept] + ["DIS"] * bool(kept)
    reply = d.ask("T1 VOD chan")
    assert reply.playlist.names == expected if expected else reply.error == (404, "no items")

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
            out.write(rng.choice((junk, good[:at] + junk + good[at:], b"\0" * 1000, good.replace(b"\n", b"\0"), good + junk)))
        d.source(name).feed(1)
        assert d.ask(f"T1 VOD {name}").playlist.names[-1] == "s0.ts"
    os.makedirs(f"{d.data}/dir/dir.manifest_live")
    d.source("dir").feed(1)

def test_stale_entries_are_skipped(crashed):
    d, src, segs = crashed
    now = int(time.time())
    for seg, age in zip(segs, (1000, 105, 95, 10)):
        seg.start = now - age
    come_back(d, src, entries(segs), 2, max_sec=100)
    assert d.log_text().count("skipping over entry (rc=-7)") == 2
    assert d.ask("T1 VOD chan").playlist.names == names(segs[2:]) + ["DIS"]

@pytest.mark.parametrize("start", [0, -2**63, 2**63 - 1])
def test_strange_start_times(crashed, start):
    d, src, segs = crashed
    segs[1].start = start
    come_back(d, src, [line.replace(str(start * 90000), "1") for line in entries(segs)], 4 if start > 0 else 3)
    d.is_answering()

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
