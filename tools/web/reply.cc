#include "tools/web/reply.h"

#include "lib/syswrap.h"

using body_ptr = std::shared_ptr<const std::string>;

void reply_header(const response_ptr &response, const char *name, const std::string &value) {
    MHD_add_response_header(response.get(), name, value.c_str());
}

static response_ptr finish(MHD_Response *made, const char *type, const char *cache) {
    response_ptr response(made);
    if (!response)
        return response;
    reply_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    reply_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, cache);
    reply_header(response, "Access-Control-Allow-Origin", "*");
    reply_header(response, "X-Content-Type-Options", "nosniff");
    return response;
}

static void drop_body(void *held) {
    delete static_cast<body_ptr *>(held);
}

response_ptr reply_make(body_ptr body, const char *type, const char *cache) {
    auto held = new body_ptr(std::move(body));
    MHD_Response *made = MHD_create_response_from_buffer_with_free_callback_cls(
        (*held)->size(), const_cast<char *>((*held)->data()), drop_body, held);
    if (!made)
        drop_body(held);
    return finish(made, type, cache);
}

response_ptr reply_text(std::string_view text, const char *type, const char *cache) {
    return reply_make(std::make_shared<const std::string>(text), type, cache);
}

response_ptr reply_file(int fd, uint64_t first, uint64_t count, const char *type, const char *cache) {
    MHD_Response *made = MHD_create_response_from_fd_at_offset64(count, fd, first);
    if (!made)
        W_close(__func__, fd);
    return finish(made, type, cache);
}

MHD_Result reply_queue(MHD_Connection *conn, route what, unsigned status, MHD_Response *response) {
    if (!response)
        return MHD_NO;
    size_t status_class = status / 100 - 1;
    if (status_class < STATUS_CLASSES)
        ++g_web_counts.answers[static_cast<size_t>(what)][status_class];
    return MHD_queue_response(conn, status, response);
}

MHD_Result reply_error(MHD_Connection *conn, route what, unsigned status, std::string_view text) {
    response_ptr response = reply_text(std::string(text) + "\n");
    return reply_queue(conn, what, status, response.get());
}

const char *request_header(MHD_Connection *conn, const char *name) {
    return MHD_lookup_connection_value(conn, MHD_HEADER_KIND, name);
}

const char *request_param(MHD_Connection *conn, const char *name) {
    return MHD_lookup_connection_value(conn, MHD_GET_ARGUMENT_KIND, name);
}
