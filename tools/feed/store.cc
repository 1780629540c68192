#include "tools/feed/store.h"

#include "tools/feed/manifest.h"
#include "tools/feed/say.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

static constexpr char SUFFIX[] = ".ts";

static std::string channel_dir(const seg_store &store) {
    return store.data_dir + "/" + store.channel;
}

bool store_open_dir(const seg_store &store) {
    std::string dir = channel_dir(store);
    struct stat parent;
    if (stat(store.data_dir.c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode)) {
        say(SAY_ERROR, "no data directory [%s]: %s", store.data_dir.c_str(),
            strerror(S_ISDIR(parent.st_mode) ? errno : ENOTDIR));
        return false;
    }
    bool is_new = mkdir(dir.c_str(), 0777) == 0;
    if (!is_new && errno != EEXIST) {
        say(SAY_ERROR, "cannot make [%s]: %s", dir.c_str(), strerror(errno));
        return false;
    }
    if (is_new && (parent.st_mode & S_ISGID))
        (void)!chmod(dir.c_str(), 02775);
    if (access(dir.c_str(), W_OK | X_OK) == 0)
        return true;
    say(SAY_ERROR, "cannot write into [%s]: %s", dir.c_str(), strerror(errno));
    return false;
}

bool store_take_name(seg_store *store) {
    std::string path = channel_dir(*store) + "/" + store->name + ".lock";
    store->lock_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (store->lock_fd < 0) {
        say(SAY_ERROR, "cannot open [%s]: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (flock(store->lock_fd, LOCK_EX | LOCK_NB) == 0)
        return true;
    say(SAY_ERROR, "another feeder makes the segments %s-... here; a second one wants --backup or --name",
        store->name.c_str());
    return false;
}

std::string store_manifest(const seg_store &store) {
    return channel_dir(store) + "/" + store.channel + ".manifest_live";
}

std::string store_segment(const seg_store &store, const std::string &file) {
    std::string own = store.data_dir + "/";
    if (file.starts_with(own))
        return file.substr(own.size());
    return file.find('/') == std::string::npos ? store.channel + "/" + file : file;
}

std::string store_full(const seg_store &store, const std::string &segment) {
    return store.data_dir + "/" + segment;
}

std::string store_template(const seg_store &store) {
    std::string text;
    for (char c : channel_dir(store) + "/" + store.name)
        text.append(c == '%' ? 2 : 1, c);
    return text + "-%06d" + SUFFIX;
}

// --- numbers ---

long store_number_of(const seg_store &store, std::string_view path) {
    size_t slash = path.rfind('/');
    if (slash != std::string_view::npos)
        path.remove_prefix(slash + 1);
    std::string head = store.name + "-";
    if (!path.starts_with(head) || !path.ends_with(SUFFIX) || path.size() <= head.size() + strlen(SUFFIX))
        return -1;
    path.remove_prefix(head.size());
    path.remove_suffix(strlen(SUFFIX));
    long number = -1;
    auto [end, err] = std::from_chars(path.data(), path.data() + path.size(), number);
    return err == std::errc() && end == path.data() + path.size() ? number : -1;
}

template <typename Fn> static void each_own_file(const seg_store &store, Fn &&fn) {
    DIR *dir = opendir(channel_dir(store).c_str());
    if (!dir)
        return;
    while (const dirent *one = readdir(dir))
        if (long number = store_number_of(store, one->d_name); number >= 0)
            fn(one->d_name, number);
    closedir(dir);
}

struct highest {
    const seg_store *store;
    long number;
};

static void note_highest(std::string_view path, void *arg) {
    auto *top = static_cast<highest *>(arg);
    top->number = std::max(top->number, store_number_of(*top->store, path));
}

long store_next_number(const seg_store &store) {
    highest top{&store, 0};
    mft_each_path(store_manifest(store), note_highest, &top);
    each_own_file(store, [&](const char *, long number) { top.number = std::max(top.number, number); });
    return top.number + 1;
}

bool store_has_number(const seg_store &store, long number) {
    char name[STORE_PATH_MAX + 1];
    snprintf(name, sizeof(name), "/%s-%06ld%s", store.name.c_str(), number, SUFFIX);
    return access((channel_dir(store) + name).c_str(), F_OK) == 0;
}

void store_drop_from(const seg_store &store, long first) {
    std::vector<std::string> left;
    each_own_file(store, [&](const char *file, long number) {
        if (number >= first)
            left.emplace_back(file);
    });
    for (const std::string &file : left)
        unlink((channel_dir(store) + "/" + file).c_str());
}
