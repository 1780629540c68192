// Gzip files put together from text that is compressed on its way and from pieces that were compressed
// before, all in one member, since readers there are stop at the first. A piece begins and ends with nothing
// remembered (full flush), so that it reads the same behind any other; checksums of parts are combined.
//
// There is one compressor, at zlib's default level: one file is open at a time, and no piece is made
// meanwhile.
#pragma once

#include "app/pl_text.h"

#include <cstdint>

inline constexpr size_t GZ_PIECE_TEXT = 96 * 1024; // most text of a piece

struct gz_piece {
    uint8_t *data; // owned, malloc; null = none
    uint32_t size; // bytes
    uint32_t text_len;
    uint32_t crc;     // of the text
    uint32_t crc_gap; // what takes the checksum of any text in front over the piece's length
};

// Begins a file whose bytes go to `bytes`, which stays in use up to gz_end. False without memory.
bool gz_begin(text_sink *bytes);
void gz_text(std::string_view text);
void gz_splice(const gz_piece &piece);
// Closes the member; the last bytes are in the sink, for the caller to drain.
void gz_end();

// Compresses at most GZ_PIECE_TEXT bytes into a piece. False without memory.
bool gz_press(std::string_view text, gz_piece *piece);
