"""A strict player over what happens to a channel: the stand-in's take-over, its producer's return and the daemon's
restart, each played until the break has left the live window; and where a time shift begins."""
import time

from test_page import MAX_STALL, air, browser, plays, pytestmark, starts  # noqa: F401

WINDOW = 30  # seconds until what is new has passed through the live window

def test_player_goes_on(air, browser):  # noqa: F811
    air.start_producer("main")
    air.wait_recording()
    air.start_producer("backup")
    browser.open(air.url + "#tv")
    starts(browser)
    air.wait_segments(air.segments() + 2)

    def comes(role, limit=40):
        """Plays on until a segment of that producer is in the picture."""
        _, stall, state = browser.watch(limit, end=lambda state: f"{role}-" in state["segment"])
        assert f"{role}-" in state["segment"], (state, browser.errors())
        return stall

    air.kill_producer("main")
    assert comes("backup") < MAX_STALL
    plays(browser, WINDOW)
    air.kill_producer("backup")
    air.start_producer("main")
    comes("main")
    plays(browser, WINDOW)
    air.restart_daemon()
    plays(browser, WINDOW)
    assert browser.fatal() == [] and browser.console() == []

def test_shift_starts_where_it_was_asked(air, browser):  # noqa: F811
    air.start_producer("main")
    air.wait_recording()
    browser.open(air.url + "#tv")
    starts(browser)
    # The edge is the end of what the first answer lists.
    browser.run("""window.begun = window.edge = null; playBack(40);
        video.addEventListener('playing', () => { window.begun = hls.playingDate.getTime() / 1000; }, {once: true});
        hls.once(Hls.Events.LEVEL_LOADED, (_event, data) => {
            const last = data.details.fragments.at(-1);
            window.edge = last.programDateTime / 1000 + last.duration; })""")
    starts(browser)
    begun, edge = browser.run("return [window.begun, window.edge]")
    assert time.time() - edge < 10 and abs(begun - (edge - 40)) < 0.5, (begun, edge, browser.errors())
