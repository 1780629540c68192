#include "app/startup.h"

#include "app/cfg.h"
#include "lib/log.h"
#include "lib/netops.h"
#include "lib/syswrap.h"
#include "lib/util.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

// --- sockets ---

static int refuse_socket(const char *path, const char *why, int err) {
    LOG(LL_ERROR, "%s: [%s] %s, ERROR(%d): %s\n", "check_sockets", path, why, err, strerror(err));
    return -1;
}

static int report_owner(const char *path, int fd) {
    ucred owner{};
    socklen_t len = sizeof(owner);
    if (W_getsockopt("check_sockets", fd, SOL_SOCKET, SO_PEERCRED, &owner, &len) != 0)
        return -1;
    LOG(LL_ERROR, "%s: [%s] is in use by process %ld\n", "check_sockets", path, static_cast<long>(owner.pid));
    return -1;
}

// Only a socket that nobody answers is left to be replaced.
static int check_socket(const char *path) {
    struct stat st;
    if (lstat(path, &st) != 0)
        return errno == ENOENT ? 0 : refuse_socket(path, "cannot be looked at", errno);
    if (!S_ISSOCK(st.st_mode)) {
        LOG(LL_ERROR, "%s: [%s] is there and is no socket\n", "check_sockets", path);
        return -1;
    }
    const fd_guard client(W_socket(__func__, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, strnlen(path, sizeof(addr.sun_path) - 1));
    if (client.fd < 0)
        return -1;
    if (connect(client.fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0)
        return report_owner(path, client.fd);
    return errno == ECONNREFUSED || errno == ENOENT ? 0 : refuse_socket(path, "may be in use", errno);
}

int check_sockets() {
    for (const rui_listener_cfg &entry : g_cfg.rui.user)
        if (entry.is_valid && check_socket(entry.domain_path) != 0)
            return -1;
    return 0;
}

// --- paths ---

int pin_paths(const char *dir) {
    const struct {
        char *path;
        size_t size;
    } paths[] = {
        {g_cfg.config_path, sizeof(g_cfg.config_path)},
        {g_cfg.data_dir, sizeof(g_cfg.data_dir)},
        {g_cfg.log.path, sizeof(g_cfg.log.path)},
        {g_cfg.rt.pidfile, sizeof(g_cfg.rt.pidfile)},
        {g_cfg.status_file, sizeof(g_cfg.status_file)},
        {g_cfg.rui.user[0].domain_path, sizeof(g_cfg.rui.user[0].domain_path)},
        {g_cfg.rui.user[1].domain_path, sizeof(g_cfg.rui.user[1].domain_path)},
    };
    for (const auto &one : paths)
        if (one.path[0] && one.path[0] != '|' && make_absolute(one.path, one.size, dir) != 0)
            return -1;
    snprintf(g_cfg.start_dir, sizeof(g_cfg.start_dir), "%s", dir);
    return 0;
}

// --- what the daemon will write ---

static int refuse_file(const char *what, const char *path) {
    LOG(LL_ERROR, "%s: %s [%s] cannot be written, ERROR(%d): %s\n", "check_as_daemon", what, path, errno,
        strerror(errno));
    return -1;
}

static int check_dir_of(const char *what, const std::string &path) {
    const std::string dir = path.substr(0, path.rfind('/') + 1);
    return access(dir.c_str(), W_OK | X_OK) == 0 ? 0 : refuse_file(what, path.c_str());
}

// A file that can be written, or made where it is missing.
static int check_file(const char *what, const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return check_dir_of(what, path);
    if (S_ISDIR(st.st_mode))
        errno = EISDIR;
    else if (access(path.c_str(), W_OK) == 0)
        return 0;
    return refuse_file(what, path.c_str());
}

static int check_socket_dirs() {
    for (const rui_listener_cfg &entry : g_cfg.rui.user)
        if (entry.is_valid && check_dir_of("socket", entry.domain_path) != 0)
            return -1;
    return 0;
}

static int check_writing() {
    if (g_cfg.rt.user[0] && run_as_user(g_cfg.rt.user) != 0)
        return -1;
    if (g_cfg.rt.pidfile[0] == '\0') {
        LOG(LL_ERROR, "Pid file must be specified to run as daemon\n");
        return -1;
    }
    if (dir_check(g_cfg.data_dir) != 0)
        return refuse_file("data directory", g_cfg.data_dir);
    if (g_cfg.log.path[0] != '|' && check_file("log", g_cfg.log.path) != 0)
        return -1;
    if (check_file("pid file", g_cfg.rt.pidfile) != 0 || check_socket_dirs() != 0)
        return -1;
    if (g_cfg.rt.cpunum < 0 || pin2cpu(g_cfg.rt.cpunum) == 0)
        return 0;
    LOG(LL_ERROR, "%s: cannot run on CPU%d, ERROR(%d): %s\n", "check_as_daemon", g_cfg.rt.cpunum, errno,
        strerror(errno));
    return -1;
}

int check_as_daemon() {
    fflush(nullptr);
    const pid_t child = W_fork(__func__);
    if (child < 0)
        return -1;
    if (child == 0)
        _exit(check_writing() == 0 ? 0 : 1);
    int status = 0;
    pid_t ended;
    while ((ended = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}
