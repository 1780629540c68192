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
#include <sys/prctl.h>
#include <sys/stat.h>
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
    // Looks at what was logged since the last look.
    testing::AssertionResult was_logged(const std::string &part) {
        const auto result = log.has(part);
        log.take();
        return result;
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
    for (const int closed_from : {3, 2, 0}) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        const pid_t sid = getsid(0);
        in_child([&] {
            for (int fd = closed_from; fd < 3; fd++)
                close(fd);
            umask(077);
            log_default(&g_log, stdout);
            const int rc = daemonize();
            dprintf(report[1], "%d %d%d %s %s %s %o %s %d", rc, getsid(0) != sid, getsid(0) != getpid(),
                    target(0).c_str(), target(1).c_str(), closed_from < 3 ? target(2).c_str() : "-", umask(0),
                    fs::current_path().c_str(), log_fp(&g_log) == stderr);
            _exit(0);
        });
        close(report[1]);
        char got[256] = "";
        EXPECT_GT(read(report[0], got, sizeof(got) - 1), 0);
        close(report[0]);
        const std::string error = closed_from < 3 ? "/dev/null" : "-";
        EXPECT_EQ(got, "0 11 /dev/null /dev/null " + error + " 0 / 1");
    }
    in_child([] {
        EXPECT_EQ(close_stderr(), 0);
        EXPECT_EQ(target(2), "/dev/null");
    });
}

TEST_F(Util, UsersAndPriority) {
    EXPECT_EQ(run_as_user("no_such_user_here"), -1);
    EXPECT_TRUE(was_logged("run_as_user: getpwnam: user no_such_user_here not found\n"));
    as_nobody([&] {
        EXPECT_EQ(run_as_user_id(0, 0), -1);
        EXPECT_EQ(set_nice(3), 0);
        EXPECT_TRUE(was_logged("nice value adjusted by 3.\n"));
        EXPECT_EQ(set_nice(-3), -1);
        EXPECT_TRUE(was_logged("nice(-3) ERROR("));
    });
    if (geteuid() != 0)
        GTEST_SKIP() << "the rest needs the right to change users";
    in_child([] {
        const gid_t foreign[] = {4242};
        gid_t groups[64];
        ASSERT_EQ(setgroups(1, foreign), 0);
        ASSERT_EQ(run_as_user("nobody"), 0);
        for (int i = getgroups(64, groups); i-- > 0;)
            EXPECT_TRUE(groups[i] != 0 && groups[i] != 4242) << "a right of the former user is left";
        EXPECT_EQ(setuid(0), -1);
    });
}

TEST_F(Util, SignalsRaiseFlags) {
    struct row {
        int signo;
        sig_handler handler;
        volatile sig_atomic_t *flag;
        bool is_goodbye;
        const char *record;
    };
    const row rows[] = {{SIGHUP, on_sighup, &g_hup, false, "SIGHUP(1)\n"},
                        {SIGUSR1, on_sigusr1, &g_usr1, false, "SIGUSR1(10)\n"},
                        {SIGUSR2, on_tdbg, &g_tdbg, false, "T-DBG SIG(12)\n"},
                        {SIGQUIT, on_sigquit, &g_quit, false, "QUIT-SIG(3)\n"},
                        {SIGTERM, on_sigquit, &g_quit, true, "QUIT-SIG(15)\n"},
                        {SIGINT, on_sigquit, &g_quit, true, "QUIT-SIG(2)\n"}};
    g_mod_ll[LOG_MOD_APP] = LL_NORM;
    for (const row &r : rows)
        in_child([&] {
            const bool is_quit = r.handler == on_sigquit;
            ASSERT_EQ(is_quit ? handle_quit_signals(r.handler) : handle_sig(r.signo, r.handler), 0);
            errno = 4242;
            raise(r.signo);
            EXPECT_EQ(errno, 4242);
            EXPECT_TRUE(was_logged(r.record));
            EXPECT_TRUE(*r.flag == 1 && g_sigctx == 0 && (g_goodbye == 1) == r.is_goodbye) << r.record;
            EXPECT_EQ(g_quit + g_hup + g_usr1 + g_tdbg, 1);
            for (const int signo : {SIGCHLD, SIGHUP, SIGUSR1}) {
                struct sigaction now {};
                sigaction(signo, nullptr, &now);
                EXPECT_EQ(now.sa_handler == SIG_IGN, is_quit) << signo;
            }
        });
    EXPECT_EQ(handle_sig(SIGKILL, on_sighup), -1);
    EXPECT_TRUE(was_logged("handle_sig: sigaction (signo=9) ERROR(22): "));
}

TEST_F(Util, PidFileNames) {
    char buf[64];
    const char *d = dir.path.c_str();
    EXPECT_EQ(mk_pidfile_name(d, "lumo", "a", -1, buf, sizeof(buf)), dir / "lumo-a.pid");
    EXPECT_EQ(mk_pidfile_name(d, "lumo", "a", 2, buf, sizeof(buf)), dir / "lumo-a2.pid");
    const size_t needed = dir.path.size() + sizeof("/lumo-7.pid");
    EXPECT_EQ(mk_pidfile_name(d, "lumo", nullptr, 7, buf, needed), dir / "lumo-7.pid");
    EXPECT_EQ(mk_pidfile_name(d, "lumo", nullptr, 7, buf, needed - 1), nullptr);
    EXPECT_TRUE(
        was_logged(" bytes needed for filename, only " + std::to_string(needed - 1) + " available.\n"));
    EXPECT_EQ(mk_pidfile_name((dir / "none").c_str(), "lumo", "a", 1, buf, sizeof(buf)), nullptr);
    EXPECT_TRUE(was_logged("/none] is not writable: ERROR(2): "));
}

TEST_F(Util, PidFileIsWrittenUnderALock) {
    const std::string file = make_file("x.pid", "a longer text from before");
    ino_t ino = 0;
    EXPECT_EQ(create_pidfile_extra(file.c_str(), 4321, &ino, 0), 0);
    EXPECT_EQ(read_file(file), "4321");
    EXPECT_TRUE(was_logged("Created pidfile [" + file + "] with pid=4321.\n"));
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(ino, st.st_ino);

    // This process holds the lock while another one tries.
    const int fd = open(file.c_str(), O_WRONLY);
    ASSERT_EQ(write_lock(fd), 0);
    in_child([&] {
        EXPECT_EQ(create_pidfile_extra(file.c_str(), 1, nullptr, 0), -1);
        EXPECT_TRUE(log.has("file [" + file + "] is locked (another instance of daemon must be running)\n"));
        EXPECT_TRUE(was_logged("failed to create pidfile [" + file + "] with pid=1.\n"));
        EXPECT_EQ(create_pidfile_extra(file.c_str(), 1, nullptr, PIDF_QUIET), -1);
        EXPECT_EQ(log.take(), "(ERR)  Another instance is already running\n");
    });
    EXPECT_EQ(read_file(file), "4321");
    close(fd);
    EXPECT_EQ(create_pidfile_extra("", 1, nullptr, 0), -1);
    EXPECT_EQ(create_pidfile_extra((dir / "none/x.pid").c_str(), 1, nullptr, 0), -1);
    EXPECT_TRUE(was_logged("failed to create pidfile [" + (dir / "none/x.pid")));
    EXPECT_DEATH(create_pidfile_extra(file.c_str(), 0, nullptr, 0), "pid > 0");
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
    EXPECT_TRUE(was_logged("instance verification failed: " + std::to_string(ino) + "/"));
    fs::remove(file);
    checked += 1000; // the clock was set back
    EXPECT_EQ(mensure(file.c_str(), &ino, &checked), ENOENT);
}

TEST_F(Util, WithoutRights) {
    for (const char *name : {"closed", "open"})
        fs::create_directory(dir / name);
    fs::permissions(dir / "closed", fs::perms(0));
    fs::permissions(dir / "open", fs::perms(0555));
    const std::string open = dir / "open", closed = dir / "closed", none = dir / "none";
    as_nobody([&] {
        EXPECT_EQ(goto_runtime_home(open.c_str(), "/"), 0);
        EXPECT_EQ(fs::current_path(), open);
        EXPECT_EQ(goto_runtime_home(none.c_str(), "/"), -1) << "only a forbidden directory has a substitute";
        EXPECT_EQ(goto_runtime_home(closed.c_str(), "/"), 0);
        EXPECT_EQ(fs::current_path(), "/");
        EXPECT_EQ(dir_check(open.c_str()), EACCES) << "it cannot be written";
        EXPECT_TRUE(was_logged("dir_check: access('" + open + "', ...) ERROR(13): "));
        EXPECT_EQ(dir_check("/"), 0);
    });
    fs::permissions(closed, fs::perms(0700));
}

static rlimit limit_of(__rlimit_resource_t resource) {
    rlimit limit{};
    getrlimit(resource, &limit);
    return limit;
}

TEST_F(Util, Limits) {
    constexpr unsigned long ONE = 1UL << 60, TWO = 1UL << 61; // above what a sanitizer maps
    in_child([&] {
        const rlim_t hard = limit_of(RLIMIT_AS).rlim_max;
        EXPECT_EQ(set_mem_limits(0, TWO), 0);
        EXPECT_EQ(limit_of(RLIMIT_AS).rlim_cur, TWO);
        EXPECT_TRUE(was_logged("set_limit(vmem/9): 2305843009213693952 bytes\n"));
        EXPECT_EQ(set_mem_limits(ONE, TWO), 0);
        EXPECT_EQ(limit_of(RLIMIT_AS).rlim_cur, ONE);
        EXPECT_EQ(limit_of(RLIMIT_AS).rlim_max, hard);
        EXPECT_TRUE(was_logged("set_limit(rss/9): "));
    });
    in_child([&] {
        rlimit limit = limit_of(RLIMIT_NOFILE);
        limit.rlim_cur = 50;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(raise_fd_limit(), 0);
        EXPECT_EQ(limit_of(RLIMIT_NOFILE).rlim_cur, limit.rlim_max);
        EXPECT_TRUE(was_logged("limit raised from 50 to " + std::to_string(limit.rlim_max)));
    });
    in_child([&] {
        const rlimit closed{.rlim_cur = 0, .rlim_max = 4096}, open{RLIM_INFINITY, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_CORE, &closed) | prctl(PR_SET_DUMPABLE, 0), 0);
        rlimit old{};
        const int rc = set_unlimited_core(&old);
        EXPECT_EQ(old.rlim_max, 4096u);
        EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
        EXPECT_TRUE(was_logged(rc ? "set_unlimited_core: setrlimit ERROR(1): " : "current=0/4096\n"));
        EXPECT_EQ(rc, setrlimit(RLIMIT_CORE, &open)) << "it lifts the limit wherever that is allowed";
    });
}

TEST_F(Util, FilesFoundAndRead) {
    fs::create_directory(dir / "conf");
    const std::string file = make_file("conf/name", "12345"), other = make_file("other", "");
    const std::string etc = dir / "etc/", conf = dir / "conf";
    const char *dirs[] = {etc.c_str(), conf.c_str(), nullptr, dir.path.c_str()};
    char buf[64];
    FILE *fp = fopen_any("name", "r", 4, dirs, buf, sizeof(buf));
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_EQ(buf, file);
    EXPECT_TRUE(was_logged("to open [" + etc + "name]\n(DBG)  fopen_any: trying to open [" + file + "]\n"));
    EXPECT_EQ(fopen_any("other", "r", 4, dirs, buf, sizeof(buf)), nullptr)
        << "the list ends at the null entry";
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(fopen_any("name", "r", 4, dirs, buf, etc.size() + 4), nullptr);
    EXPECT_EQ(errno, E2BIG);

    EXPECT_EQ(read_file_buf(file.c_str(), buf, 5), 5);
    EXPECT_EQ(std::string(buf, 5), "12345");
    EXPECT_EQ(read_file_buf(file.c_str(), buf, 4), -1);
    EXPECT_TRUE(was_logged("read_file_buf: file size (5 bytes) is too big for buffer (4 bytes)\n"));
    EXPECT_EQ(get_file_size(etc.c_str()), -1);
    EXPECT_TRUE(was_logged("get_file_size: FAILED to retrieve mode for [" + etc + "]: No such file"));
    const char *paths[] = {etc.c_str(), file.c_str(), conf.c_str()};
    EXPECT_EQ(pick_first_file(paths, 3), file.c_str());
    EXPECT_EQ(pick_first_file(paths, 1), nullptr);
}

TEST_F(Util, ChangesOfAFile) {
    const std::string file = make_file("f", "");
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
    EXPECT_EQ(get_file_mtime(file.c_str(), 1), -1);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(get_file_mtime(file.c_str(), 0), -1);
    EXPECT_TRUE(was_logged("get_file_mtime: FAILED to retrieve mtime for [" + file + "]: "));
}

TEST_F(Util, Directories) {
    EXPECT_EQ(mk_fpath_dirs((dir / "a/b//c/name").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir / "a/b/c") && fs::is_empty(dir / "a/b/c"));
    EXPECT_EQ(mk_fpath_dirs((dir / "a/b/name").c_str()) | mk_fpath_dirs("/name") | mk_fpath_dirs("name"), 0);
    const std::string file = make_file("a/file", "");
    for (const char *below : {"/name", "/deep/name"}) {
        EXPECT_EQ(mk_fpath_dirs((file + below).c_str()), -1) << "a file stands in the way";
        EXPECT_TRUE(was_logged("mk_fpath_dirs: mkdir(" + file + ") ERROR(20): "));
    }
    EXPECT_EQ(dir_check(dir.path.c_str()), 0);
    EXPECT_EQ(dir_check(file.c_str()), ENOTDIR);
    EXPECT_EQ(dir_check((dir / "none").c_str()), ENOENT);
    EXPECT_TRUE(was_logged("dir_check: opendir('" + (dir / "none") + "', ...) ERROR(2): "));
}

TEST_F(Util, RedirectionAndSmallHelpers) {
    const std::string file = make_file("out", "");
    EXPECT_EQ(redirect_output((dir / "missing").c_str()), -1);
    EXPECT_FALSE(fs::exists(dir / "missing"));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    in_child([&] {
        EXPECT_EQ(close_pipe(fds), 0);
        EXPECT_EQ(redirect_output(file.c_str()), 0);
        EXPECT_EQ(target(1) + target(2), file + file);
        EXPECT_EQ(target(fds[0]) + target(fds[1]), "") << "a descriptor leaked";
        EXPECT_EQ(pin2cpu(5000), -1);
    });
    EXPECT_EQ(close(fds[0]) | close(fds[1]), 0);
    const std::string info = "\n" + read_file("/proc/cpuinfo");
    int cores = 0;
    for (size_t at = 0; (at = info.find("\nprocessor", at)) != std::string::npos; at++)
        cores++;
    EXPECT_EQ(get_core_count(), cores);

    const char *words[] = {"one", "Two", nullptr};
    EXPECT_EQ(tag_index("TWO", words), 1);
    EXPECT_EQ(tag_index("tw", words), -1);
    char buf[8];
    EXPECT_EQ(cpy_till("ab;cd", ",;", buf, sizeof(buf)), 2u);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(cpy_till("0123456789", "", buf, sizeof(buf)), 7u);
    EXPECT_EQ(replace_dir("/x/y/f.c", "/tmp", buf, sizeof(buf)), nullptr);
    EXPECT_TRUE(was_logged("replace_dir: 8 characters required, 7 afforded\n"));
    EXPECT_STREQ(replace_dir("f.c", "/tm/", buf, sizeof(buf)), "/tm/f.c");
}
