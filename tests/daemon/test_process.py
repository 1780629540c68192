"""Command line, configuration, process set-up, signals, reload and the log."""
import os
import pwd
import re
import signal
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
    d = make(runtime={"non_daemon": False, "quiet": False, "run_as_user": user, "pidfile": "placeholder"})
    for name in (d.dir, d.data):
        os.chmod(name, 0o777)
    d.write_config(runtime={"pidfile": d.path("pid")})
    d.launch("-C", "lum.conf")
    assert d.proc.wait(LIMIT) == 0
    d.proc = None
    d.wait_log("STARTING. PID=")
    pid = int(d.read(d.path("pid")))
    try:
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
        d.write_config(max_live_items=9)
        os.kill(pid, signal.SIGHUP)
        d.wait_log(r"Configuration reloaded(.|\n)*max live items       = 9\n")
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
    d.launch()
    code = d.proc.wait(LIMIT)
    d.proc = None
    assert code != 0 and re.search(rf"EXIT\({code}\)", d.log_text()) and "lumo shut down\n" in d.log_text()

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
    with open(d.conf, "w") as out:
        out.write(good)
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log("Configuration reloaded")

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
