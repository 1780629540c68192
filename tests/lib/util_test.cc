#include "lib/util.h"

#include "tests/capture.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

// A private directory that others may look into, and the log in memory.
class Util : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::permissions(dir.path, fs::perms(0755));
        g_mod_ll[LOG_MOD_SYSWRAP] = LL_NORM;
    }
    // A new file, and its path.
    std::string make_file(const std::string &name, const std::string &text) const {
        write_file(dir / name, text);
        return dir / name;
    }

    LogCapture log;
    TempDir dir;
};

// Expectations on what would change this process hold in another one.
static void in_child(const std::function<void()> &run) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        run();
        fflush(stdout);
        _exit(::testing::Test::HasFailure());
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

static constexpr uid_t NOBODY = 65534;

// Without root's rights, also where the tests run with them.
static void as_nobody(const std::function<void()> &run) {
    in_child([&] {
        ASSERT_TRUE(geteuid() != 0 || run_as_user_id(NOBODY, NOBODY) == 0);
        run();
    });
}

TEST_F(Util, NothingIsLeftOfTheFormerUser) {
    EXPECT_EQ(run_as_user("no_such_user_here"), -1);
    as_nobody([] { EXPECT_EQ(run_as_user_id(0, 0), -1); });
    if (geteuid() != 0)
        GTEST_SKIP() << "the rest needs the right to change users";
    in_child([] {
        const gid_t foreign[] = {4242};
        gid_t groups[64];
        ASSERT_EQ(setgroups(1, foreign), 0);
        ASSERT_EQ(run_as_user("nobody"), 0);
        for (int i = getgroups(64, groups); i-- > 0;)
            EXPECT_TRUE(groups[i] != 0 && groups[i] != 4242);
        EXPECT_EQ(setuid(0), -1);
    });
}

TEST_F(Util, PidFileIsWrittenUnderALock) {
    const std::string file = make_file("x.pid", "a longer text from before");
    EXPECT_EQ(create_pidfile_extra(file.c_str(), 4321, nullptr, 0), 0);
    EXPECT_EQ(read_file(file), "4321");
    // This process holds the lock while another one tries.
    const int fd = open(file.c_str(), O_WRONLY);
    ASSERT_EQ(write_lock(fd), 0);
    in_child([&] {
        EXPECT_EQ(create_pidfile_extra(file.c_str(), 1, nullptr, 0), -1);
        EXPECT_TRUE(log.has("file [" + file + "] is locked (another instance of daemon must be running)\n"));
    });
    EXPECT_EQ(read_file(file), "4321");
    close(fd);
    EXPECT_EQ(create_pidfile_extra((dir / "none/x.pid").c_str(), 1, nullptr, 0), -1);
}

TEST_F(Util, DirectoriesInTheWay) {
    for (const char *name : {"closed", "open"})
        fs::create_directory(dir / name);
    fs::permissions(dir / "closed", fs::perms(0));
    fs::permissions(dir / "open", fs::perms(0555));
    const std::string open = dir / "open", closed = dir / "closed", none = dir / "none";
    as_nobody([&] {
        EXPECT_EQ(goto_runtime_home(none.c_str(), "/"), -1) << "only a forbidden directory has a substitute";
        EXPECT_EQ(goto_runtime_home(closed.c_str(), "/"), 0);
        EXPECT_EQ(fs::current_path(), "/");
        EXPECT_EQ(dir_check(open.c_str()), EACCES) << "it cannot be written";
    });
    EXPECT_EQ(mk_fpath_dirs((dir / "a/b//c/name").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir / "a/b/c") && fs::is_empty(dir / "a/b/c"));
    const std::string file = make_file("a/file", "");
    EXPECT_EQ(mk_fpath_dirs((file + "/deep/name").c_str()), -1) << "a file stands in the way";
    EXPECT_EQ(dir_check(file.c_str()), ENOTDIR);
}

TEST_F(Util, FilesReadAndWatched) {
    const std::string file = make_file("name", "12345");
    char buf[8];
    EXPECT_EQ(read_file_buf(file.c_str(), buf, 5), 5);
    EXPECT_EQ(read_file_buf(file.c_str(), buf, 4), -1);

    int64_t mtime = 0;
    file_stamp stamp{};
    bool is_unsettled = false;
    const auto touch = [&](time_t t, long nsec = 0) {
        const timespec times[2] = {{t, nsec}, {t, nsec}};
        utimensat(AT_FDCWD, file.c_str(), times, 0);
        return chk_file_updated(file.c_str(), &mtime) * 10 +
               chk_file_stamp(file.c_str(), &stamp, &is_unsettled);
    };
    EXPECT_EQ(touch(1000), 11);
    EXPECT_EQ(touch(1000, 1), 1);
    EXPECT_EQ(touch(900), 0);
    EXPECT_EQ(touch(901), 11) << "the earlier time was stored";
    make_file("name", "1234");
    EXPECT_EQ(touch(901), 1) << "another size tells what the time does not";
    for (int tries = 3; tries-- > 0 && !is_unsettled;) // the second may end in between
        touch(time(nullptr));
    EXPECT_TRUE(is_unsettled) << "more may follow in this second";
    EXPECT_TRUE(touch(time(nullptr) + 9) == 11 && !is_unsettled);
    fs::remove(file);
    EXPECT_FALSE(chk_file_updated(file.c_str(), &mtime) ||
                 chk_file_stamp(file.c_str(), &stamp, &is_unsettled));
    EXPECT_TRUE(mtime > 901 && stamp.sec > 901);
}
