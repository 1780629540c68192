#include "tools/feed/tsprobe.h"

#include <unistd.h>
#include <vector>

static constexpr uint8_t SYNC = 0x47;
// Nearly always a few packets are enough; a file without video is read up to the limit.
static constexpr size_t FIRST_BLOCK = 16 * TS_PACKET;
static constexpr size_t NEXT_BLOCK = 512 * TS_PACKET;
static constexpr size_t SCAN_LIMIT = 4 << 20;

// The packet's payload when an elementary stream's packet begins in it, otherwise nothing.
static std::span<const uint8_t> unit_start(std::span<const uint8_t> packet) {
    bool is_start = packet[1] & 0x40;
    bool is_broken = packet[1] & 0x80;
    bool has_payload = packet[3] & 0x10;
    bool has_adaptation = packet[3] & 0x20;
    size_t at = has_adaptation ? 5U + packet[4] : 4U;
    if (!is_start || is_broken || !has_payload || at >= packet.size())
        return {};
    return packet.subspan(at);
}

static int64_t read_stamp(std::span<const uint8_t> field) {
    return static_cast<int64_t>(field[0] >> 1 & 7) << 30 | field[1] << 22 | (field[2] >> 1) << 15 |
           field[3] << 7 | field[4] >> 1;
}

static void look_at(ts_first *first, std::span<const uint8_t> unit) {
    static constexpr size_t STAMP_AT = 9;
    bool is_stream = unit.size() >= STAMP_AT + 5 && unit[0] == 0 && unit[1] == 0 && unit[2] == 1;
    if (!is_stream || (unit[6] & 0xc0) != 0x80 || !(unit[7] & 0x80))
        return;
    uint8_t id = unit[3];
    bool is_video = (id & 0xf0) == 0xe0;
    bool is_other = (id & 0xe0) == 0xc0 || id == 0xbd || id == 0xfd;
    int64_t *stamp = is_video ? &first->video : is_other ? &first->other : nullptr;
    if (stamp && *stamp == TS_NONE)
        *stamp = read_stamp(unit.subspan(STAMP_AT));
}

bool ts_scan(ts_first *first, std::span<const uint8_t> packets) {
    for (; packets.size() >= TS_PACKET && first->video == TS_NONE; packets = packets.subspan(TS_PACKET)) {
        if (packets[0] != SYNC)
            return false;
        look_at(first, unit_start(packets.first(TS_PACKET)));
    }
    return true;
}

int64_t ts_probe(int fd) {
    static std::vector<uint8_t> block(NEXT_BLOCK);
    ts_first first;
    size_t want = FIRST_BLOCK;
    for (size_t at = 0; at < SCAN_LIMIT && first.video == TS_NONE; want = NEXT_BLOCK) {
        ssize_t n = pread(fd, block.data(), want, static_cast<off_t>(at));
        if (n < static_cast<ssize_t>(TS_PACKET))
            break;
        size_t whole = static_cast<size_t>(n) / TS_PACKET * TS_PACKET;
        if (!ts_scan(&first, {block.data(), whole}))
            break;
        at += whole;
    }
    return first.video != TS_NONE ? first.video : first.other;
}
