#include "app/pl_gzip.h"

#include "lib/check.h"
#include "lib/log.h"

#include <cstdlib>
#include <cstring>
#include <zlib.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int MEM_LEVEL = 8; // zlib's own default, which has no name
static constexpr size_t BLOCK_ROOM = 64;

static struct gz_packer {
    z_stream z;
    bool is_ready;     // the compressor is set up
    text_sink *bytes;  // of the open file, null = none
    bool has_memory;   // text went in since the last full flush
    uint32_t crc;      // of the file's text so far
    uint32_t text_len; // modulo 2^32
} g_gz;

static bool reset_compressor() {
    if (g_gz.is_ready)
        return deflateReset(&g_gz.z) == Z_OK;
    g_gz.is_ready = deflateInit2(&g_gz.z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, MEM_LEVEL,
                                 Z_DEFAULT_STRATEGY) == Z_OK;
    if (!g_gz.is_ready)
        LOG(LL_ERROR, "%s: cannot set up the compressor\n", "mk_playlist");
    return g_gz.is_ready;
}

static void put_bytes(const void *data, size_t size) {
    const char *at = static_cast<const char *>(data);
    text_sink *out = g_gz.bytes;
    while (size > 0) {
        if (out->len == out->size)
            out->drain(out);
        size_t n = out->size - out->len < size ? out->size - out->len : size;
        memcpy(out->buf + out->len, at, n);
        out->len += n;
        at += n;
        size -= n;
    }
}

static void put_word(uint32_t word) {
    const uint8_t bytes[] = {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
                             static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
    put_bytes(bytes, sizeof(bytes));
}

// Runs the compressor until it wants nothing more of the sink's room.
static void run_compressor(std::string_view text, int flush) {
    text_sink *out = g_gz.bytes;
    g_gz.z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    g_gz.z.avail_in = static_cast<uInt>(text.size());
    do {
        if (out->len == out->size)
            out->drain(out);
        g_gz.z.next_out = reinterpret_cast<Bytef *>(out->buf + out->len);
        g_gz.z.avail_out = static_cast<uInt>(out->size - out->len);
        int rc = deflate(&g_gz.z, flush);
        CHECK(rc != Z_STREAM_ERROR);
        out->len = out->size - g_gz.z.avail_out;
    } while (g_gz.z.avail_out == 0);
}

bool gz_begin(text_sink *bytes) {
    static constexpr uint8_t HEAD[] = {0x1f, 0x8b, Z_DEFLATED, 0, 0, 0, 0, 0, 0, 3};
    CHECK(!g_gz.bytes);
    if (!reset_compressor())
        return false;
    g_gz.bytes = bytes;
    g_gz.has_memory = false;
    g_gz.crc = 0;
    g_gz.text_len = 0;
    put_bytes(HEAD, sizeof(HEAD));
    return true;
}

void gz_text(std::string_view text) {
    if (text.empty())
        return;
    g_gz.crc =
        static_cast<uint32_t>(crc32_z(g_gz.crc, reinterpret_cast<const Bytef *>(text.data()), text.size()));
    g_gz.text_len += static_cast<uint32_t>(text.size());
    g_gz.has_memory = true;
    run_compressor(text, Z_NO_FLUSH);
}

void gz_splice(const gz_piece &piece) {
    if (g_gz.has_memory)
        run_compressor({}, Z_FULL_FLUSH);
    g_gz.has_memory = false;
    put_bytes(piece.data, piece.size);
    g_gz.crc = static_cast<uint32_t>(crc32_combine_op(g_gz.crc, piece.crc, piece.crc_gap));
    g_gz.text_len += piece.text_len;
}

void gz_end() {
    run_compressor({}, Z_FINISH);
    put_word(g_gz.crc);
    put_word(g_gz.text_len);
    g_gz.bytes = nullptr;
}

bool gz_press(std::string_view text, gz_piece *piece) {
    static uint8_t packed[GZ_PIECE_TEXT + GZ_PIECE_TEXT / 1000 + BLOCK_ROOM];
    CHECK(!g_gz.bytes && text.size() <= GZ_PIECE_TEXT);
    *piece = {};
    if (!reset_compressor())
        return false;
    g_gz.z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    g_gz.z.avail_in = static_cast<uInt>(text.size());
    g_gz.z.next_out = packed;
    g_gz.z.avail_out = sizeof(packed);
    int rc = deflate(&g_gz.z, Z_FULL_FLUSH);
    CHECK(rc == Z_OK && g_gz.z.avail_in == 0 && g_gz.z.avail_out > 0);
    uint32_t size = static_cast<uint32_t>(sizeof(packed) - g_gz.z.avail_out);
    piece->data = static_cast<uint8_t *>(malloc(size));
    if (!piece->data)
        return false;
    memcpy(piece->data, packed, size);
    piece->size = size;
    piece->text_len = static_cast<uint32_t>(text.size());
    piece->crc = static_cast<uint32_t>(crc32_z(0, reinterpret_cast<const Bytef *>(text.data()), text.size()));
    piece->crc_gap = static_cast<uint32_t>(crc32_combine_gen(static_cast<z_off_t>(text.size())));
    return true;
}
