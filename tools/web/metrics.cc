#include "tools/web/metrics.h"

#include "tools/web/channels.h"
#include "tools/web/link.h"
#include "tools/web/reply.h"
#include "tools/web/shelf.h"

static constexpr const char *ROUTE_NAMES[ROUTES] = {"page",    "live", "vod",     "event",  "shift",
                                                    "segment", "list", "metrics", "health", "other"};

static void add_head(std::string *out, const char *name, const char *type, const char *help) {
    *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

static void add_value(std::string *out, const char *name, uint64_t value) {
    *out += std::string(name) + " " + std::to_string(value) + "\n";
}

static void add_answers(std::string *out) {
    static constexpr char NAME[] = "lumo_web_responses_total";
    add_head(out, NAME, "counter", "Answers to viewers by kind of request and class of status.");
    for (size_t what = 0; what < ROUTES; ++what)
        for (size_t status = 0; status < STATUS_CLASSES; ++status)
            if (uint64_t n = g_web_counts.answers[what][status])
                *out += std::string(NAME) + "{route=\"" + ROUTE_NAMES[what] + "\",class=\"" +
                        std::to_string(status + 1) + "xx\"} " + std::to_string(n) + "\n";
}

std::string metrics_text() {
    shelf_numbers shelf = shelf_count();
    const struct {
        const char *name, *type, *help;
        uint64_t value;
    } rows[] = {
        {"lumo_web_body_bytes_total", "counter", "Bytes of bodies announced to viewers.",
         g_web_counts.body_bytes},
        {"lumo_web_questions_total", "counter", "Questions put to the daemon.", g_link_counts.questions},
        {"lumo_web_questions_refused_total", "counter", "Questions that the daemon answered with an error.",
         g_link_counts.refused},
        {"lumo_web_questions_failed_total", "counter", "Questions without an answer.", g_link_counts.failed},
        {"lumo_web_touches_total", "counter", "Lock files touched.", g_web_counts.touches},
        {"lumo_web_inflated_total", "counter", "Playlists unpacked for viewers that take no gzip.",
         g_web_counts.inflated},
        {"lumo_web_session_redirects_total", "counter", "Viewers of moving events sent to a session.",
         g_web_counts.redirects},
        {"lumo_web_sessions", "gauge", "Moving events that are being watched.", shelf.sessions},
        {"lumo_web_playlists", "gauge", "Playlists held in memory.", shelf.playlists},
        {"lumo_web_connections", "gauge", "Open connections of viewers.",
         static_cast<uint64_t>(g_web_counts.connections)},
    };
    std::string out = channels_status_text();
    if (!out.empty() && out.back() != '\n')
        out += '\n';
    add_answers(&out);
    for (const auto &row : rows) {
        add_head(&out, row.name, row.type, row.help);
        add_value(&out, row.name, row.value);
    }
    return out;
}
