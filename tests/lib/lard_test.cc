#include "lib/lard.h"

#include "tests/capture.h"

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

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
    void make_object(const std::string &object, const void *bytes, size_t len, size_t size) {
        int fd = shm_open(object.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, bytes, len), static_cast<ssize_t>(len));
        ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
        close(fd);
    }
};

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
    size_t size = page();
    std::string over(size, 'x'), most(size - 1, 'y');
    ASSERT_EQ(lard_puts(ring, "kept\n"), 5);
    EXPECT_EQ(lard_puts(ring, ""), -7);
    EXPECT_EQ(lard_printf(ring, "%s", over.c_str()), -7);
    EXPECT_EQ(snapshot(ring), "kept\n");
    EXPECT_EQ(lard_printf(ring, "%s", most.c_str()), static_cast<ssize_t>(size - 1));
    EXPECT_EQ(snapshot(ring), most);
    EXPECT_EQ(lard_write(ring, over.data(), size), static_cast<ssize_t>(size - 1));
    EXPECT_EQ(snapshot(ring), over.substr(1));
    lard_t reader = lard_open(name.c_str());
    ASSERT_TRUE(reader);
    EXPECT_EQ(lard_puts(reader, "x"), -7) << "a reader does not write";
    lard_close(reader);
    lard_close(ring);
}

TEST_F(Lard, CrashedOwnersRingIsReadAndReplaced) {
    ASSERT_EQ(in_child([this] {
                  lard_t ring = lard_create(name.c_str(), 2);
                  return ring && lard_puts(ring, "about to crash\n") > 0 ? 0 : 1;
              }),
              0);
    lard_t old = lard_open(name.c_str());
    ASSERT_TRUE(old);
    EXPECT_NE(lard_owner_pid(old), getpid());
    EXPECT_TRUE(lard_is_active(old));
    lard_t ring = lard_create(name.c_str(), 1), reader = lard_open(name.c_str());
    ASSERT_TRUE(ring && reader);
    lard_puts(ring, "new owner\n");
    EXPECT_EQ(snapshot(old), "about to crash\n");
    // Only the owner marks a ring closed: neither a child of its nor a reader.
    EXPECT_EQ(in_child([ring] { return lard_close(ring), 0; }), 0);
    lard_close(lard_open(name.c_str()));
    EXPECT_TRUE(lard_is_active(reader));
    lard_destroy(ring);
    EXPECT_FALSE(lard_is_active(reader));
    EXPECT_EQ(snapshot(reader), "new owner\n");
    lard_close(old);
    lard_close(reader);
}

TEST_F(Lard, ReaderMeetsARestart) {
    // As many of a letter as its place tells: one owner's length would not fit the other's text.
    auto text_of = [](size_t k) { return std::string(k + 1, static_cast<char>('a' + k)); };
    pid_t pid = fork();
    for (size_t k = 0; pid == 0; k = (k + 1) % 26) {
        lard_t ring = lard_create(name.c_str(), 1);
        lard_puts(ring, text_of(k).c_str());
        lard_destroy(ring);
        usleep(100);
    }
    for (int opened = 0; opened < 1000;)
        if (lard_t ring = lard_open(name.c_str())) {
            std::string text = snapshot(ring);
            EXPECT_TRUE(text.empty() || text == text_of(static_cast<size_t>(text[0] - 'a'))) << opened;
            opened += !text.empty();
            lard_close(ring);
        }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(Lard, FailedCreationLeavesNothingBehind) {
    int fd = next_fd();
    // Something that cannot be replaced stands where the data object should be.
    std::string path = "/dev/shm" + dat_object;
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(lard_create(name.c_str(), 1), nullptr);
    EXPECT_FALSE(exists(meta_object));
    ASSERT_EQ(rmdir(path.c_str()), 0);
    // More memory than there is: found out here, not by a signal at the first write.
    struct statvfs vfs;
    ASSERT_EQ(statvfs("/dev/shm", &vfs), 0);
    if (vfs.f_blocks > 0) { // limited in size
        EXPECT_EQ(lard_create(name.c_str(), vfs.f_blocks * vfs.f_frsize / page() + 1), nullptr);
    }
    EXPECT_FALSE(exists(meta_object) || exists(dat_object));
    EXPECT_EQ(next_fd(), fd);
}

TEST_F(Lard, ReaderRefusesWhatIsNoRing) {
    lard_meta meta{};
    struct {
        const char *what;
        size_t seg_pages, meta_size, dat_size;
    } cases[] = {{"empty meta", 2, 0, 2 * page()},
                 {"short meta", 2, sizeof(meta) - 1, 2 * page()},
                 {"long meta", 2, sizeof(meta) + 1, 2 * page()},
                 {"no pages", 0, sizeof(meta), 2 * page()},
                 {"pages whose length wraps", SIZE_MAX / page() + 2, sizeof(meta), 2 * page()},
                 {"data cut within its last page", 2, sizeof(meta), 2 * page() - 1}};
    int fd = next_fd();
    for (auto &c : cases) {
        meta.seg_pages = c.seg_pages;
        make_object(meta_object, &meta, sizeof(meta), c.meta_size);
        make_object(dat_object, "x", 1, c.dat_size);
        EXPECT_EQ(lard_open(name.c_str()), nullptr) << c.what;
        EXPECT_TRUE(exists(meta_object) && exists(dat_object)) << c.what;
    }
    EXPECT_EQ(next_fd(), fd);
}

TEST_F(Lard, ReaderSurvivesAForeignRecord) {
    struct {
        size_t start, len, kept_start, kept_len;
    } cases[] = {
        {SIZE_MAX, SIZE_MAX, SIZE_MAX % (2 * page()), 2 * page()},
        {5, 3, 3, 0},
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
