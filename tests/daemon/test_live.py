"""Live and VOD playlists as segments arrive and go."""
import os
import struct

import pytest

from harness import names, until

def test_live_playlist_follows_the_feed(lumo):
    d = lumo(max_live_items=4, lock_mode="0666")
    src = d.source()
    segs = src.feed(3, dur=2.0)
    reply = d.ask("T1 LIV chan")
    assert reply.raw == f"T1 text/M3U {d.data}/chan-LIV1-M0.m3u8 \n"
    with open(reply.path + ".alk", "rb") as lock:
        assert struct.unpack("=qq", lock.read()) == (d.pid, 0)
        assert os.fstat(lock.fileno()).st_mode & 0o777 == 0o666
    segs += src.feed(7)
    again = d.ask("Tother liv chan")
    assert (again.tag, again.path) == ("Tother", reply.path)
    assert again.playlist.names == names(segs[6:]) and again.playlist.first == 6
    assert d.source("late").feed(10) and d.ask("T1 LIV late").playlist.first == 5, "a new window holds one more"
    d.stop()
    assert not d.files("*.m3u8*")
    assert all(seg.exists() for seg in segs)

@pytest.mark.parametrize("has_gzip, text_live, live, event", [
    (True, True, "text", "gzip"), (True, False, "gzip", "gzip"), (False, False, "text", "text")])
def test_forms(lumo, has_gzip, text_live, live, event):
    d = lumo(gzip_playlists=has_gzip, text_live_playlists=text_live)
    segs = d.source().feed(2)
    for line, form in (("LIV chan", live), (f"EVE chan {segs[0].start} 0", event), ("VOD chan", "gzip")):
        reply = d.ask("T1 " + line)
        assert (reply.form, reply.playlist.is_gzipped) == (form, form == "gzip")

def test_retired_files_go_one_retirement_late(lumo):
    d = lumo()
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(10, dur=10.0)
    vod = d.ask("T1 VOD chan")
    live = d.ask("T2 LIV chan")
    segs += src.feed(1, dur=10.0)
    assert d.is_answering() and all(seg.exists() for seg in segs)
    until(lambda: not os.path.exists(vod.path), "the VOD task over the retired segment to go", poke=d.poke)
    assert not os.path.exists(vod.path + ".alk")
    segs += src.feed(1, dur=10.0)
    until(lambda: not segs[0].exists(), "the first file to go")
    assert segs[1].exists() and os.path.exists(live.path)
    segs += src.feed(1, dur=10.0)
    until(lambda: not segs[1].exists(), "the second file to go")
    assert [seg.exists() for seg in segs[2:]] == [True] * 11
    assert d.ask("T3 VOD chan").playlist.names == names(segs[3:])
