// Answers to viewers: thin helpers over the HTTP library, and the counters of what was answered.
#pragma once

#include <cstdint>
#include <memory>
#include <microhttpd.h>
#include <string>
#include <string_view>

// What an answer was for, as told in the metrics.
enum class route { page, live, vod, event, shift, segment, list, metrics, health, other };
inline constexpr size_t ROUTES = 10;
inline constexpr size_t STATUS_CLASSES = 5; // 1xx to 5xx

struct web_counts {
    uint64_t answers[ROUTES][STATUS_CLASSES];
    uint64_t body_bytes; // announced to viewers
    uint64_t touches;    // of lock files
    uint64_t inflated;   // playlists unpacked for a viewer that takes no gzip
    uint64_t redirects;  // sessions begun
    long connections;    // open at the moment
};
inline web_counts g_web_counts;

inline constexpr char TYPE_TEXT[] = "text/plain; charset=utf-8";
inline constexpr char TYPE_M3U8[] = "application/vnd.apple.mpegurl";

// An answer in the making; what is not queued is freed.
struct response_free {
    void operator()(MHD_Response *response) const { MHD_destroy_response(response); }
};
using response_ptr = std::unique_ptr<MHD_Response, response_free>;

// An answer with this body, which is shared with whoever holds it, and the headers that every answer carries.
response_ptr reply_make(std::shared_ptr<const std::string> body, const char *type, const char *cache);
response_ptr reply_text(std::string_view text, const char *type = TYPE_TEXT, const char *cache = "no-store");
// The part of an open file; the descriptor is the answer's from then on, also when this fails.
response_ptr reply_file(int fd, uint64_t first, uint64_t count, const char *type, const char *cache);
void reply_header(const response_ptr &response, const char *name, const std::string &value);

// A status of 304 sends the header alone, with the length that the body has.
MHD_Result reply_queue(MHD_Connection *conn, route what, unsigned status, MHD_Response *response);
// The status with a line of text.
MHD_Result reply_error(MHD_Connection *conn, route what, unsigned status, std::string_view text);

// A request header or null.
const char *request_header(MHD_Connection *conn, const char *name);
// A parameter of the query, as it stands; null = none.
const char *request_param(MHD_Connection *conn, const char *name);
