#include "tools/feed/link.h"

#include "lib/syswrap.h"
#include "tools/feed/say.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr int64_t MIN_PAUSE_MS = 100;
static constexpr int64_t MAX_PAUSE_MS = 5000;

// --- who is there ---

// The kernel's start time of a process tells it from a later one with the same id.
static uint64_t birth_of(int pid) {
    char path[32];
    char text[1024];
    snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    fd_guard file(open(path, O_RDONLY | O_CLOEXEC));
    ssize_t n = file.fd >= 0 ? read(file.fd, text, sizeof(text) - 1) : 0;
    if (n <= 0)
        return 0;
    text[n] = '\0';
    const char *at = strrchr(text, ')'); // the name before it may hold anything
    unsigned long long born = 0;
    static constexpr char FIELDS[] = ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d "
                                     "%*d %*d %llu";
    return at && sscanf(at, FIELDS, &born) == 1 ? born : 0;
}

static void note_peer(daemon_link *link) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    bool is_known = getsockopt(link->fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.pid > 0;
    link->pid = is_known ? cred.pid : 0;
    link->born = is_known ? birth_of(cred.pid) : 0;
}

static void watch_manifest(daemon_link *link, const std::string &path) {
    if (path.empty())
        return;
    link->watch_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (link->watch_fd >= 0 && inotify_add_watch(link->watch_fd, path.c_str(), IN_CLOSE_NOWRITE) >= 0)
        return;
    close(link->watch_fd);
    link->watch_fd = -1;
}

static bool was_imported(const daemon_link &link) {
    char events[4096];
    if (link.watch_fd >= 0)
        return read(link.watch_fd, events, sizeof(events)) > 0;
    bool has_lived_on = link.pid != 0 && link.pid == link.last_pid && link.born == link.last_born;
    return !has_lived_on;
}

// --- life ---

static void end_watch(daemon_link *link) {
    if (link->watch_fd >= 0)
        close(link->watch_fd);
    link->watch_fd = -1;
}

void link_close(daemon_link *link) {
    end_watch(link);
    if (link->fd >= 0)
        close(link->fd);
    link->fd = -1;
    link->queue.clear();
    link->state = LINK_OFF;
}

static void wait_again(daemon_link *link, int64_t now_ms) {
    link_close(link);
    link->state = LINK_WAITING;
    link->pause_ms = std::clamp(link->pause_ms * 2, MIN_PAUSE_MS, MAX_PAUSE_MS);
    link->retry_at = now_ms + link->pause_ms;
}

static int open_link(const std::string &path) {
    sockaddr_un addr{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    fd_guard fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.fd < 0 || connect(fd.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        return -1;
    return fd.release();
}

void link_connect(daemon_link *link, const std::string &init_line, const std::string &manifest_path,
                  int64_t now_ms) {
    link_close(link);
    link->fd = open_link(link->socket_path);
    if (link->fd < 0) {
        if (!link->is_told)
            say(SAY_ERROR, "no daemon at [%s]: %s; trying again", link->socket_path.c_str(), strerror(errno));
        link->is_told = true;
        wait_again(link, now_ms);
        return;
    }
    note_peer(link);
    watch_manifest(link, manifest_path);
    link->state = LINK_ASKING;
    link->queue = init_line + "\n";
    link_send(link, "");
}

static void accepted(daemon_link *link) {
    link->has_imported = was_imported(*link);
    end_watch(link);
    link->state = LINK_UP;
    link->pause_ms = 0;
    link->is_told = false;
    link->last_pid = link->pid;
    link->last_born = link->born;
}

short link_events(const daemon_link &link) {
    int events = link.state == LINK_ASKING ? POLLIN : 0;
    return static_cast<short>(events | (link.queue.empty() ? 0 : POLLOUT));
}

link_news link_on_event(daemon_link *link, short revents, int64_t now_ms) {
    if (revents & (POLLHUP | POLLERR)) {
        bool was_up = link->state == LINK_UP;
        wait_again(link, now_ms);
        return was_up ? LINK_LOST : LINK_REFUSED;
    }
    if (revents & POLLOUT)
        link_send(link, "");
    char byte;
    if (link->state != LINK_ASKING || !(revents & POLLIN) || recv(link->fd, &byte, 1, MSG_DONTWAIT) != 0)
        return LINK_NO_NEWS;
    accepted(link);
    return LINK_ACCEPTED;
}

// A failure is followed by a hang-up, which is where it is dealt with.
void link_send(daemon_link *link, const std::string &line) {
    if (!line.empty())
        link->queue += line + "\n";
    while (!link->queue.empty()) {
        ssize_t n = send(link->fd, link->queue.data(), link->queue.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        link->queue.erase(0, static_cast<size_t>(n));
    }
}

bool link_is_drained(const daemon_link &link) {
    int unread = 0;
    if (link.state != LINK_UP)
        return true;
    return link.queue.empty() && (ioctl(link.fd, SIOCOUTQ, &unread) != 0 || unread == 0);
}
