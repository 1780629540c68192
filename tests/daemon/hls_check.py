"""Follows one HLS media playlist over its life and fails where strict players would.

    hls_check.py [--appends] FILE|URL    looks until the list has ended or is gone
"""
import gzip
import math
import os
import re
import sys
import time
import urllib.request
from collections import namedtuple

DATE = r"#EXT-X-PROGRAM-DATE-TIME:(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.000Z)\n"
ITEM = rf"((?:#EXT-X-DISCONTINUITY\n)*)(?:{DATE})?#EXTINF:(\d+\.\d{{6}}),\n([^#\n][^\n]*)\n"
FORM = re.compile(
    r"#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n(?:#EXT-X-PLAYLIST-TYPE:(VOD|EVENT)\n)?"
    r"#EXT-X-TARGETDURATION:([1-9]\d*)\n#EXT-X-MEDIA-SEQUENCE:(\d+)\n(?:#EXT-X-DISCONTINUITY-SEQUENCE:([1-9]\d*)\n)?"
    r"(?:#EXT-X-START:TIME-OFFSET=(-?\d+\.\d{3}),PRECISE=YES\n)?"
    rf"((?:{re.sub(r'[(](?![?])', '(?:', ITEM)})*)(#EXT-X-ENDLIST\n)?")
Segment = namedtuple("Segment", "breaks date sec uri")

class Text:
    """One reading of a playlist."""
    def __init__(self, text):
        form = FORM.fullmatch(text)
        assert form, f"no complete playlist:\n{text}"
        self.type, self.target, self.first = form[1], int(form[2]), int(form[3])
        self.start = None if form[5] is None else float(form[5])
        self.is_ended = form[7] is not None
        self.segments = {}  # by media sequence number
        breaks = int(form[4] or 0)
        for n, (marks, date, sec, uri) in enumerate(re.findall(ITEM, form[6])):
            assert n or not marks, "a discontinuity before the first segment"
            assert bool(date) == (not n or bool(marks)), f"{uri}: dates belong to the first segment and to breaks"
            assert math.floor(float(sec) + 0.5) <= self.target, f"{uri}: {sec} s, target {self.target} s"
            breaks += marks.count("\n")
            self.segments[self.first + n] = Segment(breaks, date, float(sec), uri)
        self.last = self.first + len(self.segments) - 1
        self.sec = sum(segment.sec for segment in self.segments.values())

class Follower:
    """`stream` is shared by the playlists of one source: in all of them a number names the same segment. A list that
    `appends` keeps its first segment; `root` is where listed files must lie, also those of the last reading."""
    def __init__(self, appends=False, stream=None, root=None):
        self.appends, self.stream, self.root = appends, {} if stream is None else stream, root
        self.now = None

    def look(self, text):
        last, now = self.now, Text(text)
        for number, segment in now.segments.items():
            known = self.stream.setdefault(number, segment)
            assert (segment.breaks, segment.sec, segment.uri) == (known.breaks, known.sec, known.uri), \
                f"{number}: {segment}, but it was {known}"
        if last:
            assert now.target == last.target, f"target {last.target} s became {now.target} s"
            assert now.first >= last.first and now.last >= last.last, "the window went back"
            assert not self.appends or now.first == last.first, "a list that appends lost its beginning"
            assert not self.appends or now.start == last.start, "its start moved"
            assert now.first == last.first or round(now.sec, 3) >= 3 * now.target, f"{now.sec} s, target {now.target} s"
            assert not last.is_ended or now.__dict__ == last.__dict__, "it changed behind its end"
        for segment in (*now.segments.values(), *(last.segments.values() if last else ())):
            assert not self.root or os.path.exists(os.path.join(self.root, segment.uri)), f"{segment.uri} is missing"
        self.now = now
        return now

def read(place):
    if "://" in place:
        with urllib.request.urlopen(place) as answer:
            raw = answer.read()
    else:
        with open(place, "rb") as file:
            raw = file.read()
    return (gzip.decompress(raw) if raw[:2] == b"\x1f\x8b" else raw).decode()

def main(*args):
    follower = Follower(appends="--appends" in args)
    while not (follower.now and follower.now.is_ended):
        follower.look(read(args[-1]))
        time.sleep(0.2)

if __name__ == "__main__":
    main(*sys.argv[1:])
