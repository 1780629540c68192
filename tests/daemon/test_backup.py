"""A backup source takes over when the main one breaks."""
import os
import signal

import pytest

from harness import names

def pair(d, main_pfx="", backup_pfx=""):
    def params(pfx):
        return f"max_sec=3600 data_dir={d.data}" + (f" item_pfx={pfx}" if pfx else "")

    return d.source("chan", params=params(main_pfx)), d.source("~chan", params=params(backup_pfx))

def test_backup_takes_over_with_one_discontinuity(lumo):
    d = lumo()
    main, backup = pair(d)
    segs = main.feed(3)
    backup.feed(2)
    live = d.ask("T1 LIV chan")
    main.close()
    d.wait_log(r"Roll-over from \[~chan\]/fd\d+ to \[chan\]/fd\d+ completed\n")
    d.wait_log(r"removed 1 source\(s\)", poke=True)
    late = backup.feed(3)
    reply = d.ask("T1 LIV chan")
    assert reply.path == live.path
    assert reply.playlist.items == [seg.path for seg in segs] + ["DIS"] + [seg.path for seg in late]
    assert d.ask("T1 LIV ~chan").error == (404, "source not found")
    assert d.source("chan", wait=False) and d.wait_log(r"src\[chan\] already exists")
    second = d.source("~chan")
    second.count = 50
    backup.sock.close()
    d.wait_log("Roll-over from .* completed", count=2)
    more = second.feed(1)
    assert d.ask("T1 LIV chan").playlist.items[-2:] == ["DIS", more[0].path]

def test_a_taken_over_backup_makes_room(lumo):
    """The break and the backup's next lines arrive at once; a new standby comes right behind."""
    d = lumo()
    main, backup = pair(d)
    main.feed(1)
    backup.feed(1)
    os.kill(d.proc.pid, signal.SIGSTOP)
    main.sock.close()
    late = [backup.segment() for _ in range(9)]
    backup.put(*late, wait=False)
    os.kill(d.proc.pid, signal.SIGCONT)
    d.wait_log("Roll-over from .* completed")
    d.wait_log(r"removed 1 source\(s\)", poke=True)
    d.source("~chan").feed(1)
    assert d.ask("T1 LIV ~chan").playlist

@pytest.mark.parametrize("cut", [1, 20, -1])
def test_partial_lines_at_the_break(lumo, cut):
    """The backup's half line goes with its connection, the main one's ends with it."""
    d = lumo()
    main, backup = pair(d)
    segs = main.feed(1)
    lost, late = main.segment(), [backup.segment(), backup.segment()]
    main.send(lost.line()[:cut])
    d.wait_log("got no lines")
    line = late[0].line() + "\n"
    backup.send(line[:cut])
    d.wait_log("got no lines", count=2)
    main.close()
    d.wait_log("Roll-over from .* completed")
    backup.send(line[cut:])
    backup.put(late[1])
    assert d.ask("T1 LIV chan").playlist.items == [segs[0].path, "DIS"] + [seg.path for seg in late]
    assert "invalid input" not in d.log_text()

def test_both_break(lumo):
    d = lumo()
    main, backup = pair(d)
    segs = main.feed(2)
    backup.feed(1)
    backup.close()
    assert "is there bkup" not in d.log_text() and "src[~chan] suspended\n" in d.log_text()
    main.close()
    d.wait_log(r"bkup src\[~chan\] already suspended, cannot proceed")
    again = d.source("chan")
    again.count = 10
    segs += again.feed(1)
    assert d.ask("T1 LIV chan").playlist.names == names(segs[:2]) + ["DIS"] + names(segs[2:])
    d.source("~chan").feed(1)
    again.close()
    d.wait_log("Roll-over from .* completed")

def test_break_without_backup(lumo):
    d = lumo()
    main = d.source("chan")
    segs = main.feed(1)
    for n in range(3):
        main.close()
        main = d.source("chan")
        main.count = n + 1
    d.wait_log(r"no bkup\[~chan\] source found, rc=")
    segs += main.feed(1)
    assert d.ask("T1 LIV chan").playlist.names == [names(segs)[0], "DIS", names(segs)[1]]

def test_backup_in_use_is_never_taken_over(lumo):
    d = lumo()
    main, backup = pair(d)
    main.feed(1)
    own = backup.feed(1)
    assert d.ask("T1 LIV ~chan").path
    main.close()
    d.wait_log(r"bkup src\[~chan\] has 1 active tasks")
    own += backup.feed(1)
    assert d.ask("T1 LIV chan").playlist.names == ["s0.ts", "DIS"]
    assert d.ask("T1 LIV ~chan").playlist.names == names(own)

@pytest.mark.parametrize("main_pfx, backup_pfx, message", [
    ("http://a/", "http://b/", r"src\[chan\] changed item prefix from \[http://a/\] to \[http://b/\]"),
    ("http://a/", "http://a/", None), ("", "http://b/", r"src\[chan\] acquired NEW item prefix: http://b/"),
    ("http://a/", "", r"src\[chan\] dropped item prefix, old prefix was: http://a/"), ("", "", None)])
def test_prefix_goes_with_the_connection(lumo, main_pfx, backup_pfx, message):
    d = lumo(item_url_prefix="http://file/")
    main, backup = pair(d, main_pfx, backup_pfx)
    main.feed(1)
    assert d.ask("T1 LIV chan").playlist.items[0].startswith((main_pfx or "http://file/") + "chan")
    main.close()
    d.wait_log("Roll-over from .* completed")
    if message:
        d.wait_log(message)
    else:
        assert "item prefix f" not in d.log_text() and "acquired" not in d.log_text()
    late, = backup.feed(1)
    assert d.ask("T1 LIV chan").playlist.items[-1] == (backup_pfx or "http://file/") + late.path

def test_manifest_is_for_the_main_source_only(lumo):
    d = lumo()
    os.mkdir(f"{d.data}/~chan")
    with open(f"{d.data}/~chan/~chan.manifest_live", "w") as out:
        out.write("1: SEGMENT: x 1 1 1 1 1\n")
    d.source("~chan")
    assert "imported" not in d.log_text()
    assert d.ask("T1 LIV ~chan").error == (404, "no items")
