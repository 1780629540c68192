"""The status file, and the program that shows it."""
import os
import re
import subprocess
import time

import pytest

from harness import LIMIT, LUMO, until

def read(d):
    """The values by their name and labels."""
    with open(d.settings["status_file"]) as file:
        lines = [line.rsplit(" ", 1) for line in file if not line.startswith("#")]
    return {name: float(value) for name, value in lines}

def top(*args):
    program = os.path.join(os.path.dirname(LUMO), "lumo-top")
    return subprocess.run([program, *args], capture_output=True, text=True, timeout=LIMIT)

@pytest.fixture
def watched(make):
    d = make(status_sec=1, max_playback_time=600)
    d.write_config(status_file=d.path("status.prom"))
    return d

def test_what_the_daemon_counts(watched):
    d = watched.start()
    src = d.source('a"b\\é', params=f"max_sec=100 data_dir={d.data}")
    segs = src.feed(3, dur=40.0)
    src.cut()
    src.send("nonsense\n" + segs[0].line(size=1) + "\n")
    d.source("~" + 60 * "é")
    main, backup = d.source("main"), d.source("~main")
    main.feed(1)
    main.close()
    backup.feed(1)
    d.ask("T1 LIV main")
    d.ask("T1 LIV nobody")
    client = d.client()
    client.send("T1 LIV\n")
    label = 'source="a\\"b\\\\\\\\xc3\\\\xa9"'
    values = until(lambda: (v := read(d)).get("lumo_requests_unanswered_total") == 1 and v, "the counts")
    expected = {
        "items": 3, "held_seconds": 80, "segments_accepted_total": 3, "segments_retired_total": 1,
        "files_deleted_total": 0, "discontinuities_total": 1, "connected": 1, "takeovers_total": 0}
    assert {name: values[f"lumo_source_{name}{{{label}}}"] for name in expected} == expected
    refused = {r: values[f'lumo_source_lines_refused_total{{{label},reason="{r}"}}'] for r in ("malformed", "size", "value")}
    assert refused == {"malformed": 1, "size": 1, "value": 0}
    assert values['lumo_source_takeovers_total{source="main"}'] == 1
    assert values['lumo_source_tasks{source="main",kind="live"}'] == 1
    assert values['lumo_requests_total{kind="live",status="200"}'] == 1
    assert values['lumo_requests_total{kind="live",status="404"}'] == 1
    assert values['lumo_playlist_bytes_total{kind="live"}'] == os.path.getsize(d.files("main-LIV*m3u8")[0])
    assert values['lumo_playlist_write_seconds_count{kind="live"}'] == 1 and values["lumo_open_fds"] > 5
    assert values['lumo_log_records_total{level="error"}'] == d.log_text().count("(ERR)") > 0
    with open(d.settings["status_file"]) as file:
        done = subprocess.run(["promtool", "check", "metrics"], stdin=file, capture_output=True, text=True)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")
    table = top("--once", d.settings["status_file"])
    assert table.returncode == 0 and re.search(r"\nmain +on +3 ", table.stdout) and 'a"b' in table.stdout
    assert top("-1", d.path("none")).returncode == top("-1", d.conf).returncode == 1 and top().returncode == top("-n", "0", "x").returncode == 2

def test_an_idle_daemon_writes_and_a_reload_ends_it(watched):
    d = watched
    d.write_config(status_file=d.path("later", "status"))
    d.launch()
    d.wait_log(r"later/status\] cannot be written, ERROR\(2\)")
    passes, begun = [], time.monotonic()
    os.mkdir(d.path("later"))
    for _ in range(2):  # nobody speaks to it
        os.path.exists(d.settings["status_file"]) and os.unlink(d.settings["status_file"])
        until(lambda: os.path.exists(d.settings["status_file"]), "the file")
        passes.append(read(d)["lumo_loop_passes_total"])
    assert passes[0] < passes[1] <= passes[0] + 4 + 2 * (time.monotonic() - begun)
    assert d.log_text().count("cannot be written") == d.log_text().count("is written again") == 1
    assert os.stat(d.settings["status_file"]).st_mode & 0o777 == 0o644
    d.reload(status_file="")
    assert os.listdir(d.path("later")) == ["status"]
    os.unlink(d.path("later", "status"))
    with pytest.raises(AssertionError):
        until(lambda: os.listdir(d.path("later")), limit=2.5)
