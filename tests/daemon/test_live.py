"""Live and VOD playlists as segments arrive and go."""
import os
import struct

import pytest

from harness import Playlist, names, until

def test_live_playlist_follows_the_feed(lumo):
    d = lumo(max_live_items=4)
    src = d.source()
    segs = src.feed(3, dur=2.0)
    reply = d.ask("T1 LIV chan")
    assert reply.raw == f"T1 text/M3U {d.data}/chan-LIV1-M0.m3u8 \n"
    uris = "".join(f"#EXTINF:2.000000,\n{seg.path}\n" for seg in segs)
    assert reply.playlist.text == ("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n#EXT-X-TARGETDURATION:2\n"
                                   "#EXT-X-MEDIA-SEQUENCE:0\n" + uris)
    with open(reply.path + ".alk", "rb") as lock:
        assert struct.unpack("=qq", lock.read()) == (d.pid, 0)
    segs += src.feed(7)
    again = d.ask("Tother liv chan")
    assert (again.tag, again.path) == ("Tother", reply.path)
    assert again.playlist.names == names(segs[6:]) and again.playlist.first == 6
    assert not d.files("*.tmp")
    assert d.source("late").feed(10) and d.ask("T1 LIV late").playlist.first == 5, "a new window holds one more"
    assert again.playlist.names == names(segs[6:])
    d.stop()
    assert not d.files("*.m3u8*")
    assert all(seg.exists() for seg in segs)

def test_vod_is_detached_by_the_next_segment(lumo):
    d = lumo(gzip_playlists=False)
    src = d.source()
    segs = src.feed(8)
    first = d.ask("T1 VOD chan")
    assert (first.form, first.playlist.is_gzipped, first.playlist.type) == ("gzip", True, "VOD")
    assert d.ask("T2 VOD chan").path == first.path
    more = src.feed(1)
    second = d.ask("T1 VOD chan")
    assert second.path != first.path
    assert first.playlist.names == names(segs) and first.playlist.is_ended and first.playlist.first == 0
    assert second.playlist.names == names(segs + more)

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

def test_windows_over_the_whole_depth_move_on(lumo):
    d = lumo(max_live_items=64)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(10, dur=10.0)
    lines = ("T1 LIV chan", f"T1 EVE chan {segs[0].start} 9000 peer=p")
    paths = [d.ask(line).path for line in lines]
    for _ in range(5):
        segs += src.feed(1, dur=10.0)
        assert [d.ask(line).path for line in lines] == paths
        assert d.ask(lines[0]).playlist.names == names(segs[-10:])

@pytest.mark.parametrize("refresh", [True, False])
def test_refresh_playlists(lumo, refresh):
    d = lumo(refresh_playlists=refresh)
    src = d.source()
    segs = src.feed(2)
    reply = d.ask("T1 LIV chan")
    segs += src.feed(2)
    assert d.is_answering()
    assert reply.playlist.names == names(segs if refresh else segs[:2])

def test_sid_directory(lumo):
    d = lumo(use_sid_playlist_dir=True)
    src = d.source()
    segs = src.feed(1)
    reply = d.ask("T1 LIV chan")
    assert reply.path == f"{d.data}/chan/LIV1-M0.m3u8"
    assert reply.playlist.names == names(segs)

@pytest.mark.parametrize("config, option, param, expected", [
    ("http://file/", None, None, "http://file/"), ("http://file/", "http://line/", None, "http://line/"),
    ("http://file/", None, "http://own/", "http://own/"), ("", None, None, "")])
def test_item_prefix(make, config, option, param, expected):
    d = make(item_url_prefix=config)
    d.start("-C", d.conf, *(["-F", option] if option else []))
    pfx = f" item_pfx={param}" if param else ""
    seg, = d.source(params=f"max_sec=100 data_dir={d.data}{pfx}").feed(1)
    assert d.ask("T1 LIV chan").playlist.items == [expected + seg.path]

def test_discontinuities(lumo):
    d = lumo()
    src = d.source()
    src.cut()
    segs = src.feed(2)
    src.cut()
    src.cut()
    segs += src.feed(1)
    s0, s1, s2 = names(segs)
    assert d.ask("T1 LIV chan").playlist.names == [s0, s1, "DIS", s2]
    for _ in range(4):
        src.cut()
        segs += src.feed(1)
    window = d.ask("T2 LIV chan").playlist
    assert window.names[0] == names(segs)[window.first] and window.names[-1] == names(segs)[-1]

@pytest.mark.parametrize("durations, target", [
    ([9.5, 10.4], 10), ([10.5], 10), ([11.5], 12), ([0.2], 1), ([75.0, 0.5], 75), ([59.999], 60)])
def test_target_duration(lumo, durations, target):
    d = lumo()
    src = d.source()
    for dur in durations:
        src.feed(1, dur=dur)
    assert d.ask("T1 LIV chan").playlist.target == target
    strange = [dur for dur in durations if not 1 <= dur < 60]
    assert d.log_text().count("invalid duration") == len(strange)

def test_refusals(lumo):
    d = lumo(min_src_tasks=1, max_src_tasks=1)
    src = d.source()
    client = d.client()
    assert client.ask("T1 LIV chan").raw == "T1 ERROR HTTP:404 - no items\n"
    assert client.is_closed()
    assert d.ask("T1 VOD other").error == (404, "source not found")
    src.feed(1)
    assert d.ask("T1 LIV chan").path
    assert d.ask("T1 VOD chan").raw == "T1 ERROR HTTP:500 - internal\n"
    assert Playlist(d.files("*.m3u8")[0]).names == ["s0.ts"]

def test_long_paths_in_answers(lumo):
    """An answer of exactly the limit loses its line end; a longer one becomes an error line."""
    d = lumo(verify_item_filesize=False)
    tag = "T" + "x" * 30
    seen = set()
    for seq in range(1, 12):
        name = "n" * (41 + seq)
        src = d.source(name, params="max_sec=100")
        mark = d.mark()
        src.send("SEGMENT: s.ts 1 1 1 1 1\n")
        d.wait_log("added LIVE", since=mark)
        client = d.client()
        client.send(f"{tag} LIV {name}\n")
        full = f"{tag} text/M3U {d.data}/{name}-LIV{seq}-M0.m3u8 \n"
        expected = full[:126] if len(full) <= 127 else f"{tag} ERROR HTTP:500 - internal\n"
        assert client.sock.recv(4096).decode() == expected
        seen.add((len(full) > 127) - (len(full) < 127))
    assert seen == {-1, 0, 1}
