#include "lib/util.h"

#include "lib/sigflag.h"
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

static std::string target(int fd) {
    std::error_code error;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error).string();
}

TEST_F(Util, DaemonHoldsItsStandardDescriptors) {
    for (const int closed_from : {3, 0}) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        const pid_t sid = getsid(0);
        in_child([&] {
            for (int fd = closed_from; fd < 3; fd++)
                close(fd);
            const int rc = daemonize();
            dprintf(report[1], "%d %d%d %s %s %s %s", rc, getsid(0) != sid, getsid(0) != getpid(),
                    target(0).c_str(), target(1).c_str(), closed_from < 3 ? target(2).c_str() : "-",
                    fs::current_path().c_str());
            _exit(0);
        });
        close(report[1]);
        char got[256] = "";
        EXPECT_GT(read(report[0], got, sizeof(got) - 1), 0);
        close(report[0]);
        EXPECT_EQ(got, std::string("0 11 /dev/null /dev/null ") + (closed_from < 3 ? "/dev/null /" : "- /"));
    }
    in_child([] {
        EXPECT_EQ(close_stderr(), 0);
        EXPECT_EQ(target(2), "/dev/null");
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

TEST_F(Util, SignalsRaiseFlags) {
    struct row {
        int signo;
        sig_handler handler;
        volatile sig_atomic_t *flag;
        bool is_goodbye;
    };
    const row rows[] = {{SIGHUP, on_sighup, &g_hup, false},   {SIGUSR1, on_sigusr1, &g_usr1, false},
                        {SIGUSR2, on_tdbg, &g_tdbg, false},   {SIGQUIT, on_sigquit, &g_quit, false},
                        {SIGTERM, on_sigquit, &g_quit, true}, {SIGINT, on_sigquit, &g_quit, true}};
    for (const row &r : rows)
        in_child([&] {
            const bool is_quit = r.handler == on_sigquit;
            ASSERT_EQ(is_quit ? handle_quit_signals(r.handler) : handle_sig(r.signo, r.handler), 0);
            errno = 4242;
            raise(r.signo);
            EXPECT_EQ(errno, 4242);
            EXPECT_TRUE(*r.flag == 1 && g_sigctx == 0 && (g_goodbye == 1) == r.is_goodbye) << r.signo;
            EXPECT_EQ(g_quit + g_hup + g_usr1 + g_tdbg, 1);
        });
    EXPECT_EQ(handle_sig(SIGKILL, on_sighup), -1);
}

TEST_F(Util, PidFileIsWrittenUnderALock) {
    char buf[64];
    const size_t needed = dir.path.size() + sizeof("/lumo-7.pid");
    EXPECT_EQ(mk_pidfile_name(dir.path.c_str(), "lumo", nullptr, 7, buf, needed), dir / "lumo-7.pid");
    EXPECT_EQ(mk_pidfile_name(dir.path.c_str(), "lumo", nullptr, 7, buf, needed - 1), nullptr);

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

TEST_F(Util, ReplacedPidFileIsNoticed) {
    const std::string file = dir / "x.pid";
    ino_t ino = 0;
    time_t checked = 0;
    EXPECT_EQ(mensure(file.c_str(), &ino, &checked), 0);
    EXPECT_EQ(read_file(file), std::to_string(getpid()));
    fs::rename(file, dir / "old"); // keeps the inode in use
    make_file("x.pid", "1");
    EXPECT_EQ(mensure(file.c_str(), &ino, &checked), 0) << "not looked at again so soon";
    checked -= 10;
    EXPECT_EQ(mensure(file.c_str(), &ino, &checked), -1);
    fs::remove(file);
    checked += 1000; // the clock was set back
    EXPECT_EQ(mensure(file.c_str(), &ino, &checked), ENOENT);
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

TEST_F(Util, DescriptorLimitIsRaised) {
    in_child([&] {
        rlimit limit{}, now{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 50;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(raise_fd_limit(), 0);
        getrlimit(RLIMIT_NOFILE, &now);
        EXPECT_EQ(now.rlim_cur, limit.rlim_max);
    });
}

TEST_F(Util, FilesFoundReadAndWatched) {
    fs::create_directory(dir / "conf");
    const std::string file = make_file("conf/name", "12345"), other = make_file("other", "");
    const std::string etc = dir / "etc/", conf = dir / "conf";
    const char *dirs[] = {etc.c_str(), conf.c_str(), nullptr, dir.path.c_str()};
    char buf[64];
    FILE *fp = fopen_any("name", "r", 4, dirs, buf, sizeof(buf));
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_EQ(buf, file);
    EXPECT_EQ(fopen_any("other", "r", 4, dirs, buf, sizeof(buf)), nullptr)
        << "the list ends at the null entry";
    EXPECT_EQ(fopen_any("name", "r", 4, dirs, buf, etc.size() + 4), nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(read_file_buf(file.c_str(), buf, 5), 5);
    EXPECT_EQ(read_file_buf(file.c_str(), buf, 4), -1);

    int64_t mtime = 0;
    const auto touch = [&](time_t t) {
        const timespec times[2] = {{t, 0}, {t, 0}};
        utimensat(AT_FDCWD, file.c_str(), times, 0);
        return chk_file_updated(file.c_str(), &mtime);
    };
    EXPECT_TRUE(touch(1000));
    EXPECT_FALSE(touch(1000));
    EXPECT_FALSE(touch(900));
    EXPECT_TRUE(touch(901)) << "the earlier time was stored";
    fs::remove(file);
    EXPECT_FALSE(chk_file_updated(file.c_str(), &mtime));
    EXPECT_EQ(mtime, 901);
}
