// Where segments stand in time, and the time stamps that tell it.
#include "tools/feed/clock.h"
#include "tools/feed/tsprobe.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr double NOW = 1'700'000'000;

struct step {
    double start, end;
    int64_t pts;
    double now; // seconds after NOW
    bool is_break;
    double start_tm; // seconds after NOW
};

void play(stream_clock clock, const std::vector<step> &steps) {
    clock_restart(&clock, NOW);
    int64_t last_pts = 0;
    for (const step &one : steps) {
        SCOPED_TRACE(one.end);
        seg_time at = clock_place(&clock, one.start, one.end, one.pts, NOW + one.now);
        EXPECT_EQ(at.why != nullptr, one.is_break) << (at.why ? at.why : "goes on");
        EXPECT_NEAR(at.start_tm - NOW, one.start_tm, 0.01);
        EXPECT_GT(at.duration, 0);
        EXPECT_GT(at.pts, one.is_break ? 0 : last_pts);
        last_pts = at.pts;
    }
}

TEST(Clock, ArrivalTimesDoNotMatterUntilTheStreamHasDrifted) {
    play({.segment_sec = 4}, {{0, 4, 0, 5, true, 1},
                              {4, 8, 4 * 90000, 8.2, false, 5},
                              {8, 12, 8 * 90000, 24, false, 9}, // a hiccup
                              {12, 16, 12 * 90000, 24.1, false, 13},
                              {16, 20, 16 * 90000, 24.2, false, 17},
                              {20, 24, 20 * 90000, 26, false, 21}});
    play({.segment_sec = 4}, {{0, 4, 3 * 90000, 4, true, 0}, // the picture begins behind the sound
                              {4, 8, 4 * 90000, 13, false, 4},
                              {8, 12, 8 * 90000, 17, false, 8},
                              {12, 16, 12 * 90000, 21, true, 17},
                              {16, 20, 16 * 90000, 25, false, 21}});
}

TEST(Clock, WhatTheEncoderLookedAtFirstIsCaughtUpWith) {
    play({.segment_sec = 2}, {{0, 2, 90000, 5, true, 3},
                              {2, 4, 3 * 90000, 5, false, 4},
                              {4, 6, 5 * 90000, 6, false, 5},
                              {6, 8, 7 * 90000, 8, false, 7},
                              {8, 10, 9 * 90000, 10, false, 9},
                              {10, 12, 11 * 90000, 12, false, 11},
                              {12, 14, 13 * 90000, 12, false, 13}}); // the encoder does not begin here
}

TEST(Clock, AStreamFromThePastRunsUntilItArrives) {
    stream_clock clock{.segment_sec = 4, .ago = 100};
    play(clock, {{0, 4, 90000, 1, true, -100},
                 {4, 8, 5 * 90000, 2, false, -96},
                 {8, 96, 9 * 90000, 3, false, -92}, // arrived
                 {96, 100, 97 * 90000, 4, false, -4},
                 {100, 104, 101 * 90000, 6, false, 0},
                 {104, 108, 105 * 90000, 10, false, 4},
                 {108, 112, 109 * 90000, 30, false, 8}});
}

std::vector<uint8_t> packet(uint8_t stream_id, int64_t pts, size_t stuffing = 0) {
    std::vector<uint8_t> out(TS_PACKET, 0xff);
    size_t at = stuffing ? 5 + stuffing : 4;
    out[0] = 0x47;
    out[1] = 0x40;
    out[3] = stuffing ? 0x30 : 0x10;
    out[4] = static_cast<uint8_t>(stuffing);
    const uint8_t head[] = {0, 0, 1, stream_id, 0, 0, 0x80, 0x80, 5};
    std::copy(std::begin(head), std::end(head), out.begin() + static_cast<long>(at));
    uint8_t *stamp = &out[at + 9];
    stamp[0] = static_cast<uint8_t>(0x21 | (pts >> 29 & 0xe));
    stamp[1] = static_cast<uint8_t>(pts >> 22);
    stamp[2] = static_cast<uint8_t>(pts >> 14 | 1);
    stamp[3] = static_cast<uint8_t>(pts >> 7);
    stamp[4] = static_cast<uint8_t>(pts << 1 | 1);
    return out;
}

TEST(Probe, FindsTheFirstPictureAndReadsNoFurtherThanThePacket) {
    ts_first first;
    std::vector<uint8_t> text = packet(0xc0, 5);
    for (const std::vector<uint8_t> &more :
         {packet(0xbf, 1), packet(0xe0, TS_WRAP - 1, 100), packet(0xe0, 7)})
        text.insert(text.end(), more.begin(), more.end());
    EXPECT_TRUE(ts_scan(&first, text));
    EXPECT_EQ(first.video, TS_WRAP - 1);
    EXPECT_EQ(first.other, 5);
    for (size_t stuffing = 160; stuffing < 256; ++stuffing) { // the header runs over the packet's end
        std::vector<uint8_t> odd = packet(0xe0, 9, 160);
        odd[4] = static_cast<uint8_t>(stuffing);
        ts_first none;
        EXPECT_TRUE(ts_scan(&none, odd));
    }
    text[TS_PACKET] = 0;
    EXPECT_FALSE(ts_scan(&(first = {}), text));
}

} // namespace
