"""Late deletion: what was listed can be fetched for a while."""
import os
import time

from harness import until

KEEP = 5

def is_early(began):
    return time.monotonic() - began < KEEP - 1.1  # whole seconds

def gone(d, paths, poke=True):
    until(lambda: not any(map(os.path.exists, paths)), "the files to go", poke=d.poke if poke else None)

def test_files_outlive_their_listing(lumo):
    """Segments, and the playlists that go with them; nothing else goes."""
    d = lumo(keep_retired_sec=KEEP, strict_hls=True, task_tmout_sec=1, src_tmout_sec=60)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(10, dur=10.0)
    ended, ending = (f"T1 EVE chan {segs[0].start} {sec}" for sec in (25, 105))
    lists = [d.ask(request).path for request in ("T1 VOD chan", ended, ending)]
    began = time.monotonic()
    segs += src.feed(2, dur=10.0)
    assert {d.ask(request).error for request in (ended, ending)} == {(404, "no data for the event")}
    os.unlink(segs[0].full)  # by who made it
    leaving = [seg.full for seg in segs[:2]] + lists + [path + ".alk" for path in lists]
    gone(d, leaving)
    assert not is_early(began) and all(seg.exists() for seg in segs[2:])
    assert "unlink(" not in d.log_text()

def test_deletions_survive_the_source_and_a_clean_end(make):
    """But for what the next daemon lists again, or makes under the same name."""
    d = make(keep_retired_sec=KEEP, task_tmout_sec=1, src_tmout_sec=60).start(umask=0)
    src = d.source(params=f"max_sec=100 data_dir={d.data}", start=int(time.time()) - 120)
    segs = src.feed(10, dur=10.0)
    vod = d.ask("T1 VOD chan").path
    began = time.monotonic()
    segs += src.feed(2, dur=10.0)
    spare = d.source("~chan", params=src.params).feed(12, dur=10.0)
    d.stop()
    assert not spare[0].exists() and "cannot keep" not in d.log_text()
    pending, manifest = d.path("data", "chan", "chan.pending"), d.path("data", "chan", "chan.manifest_live")
    assert os.stat(pending).st_mode & 0o777 == 0o644
    with open(pending, "a") as out:  # it is not believed blindly
        out.write(f"0 ../lum.conf\nx\n{2**63} \n0 {segs[5].path}")
    ancient, stale, reused = (src.segment() for _ in range(3))
    with open(manifest, "w") as out:  # too old to be listed, by a wrong clock as well, and one written again since
        for seg, age in (ancient, 1000), (stale, 200), (reused, 200):
            out.write(f"0: SEGMENT: {seg.path} {time.time() - age:.0f} 10 188 1 1\n")
            if seg != reused:
                os.utime(seg.full, (time.time() - age,) * 2)
        out.writelines(f"{n}: {seg.line()}\n" for n, seg in enumerate(segs[1:]))
    d.start()
    assert segs[0].exists() or not is_early(began)
    again = d.source(params=f"max_sec=130 data_dir={d.data}", start=src.next_start)
    assert not os.path.exists(pending) and d.ask("T1 VOD chan").path == vod
    gone(d, [segs[0].full, stale.full])
    assert ancient.exists() and reused.exists() and segs[1].exists() and segs[5].exists()
    assert os.path.exists(vod) and os.path.exists(vod + ".alk")
    again.count = 50
    began = time.monotonic()
    late = again.feed(4, dur=10.0)
    d.reload(src_tmout_sec=1)
    again.sock.close()
    d.wait_log(r"removed 1 source\(s\)", poke=True)
    gone(d, [seg.full for seg in segs[1:3]], poke=False)  # nothing else wakes the daemon up
    assert not is_early(began)
    assert os.path.exists(d.conf) and all(seg.exists() for seg in segs[3:] + late)
