#include "lib/lard.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

size_t page() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

class Lard : public testing::Test {
  protected:
    std::string name = "lard_test." + std::to_string(getpid());
    std::string meta_object = "/" + name + ".meta";
    std::string dat_object = "/" + name + ".dat";

    void TearDown() override {
        shm_unlink(meta_object.c_str());
        shm_unlink(dat_object.c_str());
    }
    bool exists(const std::string &object) {
        int fd = shm_open(object.c_str(), O_RDONLY, 0);
        if (fd >= 0)
            close(fd);
        return fd >= 0;
    }
    // What `action` printed on standard error.
    template <class F> std::string printed(F action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
    void make_object(const std::string &object, const void *bytes, size_t len, size_t size) {
        int fd = shm_open(object.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, bytes, len), static_cast<ssize_t>(len));
        ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
        close(fd);
    }
};

// The lowest free descriptor: grows when one was left open.
int next_fd() {
    int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

std::string snapshot(lard_t ring) {
    FILE *out = tmpfile();
    ssize_t n = lard_snapshot(ring, fileno(out));
    std::string text(n < 0 ? 0 : static_cast<size_t>(n), '\0');
    EXPECT_EQ(pread(fileno(out), text.data(), text.size() + 1, 0), n);
    fclose(out);
    return text;
}

// Runs `action` in a process of its own that ends without closing anything; its exit code.
template <class F> int in_child(F action) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(action());
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Lard, KeepsTheNewestBytesInOrderAcrossTheSeam) {
    for (size_t npages : {1, 3}) {
        size_t size = npages * page();
        lard_t ring = lard_create(name.c_str(), npages);
        lard_t reader = lard_open(name.c_str());
        ASSERT_TRUE(ring && reader);
        std::string all;
        unsigned seed = 7;
        // Fills up to one byte short, then exactly, then goes round with records of all sizes.
        for (size_t round = 0; round < 400; round++) {
            size_t n = round == 0 ? size - 1 : round == 1 ? 1 : 1 + static_cast<size_t>(rand_r(&seed)) % 999;
            if (round % 50 == 49)
                n = size - 1 - round / 50;
            std::string text(n, static_cast<char>('a' + round % 26));
            auto len = static_cast<ssize_t>(n);
            ASSERT_EQ(round % 3 ? lard_puts(ring, text.c_str()) : lard_printf(ring, "%s", text.c_str()), len);
            all += text;
            size_t kept = std::min(all.size(), size);
            // Once full, the newest record's terminator takes the oldest byte's place.
            std::string expected = all.substr(all.size() - (kept == size ? size - 1 : kept));
            ASSERT_EQ(lard_get_meta(ring)->pld_len, kept);
            ASSERT_LT(lard_get_meta(ring)->pld_start, size);
            ASSERT_EQ(snapshot(ring), expected) << "round " << round;
            ASSERT_EQ(snapshot(reader), expected) << "round " << round;
        }
        lard_close(reader);
        lard_destroy(ring);
    }
}

TEST_F(Lard, RefusedAndCutTexts) {
    lard_t ring = lard_create(name.c_str(), 1);
    ASSERT_TRUE(ring);
    size_t size;
    lard_get_data(ring, &size);
    ASSERT_EQ(size, page());
    std::string over(size, 'x'), most(size - 1, 'y');

    ASSERT_EQ(lard_puts(ring, "kept\n"), 5);
    EXPECT_EQ(lard_puts(ring, ""), -7);
    EXPECT_EQ(lard_write(ring, "abc", 0), -7);
    EXPECT_EQ(lard_printf(ring, "%s", ""), -7);
    EXPECT_EQ(lard_printf(ring, "%s", over.c_str()), -7);
    EXPECT_EQ(snapshot(ring), "kept\n");
    EXPECT_EQ(lard_write(ring, "known length", 5), 5);
    EXPECT_EQ(snapshot(ring), "kept\nknown");
    EXPECT_EQ(lard_printf(ring, "%s", most.c_str()), static_cast<ssize_t>(size - 1));
    EXPECT_EQ(snapshot(ring), most);
    EXPECT_EQ(lard_write(ring, over.data(), size), static_cast<ssize_t>(size - 1));
    EXPECT_EQ(lard_puts(ring, over.c_str()), static_cast<ssize_t>(size - 1));
    EXPECT_EQ(snapshot(ring), over.substr(1));

    lard_t reader = lard_open(name.c_str());
    ASSERT_TRUE(reader);
    EXPECT_EQ(lard_puts(reader, "x"), -7);
    EXPECT_EQ(lard_printf(reader, "%s", most.c_str()), -7);
    lard_set_temp(reader, 4);
    EXPECT_EQ(lard_get_ctemp(ring), 0);
    lard_close(reader);
    lard_close(ring);
}

TEST_F(Lard, TemperatureIsTheSumOfTheLastPushes) {
    lard_t ring = lard_create(name.c_str(), 1);
    ASSERT_TRUE(ring);
    for (int i = 1; i <= 64; i++)
        lard_set_temp(ring, i);
    EXPECT_EQ(lard_get_ctemp(ring), 64 * 65 / 2);
    lard_puts(ring, "x"); // pushes 0 and so drops the 1
    EXPECT_EQ(lard_get_ctemp(ring), 64 * 65 / 2 - 1);
    lard_printf(ring, "%d", 1);
    EXPECT_EQ(lard_get_ctemp(ring), 64 * 65 / 2 - 3);
    for (int i = 0; i < 64; i++)
        lard_set_temp(ring, INT_MAX);
    EXPECT_GT(lard_get_ctemp(ring), 0);
    for (int i = 0; i < 64; i++)
        lard_set_temp(ring, -5);
    EXPECT_EQ(lard_get_ctemp(ring), 0);

    timespec before = lard_get_meta(ring)->write_tm, now;
    lard_puts(ring, "x");
    timespec after = lard_get_meta(ring)->write_tm;
    clock_gettime(CLOCK_MONOTONIC, &now);
    auto nsec = [](const timespec &ts) { return ts.tv_sec * 1'000'000'000 + ts.tv_nsec; };
    EXPECT_LT(nsec(before), nsec(after));
    EXPECT_LE(nsec(after), nsec(now));
    lard_close(ring);
}

TEST_F(Lard, OnlyTheOwnerMarksTheRingClosed) {
    lard_t ring = lard_create(name.c_str(), 1);
    lard_t reader = lard_open(name.c_str());
    ASSERT_TRUE(ring && reader);
    EXPECT_EQ(lard_owner_pid(reader), getpid());
    EXPECT_EQ(in_child([ring] { return lard_close(ring), 0; }), 0);
    EXPECT_TRUE(lard_is_active(reader));
    lard_close(lard_open(name.c_str()));
    EXPECT_TRUE(lard_is_active(reader));
    lard_puts(ring, "last words\n");
    lard_destroy(ring);
    EXPECT_FALSE(lard_is_active(reader));
    EXPECT_EQ(snapshot(reader), "last words\n");
    lard_close(reader);
    lard_close(nullptr);
    lard_destroy(nullptr);
}

TEST_F(Lard, CrashedOwnersRingIsReadAndReplaced) {
    ASSERT_EQ(in_child([this] {
                  lard_t ring = lard_create(name.c_str(), 2);
                  return ring && lard_puts(ring, "about to crash\n") > 0 ? 0 : 1;
              }),
              0);
    lard_t old = lard_open(name.c_str());
    ASSERT_TRUE(old);
    pid_t owner = lard_owner_pid(old);
    EXPECT_NE(owner, getpid());
    EXPECT_EQ(kill(owner, 0), -1);
    EXPECT_TRUE(lard_is_active(old));

    lard_t ring = lard_create(name.c_str(), 1);
    ASSERT_TRUE(ring);
    EXPECT_EQ(snapshot(ring), "");
    lard_puts(ring, "new owner\n");
    EXPECT_EQ(snapshot(old), "about to crash\n");
    struct stat st;
    ASSERT_EQ(stat(("/dev/shm" + dat_object).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    lard_close(old);
    lard_close(ring);
}

TEST_F(Lard, NamesAndPageCountsRefused) {
    struct {
        std::string name;
        size_t npages;
        const char *message;
    } cases[] = {
        {"", 1, "ring name [] of 0 bytes refused"},
        {"a/b", 1, "ring name [a/b] of 3 bytes refused"},
        {"../up", 1, "refused"},
        {std::string(255, 'n'), 1, "of 255 bytes refused"},
        {std::string(254, 'n'), 1, "shm_"}, // too long for the system once it has its suffix
        {name, 0, "page count 0 refused"},
        {name, SIZE_MAX, "page count 18446744073709551615 refused"},
        {name, SIZE_MAX / page() + 2, "refused"},
    };
    int fd = next_fd();
    for (auto &c : cases) {
        std::string text = printed([&] { EXPECT_EQ(lard_create(c.name.c_str(), c.npages), nullptr); });
        EXPECT_NE(text.find(c.message), std::string::npos) << text;
        printed([&] { EXPECT_EQ(lard_open(c.name.c_str()), nullptr); });
    }
    printed([] { EXPECT_EQ(lard_open(nullptr), nullptr); });
    EXPECT_EQ(next_fd(), fd);
    EXPECT_FALSE(exists(meta_object));
    EXPECT_DEATH(lard_create(nullptr, 1), "\\(\\(void \\*\\)0\\) != name");
}

TEST_F(Lard, FailedCreationLeavesNothingBehind) {
    int fd = next_fd();
    // Something that cannot be replaced stands where the data object should be.
    std::string path = "/dev/shm" + dat_object;
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    std::string text = printed([&] { EXPECT_EQ(lard_create(name.c_str(), 1), nullptr); });
    EXPECT_NE(text.find("shm_unlink(" + dat_object + ") ERROR("), std::string::npos) << text;
    EXPECT_FALSE(exists(meta_object));
    ASSERT_EQ(rmdir(path.c_str()), 0);

    // The data object may not grow to its size: by the limit in force, then by the memory there is.
    rlimit old, limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    limit = {page(), old.rlim_max};
    auto handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    lard_t ring = nullptr;
    int err = 0;
    text = printed([&] {
        ring = lard_create(name.c_str(), 2);
        err = errno;
    });
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, handler);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(err, EFBIG);
    EXPECT_NE(text.find("ftruncate(fd"), std::string::npos) << text;
    struct statvfs vfs;
    ASSERT_EQ(statvfs("/dev/shm", &vfs), 0);
    if (vfs.f_blocks > 0) { // limited in size
        size_t npages = vfs.f_blocks * vfs.f_frsize / page() + 1;
        text = printed([&] { EXPECT_EQ(lard_create(name.c_str(), npages), nullptr); });
        EXPECT_NE(text.find("posix_fallocate("), std::string::npos) << text;
    }
    EXPECT_FALSE(exists(meta_object));
    EXPECT_FALSE(exists(dat_object));
    EXPECT_EQ(next_fd(), fd);
}

TEST_F(Lard, ReaderRefusesWhatIsNoRing) {
    lard_meta meta{};
    meta.seg_pages = 2;
    struct {
        const char *what;
        size_t seg_pages, meta_size, dat_size;
        const char *message;
    } cases[] = {
        {"empty meta", 2, 0, 2 * page(), "has 0 bytes"},
        {"short meta", 2, sizeof(meta) - 1, 2 * page(), "bytes where a ring has"},
        {"long meta", 2, sizeof(meta) + 1, 2 * page(), "bytes where a ring has"},
        {"no pages", 0, sizeof(meta), 2 * page(), "page count 0 refused"},
        {"negative pages", SIZE_MAX, sizeof(meta), 2 * page(), "refused"},
        {"pages whose length wraps", SIZE_MAX / page() + 2, sizeof(meta), 2 * page(), "refused"},
        {"more pages than data", 3, sizeof(meta), 2 * page(), "too few for 3 pages"},
        {"data cut within its last page", 2, sizeof(meta), 2 * page() - 1, "too few for 2 pages"},
        {"empty data", 2, sizeof(meta), 0, "too few for 2 pages"},
    };
    int fd = next_fd();
    for (auto &c : cases) {
        meta.seg_pages = c.seg_pages;
        make_object(meta_object, &meta, sizeof(meta), c.meta_size);
        make_object(dat_object, "x", 1, c.dat_size);
        std::string text = printed([&] { EXPECT_EQ(lard_open(name.c_str()), nullptr) << c.what; });
        EXPECT_NE(text.find(c.message), std::string::npos) << c.what << ": " << text;
        EXPECT_TRUE(exists(meta_object) && exists(dat_object)) << c.what;
    }
    make_object(meta_object, &meta, sizeof(meta), sizeof(meta));
    for (auto &object : {dat_object, meta_object}) {
        shm_unlink(object.c_str());
        printed([&] {
            EXPECT_EQ(lard_open(name.c_str()), nullptr) << object << " is missing";
            EXPECT_EQ(errno, ENOENT);
        });
        ASSERT_EQ(mkfifo(("/dev/shm" + object).c_str(), 0600), 0);
        printed([&] { EXPECT_EQ(lard_open(name.c_str()), nullptr) << object << " is a FIFO"; });
    }
    EXPECT_EQ(next_fd(), fd);
}

TEST_F(Lard, ReaderSurvivesAForeignRecord) {
    struct {
        size_t start, len, kept_start, kept_len;
    } cases[] = {
        {SIZE_MAX, SIZE_MAX, SIZE_MAX % (2 * page()), 2 * page()},
        {2 * page(), 2 * page(), 0, 2 * page()},
        {5, 3, 3, 0},
        {SIZE_MAX / 2, 1, 1, 0},
        {100, 4096, 100, 3996}, // a wrap whose start is told and whose length is not yet
    };
    std::string data(2 * page(), 'd');
    make_object(dat_object, data.data(), data.size(), data.size());
    for (auto &c : cases) {
        lard_meta meta;
        memset(static_cast<void *>(&meta), 0xa5, sizeof(meta));
        meta.seg_pages = 2;
        meta.pld_start = c.start;
        meta.pld_len = c.len;
        make_object(meta_object, &meta, sizeof(meta), sizeof(meta));
        lard_t ring = lard_open(name.c_str());
        ASSERT_TRUE(ring);
        lard_span kept = lard_kept(ring);
        EXPECT_EQ(kept.start, c.kept_start);
        EXPECT_EQ(kept.len, c.kept_len);
        EXPECT_EQ(snapshot(ring), std::string(c.kept_len, 'd'));
        EXPECT_FALSE(lard_is_active(ring));
        lard_close(ring);
    }
}

} // namespace
