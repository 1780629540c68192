#include "tools/web/unpack.h"

#include <zlib.h>

static constexpr size_t CHUNK = 65536;
static constexpr size_t MAX_TEXT = 256 << 20;
static constexpr int GZIP_WINDOW = 15 + 16; // the largest window, behind a gzip header

bool unpack_gzip(std::string_view data, std::string *text) {
    z_stream stream{};
    if (inflateInit2(&stream, GZIP_WINDOW) != Z_OK)
        return false;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    text->clear();
    int rc = Z_OK;
    while (rc == Z_OK && text->size() < MAX_TEXT) {
        size_t have = text->size();
        text->resize(have + CHUNK);
        stream.next_out = reinterpret_cast<Bytef *>(text->data() + have);
        stream.avail_out = CHUNK;
        rc = inflate(&stream, Z_NO_FLUSH);
        text->resize(have + CHUNK - stream.avail_out);
    }
    inflateEnd(&stream);
    return rc == Z_STREAM_END;
}
