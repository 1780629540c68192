// What the tests share: the application log in memory, and a private directory.
#pragma once

#include "lib/log.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <unistd.h>

// The application log in memory and at debug level for as long as this lives.
class LogCapture {
  public:
    LogCapture() : saved(g_log) {
        memcpy(saved_ll, g_mod_ll, sizeof(saved_ll));
        stream = open_memstream(&text, &size);
        g_log.time_format = TF_NO_TIME;
        log_default(&g_log, stream);
        memset(g_mod_ll, LL_DEBUG, sizeof(g_mod_ll));
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture() {
        g_log = saved;
        memcpy(g_mod_ll, saved_ll, sizeof(saved_ll));
        fclose(stream);
        free(text);
    }
    // What was logged since the last call.
    std::string take() {
        fflush(stream);
        std::string out(text + taken, size - taken);
        taken = size;
        return out;
    }
    // Whether it was logged since the last `take`; prints the log when it was not.
    testing::AssertionResult has(const std::string &part) {
        fflush(stream);
        std::string out(text + taken, size - taken);
        if (out.find(part) != std::string::npos)
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "[" << part << "] is missing in:\n" << out;
    }

  private:
    log_ctx saved;
    signed char saved_ll[LOG_MODULES];
    FILE *stream = nullptr;
    char *text = nullptr;
    size_t size = 0, taken = 0;
};

// A directory that goes away with its owner.
class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/lumo_test_XXXXXX";
        if (mkdtemp(name))
            path = name;
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string operator/(const std::string &name) const { return path + "/" + name; }

    std::string path;
};

inline std::string read_file(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}

// What `action` prints on standard error.
template <class F> std::string printed(F action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// The lowest free descriptor number: it grows when one is left open.
inline int next_fd() {
    int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}
