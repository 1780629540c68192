// The first presentation time stamp of an MPEG-TS file, from the headers of its elementary streams' packets:
// the video's, which is that of the first picture, or the first audio's where there is no video.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t TS_PACKET = 188;
inline constexpr int64_t TS_WRAP = 1LL << 33; // time stamps count 90,000 a second in 33 bits
inline constexpr double TS_HZ = 90000.0;
inline constexpr int64_t TS_NONE = -1;

struct ts_first {
    int64_t video = TS_NONE;
    int64_t other = TS_NONE; // audio and private streams
};

// Looks through whole packets until a video stream's time stamp is found; `packets` begins on a packet.
// False when the bytes are no transport stream.
bool ts_scan(ts_first *first, std::span<const uint8_t> packets);

// The first time stamp of the open file, read from its beginning; TS_NONE when it has none.
int64_t ts_probe(int fd);
