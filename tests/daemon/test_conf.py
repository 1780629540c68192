"""The program that checks a configuration."""
import os
import subprocess

from harness import LIMIT, LUMO

SAMPLE = os.path.join(os.path.dirname(__file__), "../../etc/lum.conf")

def check(*args):
    program = os.path.join(os.path.dirname(LUMO), "lumo-conf")
    done = subprocess.run([program, *args], capture_output=True, text=True, timeout=LIMIT)
    return done.returncode, done.stdout, done.stderr

def test_settings_faults_and_keys_that_nobody_reads(make):
    d = make()
    code, settings, said = check(SAMPLE)
    assert (code, said) == (0, "") and "refresh playlists    = YES\n" in settings
    d.write_config(max_live_item=5, runtime={"pidfiles": "/x"}, md_report={"enabled": False, "pub_url": "u"}, pl_socket=None)
    code, settings, said = check("-q", d.conf)
    assert (code, settings) == (0, "") and "nobody reads lum.max_live_item\n" in said
    assert "nobody reads lum.runtime.pidfiles\n" in said and "no lum.pl_socket" in said and said.count("warning") == 3
    d.write_config(max_live_items=3)
    code, settings, said = check(d.conf)
    assert (code, settings) == (1, "") and f"stopped at line 1 of [{d.conf}]" in said and "out of range [4..64]" in said
    assert check()[0] == check(d.conf, "x")[0] == check("-x", d.conf)[0] == 1 and check("-h")[0] == 0
