// Short text tags held in one machine word: cheap to compare, readable in a debugger and in the log.
#pragma once

#include <bit>
#include <cstdint>

// A record type or state: up to three letters and a terminating zero, compared as one 32-bit number.
// Records that the event service or other records point at begin with one.
union n32_tag {
    char sym[4];
    uint32_t num;
};
static_assert(sizeof(n32_tag) == 4);

// Either a text of at most 7 characters with its terminating zero, or a 64-bit number; 0 means none.
union n64_tag {
    char sym8[8];
    uint64_t num64;
};
static_assert(sizeof(n64_tag) == 8);

struct tag_chars {
    char c[4];
};

// The number of a three-letter tag, for constants, comparisons and switch labels.
constexpr uint32_t tag_num(const char (&text)[4]) {
    return std::bit_cast<uint32_t>(tag_chars{{text[0], text[1], text[2], text[3]}});
}

// The same for a tag of two letters.
constexpr uint32_t tag_num(const char (&text)[3]) {
    return std::bit_cast<uint32_t>(tag_chars{{text[0], text[1], '\0', '\0'}});
}

// First letter of the tag of a destroyed record: whoever still holds a pointer can tell.
inline constexpr char TAG_EXPIRED = '#';

inline void tag_expire(n32_tag &tag) {
    tag.sym[0] = TAG_EXPIRED;
}
