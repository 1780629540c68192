#include "lib/log.h"

#include "lib/check.h"
#include "lib/sigflag.h"
#include "tests/capture.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

LOG_UNIT(LOG_MOD_APP);

// The wall clock's second, standing still so that rotations need no waiting; 0 = the system's.
static time_t g_second = 0;

extern "C" time_t time(time_t *out) noexcept {
    timespec now{.tv_sec = g_second, .tv_nsec = 0};
    if (g_second == 0)
        clock_gettime(CLOCK_REALTIME, &now);
    if (out)
        *out = now.tv_sec;
    return now.tv_sec;
}

static time_t next_second() {
    return ++g_second;
}

class Log : public testing::Test {
  protected:
    void SetUp() override {
        g_second = time(nullptr);
        glog_init("lumo");
        memcpy(saved_ll, g_mod_ll, sizeof(saved_ll));
        memcpy(saved_sec, g_sec_ll, sizeof(saved_sec));
        log.time_format = TF_NO_TIME;
        path = dir / "app.log";
    }
    void TearDown() override {
        log_close(&log);
        memcpy(g_mod_ll, saved_ll, sizeof(saved_ll));
        memcpy(g_sec_ll, saved_sec, sizeof(saved_sec));
        g_second = 0;
    }
    void say(const std::string &text, int level = LL_ERROR) {
        log_record(&log, level, g_llctx, "%s", text.c_str());
    }
    // Empties the file and returns what stood in it.
    std::string take() {
        std::string text = read_file(path);
        EXPECT_EQ(truncate(path.c_str(), 0), 0);
        return text;
    }
    std::string rotated(time_t at) { return path + "." + std::to_string(at); }
    bool exists(const std::string &name) { return access(name.c_str(), F_OK) == 0; }
    size_t files() {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir.path), {}));
    }

    TempDir dir;
    std::string path;
    log_ctx log{};
    signed char saved_ll[LOG_MODULES], saved_sec[LOG_MODULES];
};

TEST_F(Log, RecordByteForByte) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_modules(&log, LL_DEBUG);
    log_set_pid(&log, 42); // belongs to the time stamp
    say("no pid\n", LL_DEBUG);
    say("unnamed\n", -126);
    say("bare\n", -127);
    EXPECT_EQ(take(), "(DBG)  no pid\n( ? )  unnamed\nbare\n");
    n64_tag group{{"grpgrp7"}};
    log_set_group(&log, group.num64);
    say("grouped\n");
    EXPECT_EQ(take(), "(ERR)  grpgrp7  grouped\n");
    log_set_group(&log, 0);
    log_timefmt(&log, TF_RAW | TF_MONO);
    timespec before, at;
    clock_gettime(CLOCK_MONOTONIC, &before);
    say("stamped\n");
    std::string text = take();
    ASSERT_GT(scan_log_time(text.c_str(), TF_RAW, &at), 0) << text;
    EXPECT_GE(at.tv_sec, before.tv_sec) << text;
    EXPECT_TRUE(text.ends_with(" 42  (ERR)  stamped\n"))
        << text; // one blank after the stamp, two after the pid
}

TEST_F(Log, LongRecordsAreCutAt2047Bytes) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    for (size_t over : {0, 1, 3000}) {
        std::string text = std::string(2039 + over, 'x') + "\n";
        std::string complaint = printed([&] { say(text); });
        EXPECT_EQ(complaint.find("fprintf/vfprintf") != std::string::npos, over > 0) << complaint;
        EXPECT_EQ(take(), "(ERR)  " + std::string(2039, 'x') + "\n") << "over by " << over;
    }
    EXPECT_EQ(log.total_out, 3 * 2047u);
}

TEST_F(Log, RingGetsEveryRecordAndNobodyPaysForUnwantedOnes) {
    LogCapture captured;
    int formatted = 0;
    auto touch = [&formatted] { return ++formatted; };
    memset(g_mod_ll, LL_ERROR, sizeof(g_mod_ll));
    LOG(LL_DEBUG, "unwanted %d\n", touch());
    EXPECT_EQ(formatted, 0);
    std::string name = "log_test." + std::to_string(getpid());
    lard_t ring = lard_create(name.c_str(), 1);
    ASSERT_TRUE(ring);
    EXPECT_EQ(log_set_lard(&g_log, ring), nullptr);
    LOG_FN(LL_DEBUG, "kept %d\n", touch());
    LOG_FN(LL_ERROR, "shown\n");
    EXPECT_EQ(captured.take(), "(ERR)  TestBody: shown\n");
    size_t size;
    const char *text = lard_get_data(ring, &size);
    EXPECT_EQ(std::string(text, lard_kept(ring).len), "(DBG)  TestBody: kept 1\n(ERR)  TestBody: shown\n");
    EXPECT_EQ(log_set_lard(&g_log, nullptr), ring);
    lard_destroy(ring);
    shm_unlink(("/" + name + ".meta").c_str());
    shm_unlink(("/" + name + ".dat").c_str());
}

TEST_F(Log, GatheredRecordsKeepTheirPlace) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_modules(&log, LL_INFO);
    log_gather(&log, LL_INFO);
    say("one\n", LL_INFO);
    EXPECT_EQ(take(), "");
    say("other\n");
    EXPECT_EQ(take(), "(INF)  one\n(ERR)  other\n");
    std::string many;
    for (int i = 0; i < 3000; ++i) {
        say(std::to_string(i) + std::string(40, '.') + "\n", LL_INFO);
        many += "(INF)  " + std::to_string(i) + std::string(40, '.') + "\n";
    }
    log_set_rota(&log, 1, 4, 0); // a rotation tells of itself behind them
    next_second();
    log_gather_end();
    EXPECT_EQ(read_file(rotated(time(nullptr))), many);
    EXPECT_NE(read_file(path).find("previous log rotated"), std::string::npos);
}

TEST_F(Log, OpeningMovesAnOldFileAside) {
    timespec stamp[2] = {{1000, 0}, {1234567890, 0}};
    auto make = [&](const std::string &text) {
        write_file(path, text);
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), stamp, 0), 0);
    };
    make("old\n");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), LOG_OPEN_APPEND), 0);
    say("new\n");
    EXPECT_EQ(log.total_out, strlen("old\n(ERR)  new\n"));
    log_close(&log);
    for (const char *text : {"older\n", "same time\n", ""}) { // an empty one needs no name
        make(text);
        ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
        log_close(&log);
    }
    EXPECT_EQ(read_file(rotated(1234567890)), "older\n");
    EXPECT_EQ(read_file(rotated(1234567891)), "same time\n");
    EXPECT_EQ(files(), 3u);
    EXPECT_EQ(move_if_present((dir / "missing").c_str()), 0);
    EXPECT_EQ(move_if_present(dir.path.c_str()), 0);
    path = dir / std::string(129 - dir.path.size() - 1, 'n');
    printed([&] { EXPECT_EQ(log_open_ex(&log, path.c_str(), 0), -1); });
    EXPECT_FALSE(exists(path)) << "refused, never cut";
}

TEST_F(Log, RotatedFilesAreKeptUpToTheirNumber) {
    log_set_modules(&log, LL_DEBUG);
    write_file(path + ".999", "an earlier run's\n");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_rota(&log, 300, 2, 0);
    time_t at[4];
    for (int i = 0; i < 4; ++i) {
        at[i] = next_second();
        std::string text = "round " + std::to_string(i) + std::string(400, '.') + "\n";
        say(text);
        EXPECT_TRUE(read_file(rotated(at[i])).ends_with(text));
        EXPECT_EQ(log.total_out, read_file(path).size());
        EXPECT_TRUE(i < 2 || !exists(rotated(at[i - 2]))) << i;
    }
    EXPECT_EQ(files(), 4u); // with the current one and the earlier run's
}

TEST_F(Log, RotationAtTheEndOfTheDayAndOutsideOfHandlers) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    time_t now = next_second();
    log_set_rota(&log, 0, 4, now);
    log_set_eod(&log, now + 60);
    say("still today\n");
    log_set_eod(&log, now - 1);
    g_sigctx = 1;
    say("from a handler\n");
    g_sigctx = 0;
    EXPECT_EQ(files(), 1u);
    say("last of the day\n");
    EXPECT_EQ(files(), 2u);
    EXPECT_EQ(log_rota_eod(&log), get_endofday_utime(time(nullptr)));
    // A limit below one record ends, too.
    next_second();
    log_set_rota(&log, 1, 4, 0);
    say("one\n");
    EXPECT_EQ(files(), 3u);
}

TEST_F(Log, FailedRotationKeepsLogging) {
    std::string sub = dir / "sub";
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    path = sub + "/app.log";
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_rota(&log, 300, 4, 0);
    unlink(path.c_str()); // somebody took the file away
    printed([&] { say(std::string(300, 'x') + "\n"); });
    std::string kept = read_file(path);
    EXPECT_NE(kept.find("No such file or directory - rotation cancelled this time\n"), std::string::npos);
    EXPECT_LT(log.total_out, 300u); // the next attempt waits for as many bytes again

    // Nothing can be opened either; the log comes back with its directory.
    std::filesystem::remove_all(sub);
    printed([&] { EXPECT_EQ(log_rotate(&log), -1); });
    next_second();
    FILE *mirror = tmpfile();
    log_mirror(&log, mirror);
    std::string text = printed([&] {
        for (int i = 0; i < 3; ++i)
            say("lost\n");
    });
    EXPECT_EQ(text.find("fopen"), text.rfind("fopen")) << "more than one attempt in a second";
    EXPECT_NE(text.find("fopen"), std::string::npos);
    EXPECT_EQ(ftell(mirror), 3l * strlen("(ERR)  lost\n")) << "only the file is gone";
    log_mirror(&log, nullptr);
    fclose(mirror);
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    next_second();
    say("back\n");
    EXPECT_EQ(read_file(path), "(ERR)  back\n");
    log_close(&log);
    next_second();
    say("closed\n");
    EXPECT_EQ(read_file(path), "(ERR)  back\n");
}

TEST_F(Log, CommandsGetTheirSignalsAndKeepTheirExitStatus) {
    sigset_t before;
    sigflag_shut_out(&before);
    ASSERT_EQ(log_popen(&log, ("kill -TERM $$; echo deaf > " + path).c_str()), 0);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(printed([&] { log_close(&log); }), "");
    EXPECT_FALSE(exists(path));
}

TEST_F(Log, ErrnoSurvivesARecordThatCannotBeWritten) {
    FILE *full = fopen("/dev/full", "w");
    ASSERT_TRUE(full);
    setvbuf(full, nullptr, _IONBF, 0);
    log_default(&log, full);
    for (size_t len : {5, 3000}) // the longer one is cut, which is told
        printed([&] {
            errno = EPIPE;
            say(std::string(len, 'x'));
            EXPECT_EQ(errno, EPIPE);
        });
    log_close(&log);
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_rota(&log, 1, 1, 0);
    errno = EPIPE;
    say("rotates\n");
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(Log, FailedCheckReportsToTheLog) {
    auto fail = [this] {
        g_log = {};
        g_log.time_format = TF_NO_TIME;
        log_open_ex(&g_log, path.c_str(), LOG_OPEN_APPEND);
        int answer = 41;
        CHECK(answer == 42);
    };
    EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT),
                "log_test.cc:[0-9]+: .*Assertion `answer == 42' failed");
    // One that fails while a record is put together does not report itself without end.
    auto fail_inside = [this] {
        log_set_group(&log, UINT64_MAX);
        say("x\n");
    };
    EXPECT_EXIT(fail_inside(), testing::KilledBySignal(SIGABRT), "Assertion `0 == log->group");
    std::string text = take();
    EXPECT_EQ(text.find("(PNC)  ASSERT at:\n#0: "), 0u) << text;
    EXPECT_TRUE(text.ends_with("==\n") && text.size() <= strlen("(PNC)  ASSERT at:\n==\n") + 511) << text;
}
