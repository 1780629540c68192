"""The page in a real browser, over a running channel."""
import os
import pathlib
import shutil
import sys
import time

import pytest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(__file__))

from air import FEEDER, Air, until  # noqa: E402
from browser import Browser  # noqa: E402

SHOTS = pathlib.Path(os.environ.get("LUMO_SHOTS", "build/shots"))
MAX_STALL = 3.0
pytestmark = pytest.mark.skipif(not (FEEDER and os.environ.get("LUMO_WEB_BIN") and shutil.which("chromedriver")),
                                reason="without the front end or chromedriver")

@pytest.fixture
def air():
    one = Air(strict_hls=True)
    yield one
    one.close()

@pytest.fixture
def browser():
    one = Browser()
    yield one
    one.close()

def starts(browser, limit=15):
    """Waits until the picture moves."""
    _, _, state = browser.watch(limit, end=lambda state: state["frames"] > 5 and state["ready"] >= 3)
    assert state["frames"] > 5, (state, browser.errors(), browser.console())

def plays(browser, seconds):
    came, stall, _ = browser.watch(seconds)
    assert came > seconds - MAX_STALL and stall < MAX_STALL, (came, stall, browser.errors())

def test_page_plays_live_back_and_across_a_killed_producer(air, browser):
    air.start_producer("main")
    air.wait_recording()
    browser.open(air.url)
    until(lambda: browser.run("return document.querySelectorAll('#channels .state-live').length") == 1, "the channel")
    browser.resize(390, 844)
    browser.screenshot(SHOTS / "list-phone.png")
    browser.resize(1280, 900)
    browser.click("#channels a")
    starts(browser)
    plays(browser, 20)
    browser.screenshot(SHOTS / "live.png")
    live = browser.video()["segment"]
    browser.run("for (let key = 0; key < 2; ++key) { $('slider').stepDown(); $('slider').dispatchEvent(new Event('change')) }")
    until(lambda: browser.run("return mode.url") == "tv/shift.m3u8?back=20", "one jump of two steps")
    starts(browser)
    plays(browser, 5)
    browser.screenshot(SHOTS / "back.png")
    browser.click("#live")
    starts(browser)
    air.start_producer("backup")
    air.wait_segments(air.segments() + 2)
    air.kill_producer("main")
    _, _, state = browser.watch(40, end=lambda state: "backup" in state["segment"])
    assert "main" in live and "backup" in state["segment"], (state, browser.errors())
    plays(browser, 5)
    browser.resize(390, 844)
    assert browser.run("return document.documentElement.scrollWidth") == 390, "nothing sticks out on a phone"
    browser.screenshot(SHOTS / "after-failover-phone.png")
    assert browser.fatal() == [] and browser.console() == []
    browser.click("#beginning")
    starts(browser)
    assert time.time() - browser.video()["date"] > 60, "a recording of 100 s, from its first segments"
    browser.run("playEvent(now() - 60, 30)")
    starts(browser)
    assert 40 < time.time() - browser.video()["date"] < 80 and browser.run("return Number.isFinite(video.duration)")
