"""Command line, configuration, process set-up, signals, reload and the log."""
import os
import pwd
import re
import signal
import socket
import subprocess
import time

import pytest

from harness import IS_ROOT, LIMIT, LUMO, until

as_root = pytest.mark.skipif(not IS_ROOT, reason="only root becomes a daemon")

# --- command line ---

def test_version_and_guide(make):
    d = make()
    assert "Playlist manager" in d.refuse("--version", "-Z")
    for args in ([], ["-?"], ["--options"], ["-C", d.conf, "-h"]):
        done = subprocess.run([LUMO, *args], capture_output=True, text=True, timeout=LIMIT)
        assert done.returncode == 1 and done.stdout == "" and "Usage: lumo -Y ipath -S spath" in done.stderr

@pytest.mark.parametrize("args, message", [
    (["-T", "-0", "-x", "-Z"], "Unknown option: x\n"), (["-L", "loud"], "Invalid log level: loud\n"),
    (["-D", "d" * 128], "Data path is too long (128 bytes), max=128 bytes.\n"),
    (["-S", "s" * 104], "Source socket path is too long (104 bytes), max=104 bytes.\n"),
    (["-C", "/no/such.conf"], "Failed to load [/no/such.conf]\n")])
def test_option_errors(make, args, message):
    d = make()
    assert message in d.refuse("-C", d.conf, *args)
    assert not os.path.exists(d.src_sock)

def test_command_line_overrides_the_file(make):
    d = make(runtime={"non_daemon": False}, item_url_prefix="http://file/")
    unused = d.pl_sock
    d.pl_sock = other = d.path("o" * (103 - len(d.path(""))))
    assert len(other) == 103
    d.log = d.path("other.log")
    d.start("-C", d.conf, "-T", "-Y", other, "-l", d.log, "-L", "norm", "-D", "/" + "d" * 126, "-F", "http://line/",
            "-p", d.path("pid"))
    assert not os.path.exists(unused)
    text = d.log_text()
    assert f"data directory       = [/{'d' * 126}]\n" in text and "item prefix          = [http://line/]\n" in text
    assert f"path={other}\n" in text and "(INF)" not in text
    assert not os.path.exists(d.path("pid"))

# --- process ---

def fd_targets(pid):
    return {int(fd): os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}

def is_gone(pid):
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True

@as_root
@pytest.mark.parametrize("user, signo", [("", signal.SIGTERM), ("nobody", signal.SIGQUIT)])
def test_daemon(make, user, signo):
    d = make(runtime={"non_daemon": False, "quiet": False, "run_as_user": user, "pidfile": "pid"}, data_dir="data",
             log={"file": "log"}, src_socket="src", pl_socket="pl")
    for name in (d.dir, d.data):
        os.chmod(name, 0o777)
    for name in (d.src_sock, d.pl_sock):  # what a killed daemon leaves
        with socket.socket(socket.AF_UNIX) as sock:
            sock.bind(name)
    d.launch("-C", "lum.conf", preexec_fn=(lambda: os.closerange(0, 3)) if user else None)
    assert d.proc.wait(LIMIT) == 0
    d.proc = None
    d.wait_log("STARTING. PID=")
    pid = int(d.read(d.path("pid")))
    before = set(os.listdir(d.dir))
    try:
        for args in ((), ("-T", "-S", d.path("other"))):
            said = d.refuse("-C", "lum.conf", *args)
            assert re.search(rf"\[{'pl' if args else 'src'}\] is in use by process {pid}\n", said)
        assert set(os.listdir(d.dir)) == before and int(d.read(d.path("pid"))) == pid and not d.rotated()
        os.truncate(d.path("stderr"), 0)
        fds = fd_targets(pid)
        assert [fds[fd] for fd in range(3)] == ["/dev/null"] * 3
        assert sum(target == d.log for target in fds.values()) == 1
        assert os.stat(d.log).st_mode & 0o777 == 0o644
        assert os.readlink(f"/proc/{pid}/cwd") == (d.dir if user else "/")
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        assert int(fields[3]) not in (pid, os.getsid(0)) and fields[4] == "0", "a session of its own, no terminal"
        uid = pwd.getpwnam(user).pw_uid if user else 0
        assert os.stat(f"/proc/{pid}").st_uid == uid
        src = d.source()
        src.dirname = "."
        os.chmod(src.segment().full, 0o644)
        src.feed(1)
        assert d.ask("T1 LIV chan").path
        with open(d.conf, "w") as conf:
            conf.write('lum: {\n@include "inner"\n};')
        with open(d.path("inner"), "w") as inner:
            inner.write('data_dir = "data/deep"; max_live_items = 9;')
        os.mkdir(d.path("data", "deep"), 0o777)
        os.chmod(d.path("data", "deep"), 0o777)
        os.kill(pid, signal.SIGHUP)
        d.wait_log(rf"reloaded from \[{d.conf}(.|\n)*{d.data}/deep\](.|\n)*max live items       = 9\n")
        os.kill(pid, signal.SIGUSR1)
        until(d.rotated, "the rotated log")
        d.wait_log("Successfully force-rotated")
        assert [fd_targets(pid)[fd] for fd in range(3)] == ["/dev/null"] * 3
    finally:
        os.kill(pid, signo)
    until(lambda: is_gone(pid), "the daemon's end")
    assert re.search(rf"EXIT\(0\)\. PID={pid}\n", d.log_text())
    assert not os.path.exists(d.path("pid"))
    assert d.read(d.path("stderr")) == ""

def test_failed_start_ends_in_order(make):
    d = make(src_socket="/no/such/dir/socket")
    assert re.search(r"lumo shut down\n(.|\n)*EXIT\(1\)", d.refuse())
    with open(d.path("text"), "w") as text:
        text.write("keep")
    assert "is there and is no socket" in d.refuse("-C", d.conf, "-S", d.path("text"))
    assert d.read(d.path("text")) == "keep"

@as_root
@pytest.mark.parametrize("args, fault", [
    (["-D", "no"], r"data directory \[.*/no\] cannot"), (["-l", "no/log"], r"log \[.*/no/log\] cannot"),
    (["-p", "data"], r"pid file \[.*/data\] cannot"), (["-Y", "no/pl"], r"socket \[.*/no/pl\] cannot"),
    (["-p", ""], "Pid file must be"), (["-S", "s" * 103], r"sss\] is too long \(\d+ bytes\), max=103 bytes\n"),
    ([], r"data directory \[.*/data\] cannot")])
def test_a_daemon_tells_what_it_cannot_write_before_it_detaches(make, args, fault):
    d = make(runtime={"non_daemon": False, "run_as_user": "" if args else "nobody", "pidfile": "pid"})
    os.chmod(d.dir, 0o755)
    assert re.search(fault, d.refuse("-C", d.conf, *args))
    assert not os.path.exists(d.log) and not os.path.exists(d.path("pid"))

# --- reload ---

def test_reload_by_signal_and_by_time(lumo):
    d = lumo()
    src = d.source()
    src.feed(9)
    d.write_config(max_live_items=4)
    os.utime(d.conf, (1, 1))
    d.is_answering()
    assert "Reloading" not in d.log_text()
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log(r"SIGHUP\(1\)\n(.|\n)*Configuration reloaded from \[(.|\n)*max live items       = 4\n")
    assert len(d.ask("T1 LIV chan").playlist.items) == 5
    d.write_config(max_live_items=5, src_socket="/tmp/elsewhere", log={"level": "debug"})
    os.utime(d.conf, (time.time() + 5,) * 2)
    mark = d.mark()
    d.wait_log("configuration re-loaded, mtime=", since=mark, poke=True)
    d.is_answering()
    assert "(DBG)" not in d.log_text()
    assert d.source("two").feed(1)

def test_failed_reload_keeps_running(lumo):
    d = lumo()
    src = d.source()
    src.feed(1)
    good = d.read(d.conf)
    for bad in ("lum: {", "lum: { max_live_items = 3; };", "lum: { data_dir = \"/no/such/dir\"; };", None):
        if bad is None:
            os.unlink(d.conf)
        else:
            with open(d.conf, "w") as out:
                out.write(bad)
        mark = d.mark()
        d.proc.send_signal(signal.SIGHUP)
        d.wait_log(r"FAILED \(-1\)", since=mark)
        assert "Configuration reloaded" not in d.log_text()
        src.feed(1)
        assert len(d.ask("T1 LIV chan").playlist.items) == src.count
    # Caught while it is rewritten in place, in one second.
    later = (int(time.time()) + 5) * 10**9
    for count, (text, record) in enumerate((("", "missing group lum"), (good, "Configuration reloaded"))):
        with open(d.path("new"), "w") as out:
            out.write(text)
        os.utime(d.path("new"), ns=(later, later + count))
        os.rename(d.path("new"), d.conf)
        d.wait_log(record, poke=True)

@pytest.mark.parametrize("level, tags", [("err", {"ERR"}), ("dbg", {"ERR", "WRN", "NRM", "INF", "DBG"})])
def test_log_level_from_the_command_line(make, level, tags):
    d = make(log={"level": "err", "hangups": "debug"})
    d.start("-C", d.conf, "-L", level)
    d.poke()
    src = d.source(wait=False)
    until(lambda: d.ask("T1 LIV chan").error == (404, "no items"), "the source")
    src.send("SEGMENT: DISCONTINUITY\nnonsense\n")
    d.wait_log(r"\(ERR\).*invalid input")
    d.is_answering()
    d.stop()
    assert set(re.findall(r"\((\w{3})\)  LUM", d.log_text())) == tags
    assert not re.search(r"\(ERR\).*(URQ|recv)", d.log_text()), "a peer that closes its connection is no error"
