#include "tools/web/link.h"

#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/syswrap.h"
#include "tools/web/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <sys/socket.h>
#include <sys/un.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t SILENCE_MS = 2000; // shorter than the daemon's patience, so that this end closes
static constexpr int64_t RETRY_MS = 20;     // while the daemon's queue of connections is full
static constexpr size_t MAX_QUEUE = 1024;
static constexpr size_t CUT_ANSWER = 126; // the longest answer comes without its line feed

struct question {
    std::string text;
    link_done done;
    void *arg;
    int64_t deadline;
    bool was_retried;
};

static struct {
    sockaddr_un addr;
    long answer_ms;
    int fd = -1;
    bool is_sent; // the first of the queue is on its way
    bool is_away; // has been told
    unsigned seq; // of the question on its way
    int64_t retry_at;
    int64_t last_use;
    std::string input;
    std::deque<question> queue;
} g_link;

void link_init(const std::string &socket_path, long answer_ms) {
    g_link.addr = {};
    g_link.addr.sun_family = AF_UNIX;
    memcpy(g_link.addr.sun_path, socket_path.data(),
           std::min(socket_path.size(), sizeof(g_link.addr.sun_path) - 1));
    g_link.answer_ms = answer_ms;
}

void *link_udata() {
    return &g_link;
}

static void disconnect() {
    if (g_link.fd >= 0) {
        rqs_rm_fd(g_link.fd);
        W_close(__func__, g_link.fd);
    }
    g_link.fd = -1;
    g_link.is_sent = false;
    g_link.input.clear();
}

static void tell_away(const char *why) {
    if (!g_link.is_away)
        LOG(LL_WARN, "no answer from the daemon at [%s]: %s\n", g_link.addr.sun_path, why);
    g_link.is_away = true;
}

static void tell_back() {
    if (g_link.is_away)
        LOG(LL_NORM, "the daemon at [%s] answers again\n", g_link.addr.sun_path);
    g_link.is_away = false;
}

// Ends the first question of the queue.
static void finish(const link_answer &answer) {
    question first = std::move(g_link.queue.front());
    g_link.queue.pop_front();
    g_link.is_sent = false;
    first.done(first.arg, answer);
}

static void fail_first(int status, const char *why) {
    ++g_link_counts.failed;
    tell_away(why);
    finish({status, false, why});
}

static void fail_all(const char *why) {
    for (size_t n = g_link.queue.size(); n > 0; --n)
        fail_first(503, why);
}

enum class opened { yes, later, no };

static opened connect_daemon() {
    int fd = W_socket(__func__, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return opened::no;
    if (connect(fd, reinterpret_cast<sockaddr *>(&g_link.addr), sizeof(g_link.addr)) != 0) {
        opened result = errno == EAGAIN ? opened::later : opened::no;
        tell_away(strerror(errno));
        W_close(__func__, fd);
        return result;
    }
    if (rqs_add_reader(fd, link_udata()) != 0) {
        W_close(__func__, fd);
        return opened::no;
    }
    g_link.fd = fd;
    return opened::yes;
}

static bool is_probing() {
    return !g_link.queue.empty() && g_link.queue.front().text == LINK_PROBE;
}

static bool send_first() {
    if (is_probing())
        return g_link.is_sent = shutdown(g_link.fd, SHUT_WR) == 0;
    std::string line = "T" + std::to_string(++g_link.seq) + " " + g_link.queue.front().text + "\n";
    ssize_t n = send(g_link.fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    g_link.is_sent = n == static_cast<ssize_t>(line.size());
    g_link.last_use = clock_ms();
    return g_link.is_sent;
}

static void pump();

// A connection that broke before the answer: the same question on a new one, unless this was its second.
static void on_broken() {
    disconnect();
    if (g_link.queue.empty())
        return;
    if (g_link.queue.front().was_retried)
        fail_first(503, "the daemon closed the connection");
    else
        g_link.queue.front().was_retried = true;
    pump();
}

static void pump() {
    if (g_link.is_sent || g_link.queue.empty() || clock_ms() < g_link.retry_at)
        return;
    opened result = g_link.fd >= 0 ? opened::yes : connect_daemon();
    if (result == opened::later)
        g_link.retry_at = clock_ms() + RETRY_MS;
    else if (result == opened::no)
        fail_all("the daemon is away");
    else if (!send_first())
        on_broken();
    else
        ++g_link_counts.questions;
}

void link_ask(std::string_view text, link_done done, void *arg) {
    // An expired deadline makes the next tick answer.
    bool is_full = g_link.queue.size() >= MAX_QUEUE;
    g_link.queue.push_back(
        {std::string(text), done, arg, is_full ? 0 : clock_ms() + g_link.answer_ms, false});
}

// "T7 gzip/M3U PATH " or "T7 ERROR HTTP:404 - TEXT"; status 502 for anything else.
static link_answer parse_answer(std::string_view line) {
    std::string tag = "T" + std::to_string(g_link.seq) + " ";
    if (!line.starts_with(tag))
        return {502, false, "the daemon's answer is not understood"};
    line.remove_prefix(tag.size());
    int status = 0, used = 0;
    std::string rest(line);
    if (sscanf(rest.c_str(), "ERROR HTTP:%3d - %n", &status, &used) == 1 && used > 0 && status >= 400 &&
        status <= 599)
        return {status, false, rest.substr(static_cast<size_t>(used))};
    bool is_gzip = line.starts_with("gzip/M3U ");
    if (!is_gzip && !line.starts_with("text/M3U "))
        return {502, false, "the daemon's answer is not understood"};
    line.remove_prefix(strlen("gzip/M3U "));
    while (line.ends_with(' '))
        line.remove_suffix(1);
    return {200, is_gzip, std::string(line)};
}

static void on_answer(const link_answer &answer) {
    g_link.input.clear();
    g_link.last_use = clock_ms();
    tell_back();
    // The daemon closes the connection behind an error.
    if (answer.status != 200 || is_probing())
        disconnect();
    g_link_counts.refused += answer.status != 200;
    finish(answer);
    pump();
}

void link_on_event(bool is_error) {
    char buf[256];
    if (g_link.fd < 0)
        return;
    ssize_t n = recv(g_link.fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (n < 0 && errno == EAGAIN && !is_error)
        return;
    if (n == 0 && g_link.is_sent && is_probing()) {
        on_answer({200, false, ""});
        return;
    }
    if (n <= 0 || !g_link.is_sent) {
        on_broken();
        return;
    }
    g_link.input.append(buf, static_cast<size_t>(n));
    size_t end = g_link.input.find('\n');
    if (end == std::string::npos && g_link.input.size() < CUT_ANSWER)
        return;
    on_answer(parse_answer(g_link.input.substr(0, end)));
}

static void expire_questions() {
    while (!g_link.queue.empty() && clock_ms() >= g_link.queue.front().deadline) {
        // A late answer must not meet the next question.
        disconnect();
        fail_first(504, "the daemon does not answer");
    }
    // The one that found the queue full is at its end.
    while (!g_link.queue.empty() && g_link.queue.back().deadline == 0) {
        question last = std::move(g_link.queue.back());
        g_link.queue.pop_back();
        ++g_link_counts.failed;
        last.done(last.arg, {503, false, "too many questions"});
    }
}

void link_tick() {
    expire_questions();
    pump();
    if (g_link.fd >= 0 && !g_link.is_sent && clock_ms() - g_link.last_use >= SILENCE_MS)
        disconnect();
}

int64_t link_wait_ms() {
    if (g_link.queue.empty())
        return g_link.fd < 0 ? -1 : std::max<int64_t>(g_link.last_use + SILENCE_MS - clock_ms(), 0);
    if (!g_link.is_sent)
        return std::max<int64_t>(g_link.retry_at - clock_ms(), 0);
    return std::max<int64_t>(g_link.queue.front().deadline - clock_ms(), 0);
}

void link_close() {
    disconnect();
    fail_all("the front end is closing");
}
