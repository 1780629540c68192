"""Numbers go on over restarts: the sequence file beside the manifest."""
import os
import re
import time

from harness import Source
from hls_check import Follower, read

def numbers(d, channel="chan"):
    """Every number that each segment of a channel has had in the daemon's lists."""
    found = {}
    for number, path in re.findall(rf"added \w+ \[SEG\]/\S+ m(\d+)  channel\[{channel}\] (\S+)\n", d.all_text()):
        found.setdefault(os.path.basename(path), set()).add(int(number))
    return found

def write_manifest(d, segs, channel="chan"):
    base = d.path("data", channel, channel)
    with open(base + ".manifest_live", "w") as out:
        out.writelines(f"{n}: {seg.line(size=188) if seg else 'SEGMENT: DISCONTINUITY'}\n" for n, seg in enumerate(segs))
    return base + ".seq"

def test_numbers_go_on_over_crashes(lumo):
    """Whatever was deleted, and however far the writing of the file had come when the daemon was killed."""
    d = lumo(strict_hls=True, refresh_playlists=True)
    src, segs, live = None, [], Follower()
    for n in range(12):
        again = Source(d, params=f"max_sec=100 data_dir={d.data}", start=src.next_start if src else int(time.time()) - 60)
        again.count, src = src.count if src else 0, again
        for _ in range(4):
            segs = segs[-11:] + [src.segment(10.0)]
            seq = write_manifest(d, segs)
            before = d.read(seq)
            src.put(segs[-1])
            live.look(read(d.ask("T1 LIV chan").path))
        if n == 7:
            os.remove(segs[-3].full)
            os.remove(segs[-1].full)
            live = Follower()  # what is gone moves the others up
        path, number, breaks = d.read(seq).split()[:3]
        assert numbers(d)[os.path.basename(path)] == {int(number)} and int(breaks) == n
        d.kill()
        if n % 3 == 1:  # not yet renamed
            with open(seq, "w") as old, open(seq + ".tmp", "w") as half:
                old.write(before)
                half.write("chan/s")
        src.sock.close()
        d.start()
    src = d.source(params=f"max_sec=100 data_dir={d.data}", start=src.next_start)
    src.count = 48
    src.put(src.segment(101.0))  # leaves nothing in the list
    src.feed(1)
    assert {name: {n} for n, name in enumerate(f"s{n}.ts" for n in range(50))} == numbers(d)

def test_bad_sequence_files(lumo):
    """A file that names nothing of the manifest is as none; one that cannot be written stops no feed."""
    d = lumo(strict_hls=True)
    maker = d.source("maker")
    segs = [maker.segment(10.0) for _ in range(3)]
    segs.insert(2, None)
    cases = [(None, 0), (b"", 0), (b"maker/s1.ts 7", 0), (b"maker/s1.ts 7 3", 0), (b"\0\xff" * 90, 0),
             (b"maker/s1.ts 7 3\n", 6), (b"maker/s1.ts 0 0\n", 0), (b"other/s1.ts 7 3\n", 0), (b"maker/s1.ts -7 3\n", 0),
             (b"maker/s1.ts 7 3 \0\n", 0), (b"maker/s1.ts 99999999999999999999 3\n", 0),
             (b"maker/s1.ts 7 9999999999\n", 0), ("a directory", 0)]
    for n, (content, first) in enumerate(cases):
        os.mkdir(d.path("data", f"c{n}"))
        seq = write_manifest(d, segs, f"c{n}")
        if content == "a directory":
            os.mkdir(seq)
        elif content is not None:
            with open(seq, "wb") as out:
                out.write(content)
        src = d.source(f"c{n}", params=f"max_sec=3600 data_dir={d.data}")
        src.count = 9
        src.feed(2)
        last = first + 4 - (content == b"maker/s1.ts 0 0\n")  # none below zero
        had = numbers(d, f"c{n}")
        assert had["s0.ts"] == {first} and had["s10.ts"] == {last}, content
        if content != "a directory":
            assert d.read(seq).split()[0] == f"c{n}/s9.ts"
    assert d.log_text().count("cannot keep its numbers") == 1
    maker.feed(1, dur=10.0)
    d.reload(strict_hls=False)
    maker.cut()
    maker.feed(2, dur=10.0)
    d.reload(strict_hls=True)
    d.ask("T1 LIV maker")
    assert d.read(d.path("data", "maker", "maker.seq")).split()[1:] == ["2", "1"], "the break meanwhile is known"
