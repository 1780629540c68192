"""A backup source takes over when the main one breaks, and what is written before a break counts."""
import os
import signal

import pytest

from harness import connect, names

def pair(d):
    return d.source("chan"), d.source("~chan")

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

@pytest.mark.parametrize("cut", [20, -1])
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

@pytest.mark.parametrize("role", ["main", "backup", "taken over"])
def test_lines_before_a_close_count(lumo, role):
    """All but the half line, which goes with its connection."""
    d = lumo()
    main, backup = pair(d)
    segs = main.feed(1)
    if role == "taken over":
        main.close()
        d.wait_log("Roll-over from .* completed")
    src = main if role == "main" else backup
    written = [src.segment() for _ in range(40)]
    os.kill(d.proc.pid, signal.SIGSTOP)
    src.put(*written, wait=False)
    src.send(src.segment().line()[:-1])
    src.sock.close()
    os.kill(d.proc.pid, signal.SIGCONT)
    src.wait(written[-1].path)
    name, before = ("~chan", []) if role == "backup" else ("chan", segs)
    assert [item for item in d.ask(f"T1 VOD {name}").playlist.names if item != "DIS"] == names(before + written)

def test_producers_that_write_and_close_at_once(lumo):
    """Ten lines behind each init line, of sources of their own and of one that comes back again and again."""
    d = lumo(verify_item_filesize=False)
    for n in range(50):
        sock = connect(d.src_sock)
        lines = "".join(f"SEGMENT: {n}-{k}.ts 1700000000 1 188 7 1\n" for k in range(10))
        sock.sendall(f"S1 init {f'own{n}' if n % 2 else 'chan'}\n{lines}".encode())
        sock.close()
    d.wait_log(r"added LIVE \[SEG\]", count=500)
    shown = d.ask("T1 VOD chan").playlist
    assert [item for item in shown.items if item != "DIS"] == [f"{n}-{k}.ts" for n in range(0, 50, 2) for k in range(10)]
