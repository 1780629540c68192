"""Event and time-shift requests."""
import itertools

import pytest

from harness import names
from hls_check import Text, read

BIG = 2**63 - 1

@pytest.mark.parametrize("peer", ["", " peer=a"])
def test_events_follow_the_feed(lumo, peer):
    """Up to the live edge, and once the end is there not any further."""
    d = lumo(refresh_playlists=True, max_live_items=4)
    src = d.source(start=1700000000)
    segs = src.feed(4, dur=10.0)
    start = segs[0].start
    event = d.ask(f"T1 EVE chan {start + 10} 60{peer}")
    assert event.playlist.names == names(segs[1:4]) and not event.playlist.is_ended
    segs += src.feed(1, dur=10.0)
    d.is_answering()
    assert event.playlist.names[-1] == names(segs)[-1]
    segs += src.feed(4, dur=10.0)
    d.is_answering()
    playlist = event.playlist
    assert playlist.is_ended and playlist.names[-1] == names(segs)[6]
    segs += src.feed(3, dur=10.0)
    d.is_answering()
    assert event.playlist.text == playlist.text

TIMES = [0, -1, -600, "{t}", BIG, -BIG - 1, 2**64]
LENGTHS = [0, -2, 10, BIG, -BIG - 1]

@pytest.mark.parametrize("strict", [False, True])
def test_all_combinations(lumo, strict):
    d = lumo(strict_hls=strict, refresh_playlists=True, min_src_tasks=1, max_src_tasks=512)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    for _ in range(3):
        segs = src.feed(6, dur=10.0)
        for at, length, peer in itertools.product(TIMES, LENGTHS, ("", " peer=x", " peer=" + "y" * 48)):
            reply = d.ask(f"T1 EVE chan {str(at).format(t=segs[2].start + 3)} {length}{peer}")
            assert reply.error or (Text(read(reply.path)).segments if strict else reply.playlist.names)
        assert d.ask(f"T1 EVE chan {segs[2].start + 3} 0").path
    assert names(segs)[-1] in read(d.ask("T1 LIV chan").path)
