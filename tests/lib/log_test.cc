#include "lib/log.h"

#include "lib/check.h"
#include "lib/sigflag.h"
#include "tests/capture.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <regex.h>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>

LOG_UNIT(LOG_MOD_APP);

// Added to the wall clock's seconds, so that rotations need no waiting.
static time_t g_time_shift = 0;

extern "C" time_t time(time_t *out) noexcept {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += g_time_shift;
    if (out)
        *out = now.tv_sec;
    return now.tv_sec;
}

// Moves the clock to a second of its own and returns it.
static time_t next_second() {
    ++g_time_shift;
    return time(nullptr);
}

static bool matches(const std::string &text, const std::string &pattern) {
    regex_t re;
    EXPECT_EQ(regcomp(&re, ("^" + pattern + "$").c_str(), REG_EXTENDED | REG_NOSUB), 0);
    bool is_match = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return is_match;
}

class Log : public testing::Test {
  protected:
    void SetUp() override {
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
        g_time_shift = 0;
    }
    void say(const std::string &text, int level = LL_ERROR) {
        log_record(log, level, g_llctx, "%s", text.c_str());
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

TEST_F(Log, LevelNamesTagsAndPriorities) {
    struct {
        int level;
        const char *name, *tag;
        int priority;
        std::initializer_list<const char *> words;
    } rows[] = {{-4, "panic", "(PNC)", LOG_ALERT, {}},
                {-3, "error", "(ERR)", LOG_ERR, {"err", "Error"}},
                {-2, "ctitical", "(CRI)", LOG_CRIT, {"CRIT", "critical"}},
                {-1, "warning", "(WRN)", LOG_WARNING, {"warn", "WARNING"}},
                {0, "normal", "(NRM)", LOG_NOTICE, {"norm", "normal"}},
                {1, "info", "(INF)", LOG_INFO, {"info"}},
                {2, "debug", "(DBG)", LOG_DEBUG, {"debug", "dBg"}},
                {64, "section", "(SCT)", LOG_DEBUG, {"section", "SecT"}},
                {3, "??", "( ? )", LOG_DEBUG, {}},
                {-5, "??", "( ? )", LOG_DEBUG, {}}};
    for (auto &row : rows) {
        EXPECT_STREQ(log_level_str(row.level), row.name);
        EXPECT_STREQ(get_level_tag(row.level), row.tag);
        EXPECT_EQ(get_syslog_pri(row.level), row.priority) << row.level;
        for (const char *word : row.words) {
            int level = 99;
            EXPECT_EQ(match_log_level(word, &level), 0) << word;
            EXPECT_EQ(level, row.level) << word;
        }
    }
    for (const char *word : {"", "panic", "ctitical", "inform", "inf", " err", "2"}) {
        int level = 99;
        EXPECT_EQ(match_log_level(word, &level), -1) << word;
        EXPECT_EQ(level, 99) << word;
    }
    struct {
        const char *value;
        int level;
    } env[] = {{nullptr, 7}, {"0", 0}, {"abc", 7}, {"-2", -2}, {"2x", 2}, {"00", 7}, {"", 7}};
    for (auto &c : env) {
        c.value ? setenv("LOG_TEST_LEVEL", c.value, 1) : unsetenv("LOG_TEST_LEVEL");
        EXPECT_EQ(read_level_env("LOG_TEST_LEVEL", 7), c.level) << (c.value ? c.value : "unset");
    }
}

TEST_F(Log, RecordByteForByte) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_modules(&log, LL_DEBUG);
    say("plain\n");
    EXPECT_EQ(take(), "(ERR)  plain\n");
    log_set_pid(&log, 42); // belongs to the time stamp
    say("no pid\n", LL_DEBUG);
    EXPECT_EQ(take(), "(DBG)  no pid\n");
    say("unnamed\n", -126);
    say("bare\n", -127);
    EXPECT_EQ(take(), "( ? )  unnamed\nbare\n");
    n64_tag group{{"grpgrp7"}};
    log_set_group(&log, group.num64);
    say("grouped\n");
    EXPECT_EQ(take(), "(ERR)  grpgrp7  grouped\n");
    EXPECT_EQ(log_get_group(&log), group.num64);

    // With a time stamp: one blank after it, two after the others.
    struct {
        uint32_t flags;
        pid_t pid;
        const char *stamp;
    } cases[] = {
        {TF_RAW, 42, "[0-9]+\\.[0-9]{6} 42  "},
        {TF_RAW | TF_MONO, 0, "[0-9]+\\.[0-9]{6} "},
        {TF_GMT, 42, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} [-+A-Z0-9]+ 42  "},
        {TF_LOCAL | TF_NO_USEC, 42,
         "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [-+A-Z0-9]+ 42  "}};
    for (auto &c : cases) {
        timespec before, after, at;
        clockid_t clock = c.flags & TF_MONO ? CLOCK_MONOTONIC : CLOCK_REALTIME;
        log_timefmt(&log, c.flags);
        log_set_pid(&log, c.pid);
        clock_gettime(clock, &before);
        say("stamped\n");
        clock_gettime(clock, &after);
        std::string text = take();
        EXPECT_TRUE(matches(text, std::string(c.stamp) + "\\(ERR\\)  grpgrp7  stamped\n")) << text;
        ASSERT_GT(scan_log_time(text.c_str(), c.flags, &at), 0) << text;
        EXPECT_GE(at.tv_sec, before.tv_sec) << text;
        EXPECT_LE(at.tv_sec, after.tv_sec) << text;
    }

    log_timefmt(&log, 2);
    std::string text = printed([&] { say("no such clock\n"); });
    EXPECT_NE(text.find("flags2clock: unsupported timer value: 2\n"), std::string::npos) << text;
    EXPECT_EQ(take(), "");
    group.sym8[7] = 'x';
    log_set_group(&log, group.num64);
    log_timefmt(&log, TF_NO_TIME);
    EXPECT_DEATH(say("unterminated\n"), "0 == log->group.sym8");
    log_set_group(&log, 0);
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

TEST_F(Log, FilterByModuleAndSection) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    log_set_modules(&log, LL_INFO);
    log_set_sections(&log, LL_SECTION);
    g_mod_ll[7] = LL_PANIC;
    g_sec_ll[3] = LL_INFO;
    struct {
        loglevel_ctx unit;
        int level;
        bool passes;
    } cases[] = {{{.mod = 0}, LL_INFO, true},
                 {{.mod = 0}, LL_DEBUG, false},
                 {{.mod = 7}, LL_PANIC, true},
                 {{.mod = 7}, LL_ERROR, false},
                 // In a section the record's own level does not matter.
                 {{.mod = 0, .sec = 3}, LL_SECTION, true},
                 {{.mod = 0, .sec = 4}, LL_PANIC, false},
                 {{.mod = 7, .sec = 3}, LL_PANIC, false}};
    for (auto &c : cases) {
        log_record(log, c.level, c.unit, "x\n");
        EXPECT_EQ(!take().empty(), c.passes) << c.unit.mod << "/" << c.unit.sec << " " << c.level;
    }
    EXPECT_TRUE(log.llst.mod_ll_set && log.llst.sec_ll_set);

    log_push_mlevels();
    log_set_modules(&log, LL_DEBUG);
    log_push_mlevels(); // one level of saving
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[7], LL_PANIC);
    EXPECT_EQ(g_mod_ll[127], LL_INFO);
    log_set_modules(&log, LL_DEBUG);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[7], LL_DEBUG);
}

TEST_F(Log, RingGetsEveryRecordAndNobodyPaysForUnwantedOnes) {
    LogCapture captured;
    int formatted = 0;
    auto touch = [&formatted] { return ++formatted; };
    memset(g_mod_ll, LL_ERROR, sizeof(g_mod_ll));
    LOG(LL_DEBUG, "unwanted %d\n", touch());
    EXPECT_EQ(formatted, 0);
    lard_t ring = lard_create(("log_test." + std::to_string(getpid())).c_str(), 1);
    ASSERT_TRUE(ring);
    EXPECT_EQ(log_set_lard(&g_log, ring), nullptr);
    LOG_FN(LL_DEBUG, "kept %d\n", touch());
    LOG_FN(LL_ERROR, "shown\n");
    EXPECT_EQ(captured.take(), "(ERR)  TestBody: shown\n");
    EXPECT_EQ(lard_get_ctemp(ring), 3);
    FILE *out = tmpfile();
    char text[128];
    ssize_t n = lard_snapshot(ring, fileno(out));
    ASSERT_EQ(pread(fileno(out), text, sizeof(text), 0), n);
    EXPECT_EQ(std::string(text, static_cast<size_t>(n)), "(DBG)  TestBody: kept 1\n(ERR)  TestBody: shown\n");
    fclose(out);
    std::string name = "/dev/shm/log_test." + std::to_string(getpid());
    EXPECT_EQ(log_set_lard(&g_log, nullptr), ring);
    lard_destroy(ring);
    unlink((name + ".meta").c_str());
    unlink((name + ".dat").c_str());
}

TEST_F(Log, MirrorPipeAndStandardError) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    FILE *mirror = fopen((dir / "mirror").c_str(), "w");
    log_mirror(&log, mirror);
    EXPECT_EQ(log_mirror_fp(&log), mirror);
    say("twice\n");
    EXPECT_EQ(read_file(dir / "mirror"), "(ERR)  twice\n");
    log_mirror(&log, log_fp(&log)); // the same descriptor
    say("once\n");
    EXPECT_EQ(take(), "(ERR)  twice\n(ERR)  once\n");
    log_mirror(&log, nullptr);
    fclose(mirror);
    log_close(&log);
    say("dropped\n");

    log = {};
    log.time_format = TF_NO_TIME;
    std::string command = "cat >" + (dir / "piped");
    ASSERT_EQ(log_popen(&log, command.c_str()), 0);
    say("through\n");
    std::string text = printed([&] { EXPECT_EQ(log_rotate(&log), -1); });
    EXPECT_EQ(text, "log_rotate: not supported for pipe-based streams.\n");
    log_close(&log);
    EXPECT_EQ(read_file(dir / "piped"), "(ERR)  through\n");
    // Somebody else reaped the command: no failure.
    auto handler = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(log_popen(&log, "true"), 0);
                  log_close(&log);
              }),
              "");
    signal(SIGCHLD, handler);

    log = {};
    log.time_format = TF_NO_TIME;
    text = printed([&] {
        EXPECT_EQ(log_open_ex(&log, nullptr, 0), 0);
        say("on stderr\n");
        EXPECT_EQ(log_rotate(&log), 0);
        strcpy(log.name, "named");
        EXPECT_EQ(log_rotate(&log), -1);
        log_close(&log);
    });
    EXPECT_EQ(text, "(ERR)  on stderr\nlog_rotate: nothing to rotate.\n"
                    "log_rotate: stdout and stderr cannot be rotated.\n");
}

TEST_F(Log, OpeningMovesAnOldFileAside) {
    timespec stamp[2] = {{1000, 0}, {1234567890, 0}};
    auto make = [&](const std::string &text) {
        write_file(path, text);
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), stamp, 0), 0);
    };
    make("old\n");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), LOG_OPEN_APPEND), 0);
    EXPECT_EQ(log.total_out, 4u);
    say("new\n");
    log_close(&log);
    EXPECT_EQ(read_file(path), "old\n(ERR)  new\n");

    make("old\n");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    EXPECT_EQ(log.total_out, 0u);
    EXPECT_EQ(read_file(rotated(1234567890)), "old\n");
    log_close(&log);
    make("older name\n");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    EXPECT_EQ(read_file(rotated(1234567890)), "old\n");
    EXPECT_EQ(read_file(rotated(1234567891)), "older name\n");
    log_close(&log);
    make("");
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    EXPECT_EQ(files(), 3u);

    EXPECT_EQ(move_if_present((dir / "missing").c_str()), 0);
    EXPECT_EQ(move_if_present(dir.path.c_str()), 0);
    std::string text = printed([&] { EXPECT_EQ(move_if_present((path + "/under").c_str()), -1); });
    EXPECT_NE(text.find("stat(" + path + "/under) ERROR(20): "), std::string::npos) << text;
    // The stamped name may have 127 bytes.
    for (size_t len : {116, 117}) {
        path = dir / std::string(len - dir.path.size() - 1, 'n');
        make("old\n");
        EXPECT_EQ(move_if_present(path.c_str()), len == 116 ? 0 : 7);
        EXPECT_EQ(exists(rotated(1234567890)), len == 116);
    }
}

TEST_F(Log, PathsThatCannotBeOpened) {
    std::string longest = dir / std::string(128 - dir.path.size() - 1, 'n');
    ASSERT_EQ(log_open_ex(&log, longest.c_str(), 0), 0);
    EXPECT_TRUE(exists(longest));
    EXPECT_EQ(log.name, longest.substr(0, 127));
    log_close(&log);
    std::string text = printed([&] { EXPECT_EQ(log_open_ex(&log, (longest + "n").c_str(), 0), -1); });
    EXPECT_EQ(text, "Log pathname/command is too long, 128 bytes allowed\n");
    path = dir / "none/app.log";
    text = printed([&] { EXPECT_EQ(log_open_ex(&log, path.c_str(), 0), -1); });
    std::string ids = std::to_string(geteuid()) + "/" + std::to_string(getegid());
    EXPECT_EQ(text, "do_open: uid/gig=" + ids + " fopen(" + path + ") ERROR(2): No such file or directory\n");
    EXPECT_DEATH(glog_init(nullptr), "app_tag");
}

TEST_F(Log, RotationSettings) {
    time_t now = time(nullptr);
    struct {
        int given;
        size_t kept;
    } cases[] = {{0, 16}, {-1, 16}, {1, 1}, {127, 127}, {128, 16}};
    for (auto &c : cases) {
        log_set_rota(&log, 5, c.given, c.given > 1 ? now : 0);
        EXPECT_EQ(log_rota_maxfiles(&log), c.kept) << c.given;
        EXPECT_EQ(log_rota_eod(&log), c.given > 1 ? get_endofday_utime(now) : 0);
        EXPECT_EQ(log_rota_maxsize(&log), 5u);
    }
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
        std::string old = read_file(rotated(at[i]));
        EXPECT_EQ(old.substr(old.size() - text.size()), text);
        std::string expected = "(NRM)  [lumo]: previous log rotated to [" + rotated(at[i]) +
                               "] tm=" + std::to_string(at[i]) + ", idx=" + std::to_string(i % 2) + "\n";
        if (i >= 2) {
            EXPECT_FALSE(exists(rotated(at[i - 2]))) << i;
            expected +=
                "(DBG)  handle_rotation: replaced " + rotated(at[i - 2]) + " with " + rotated(at[i]) + "\n";
        }
        EXPECT_EQ(read_file(path), expected);
        EXPECT_EQ(log.total_out, expected.size());
    }
    EXPECT_EQ(files(), 4u); // with the current one and the earlier run's

    // Within one second each file still gets a name of its own.
    time_t now = next_second();
    log_set_rota(&log, 0, 4, 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(log_rotate(&log), 0);
    EXPECT_TRUE(exists(rotated(now)) && exists(rotated(now + 1)));
    // A file of the ring that is gone already; its name, free again, is not taken for the old file's.
    for (bool is_same_second : {false, true}) {
        log.rota.next_idx = 0;
        time_t gone = log.rota.tm[0];
        unlink(rotated(gone).c_str());
        g_time_shift += is_same_second ? gone - time(nullptr) : 10;
        EXPECT_EQ(log_rotate(&log), 0);
        std::string missing = "(ERR)  handle_rotation: unlink(" + rotated(gone) + ") ERROR(2) : ";
        EXPECT_EQ(read_file(path).find(missing) != std::string::npos, !is_same_second) << read_file(path);
        EXPECT_TRUE(exists(rotated(log.rota.tm[0]))) << "same second: " << is_same_second;
    }
}

TEST_F(Log, RotationAtTheEndOfTheDayAndOutsideOfHandlers) {
    ASSERT_EQ(log_open_ex(&log, path.c_str(), 0), 0);
    time_t now = next_second();
    log_set_rota(&log, 0, 4, now);
    say("today\n");
    log_set_eod(&log, now + 60);
    say("still today\n");
    EXPECT_EQ(files(), 1u);
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
    std::string big(300, 'x');
    std::string text = printed([&] { say(big + "\n"); });
    EXPECT_NE(text.find("log_rotate: failed to rename [" + path + "] to ["), std::string::npos) << text;
    EXPECT_NE(text.find("No such file or directory - rotation is to be stopped\n"), std::string::npos)
        << text;
    std::string kept = read_file(path);
    EXPECT_EQ(kept.find("(ERR)  log_rotate: log_rotate: failed to rename"), 0u) << kept;
    EXPECT_NE(kept.find("No such file or directory - rotation cancelled this time\n"), std::string::npos);
    EXPECT_LT(log.total_out, 300u); // the next attempt waits for as many bytes again

    // Nothing can be opened either; the log comes back with its directory.
    std::filesystem::remove_all(sub);
    text = printed([&] { EXPECT_EQ(log_rotate(&log), -1); });
    EXPECT_NE(text.find("fopen(" + path + ") ERROR(2)"), std::string::npos) << text;
    next_second();
    text = printed([&] {
        for (int i = 0; i < 3; ++i)
            say("lost\n");
    });
    EXPECT_EQ(text.find("fopen"), text.rfind("fopen")) << "more than one attempt in a second";
    EXPECT_NE(text.find("fopen"), std::string::npos);
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    next_second();
    say("back\n");
    EXPECT_EQ(read_file(path), "(ERR)  back\n");
}

TEST_F(Log, ErrnoSurvivesARecordThatCannotBeWritten) {
    FILE *full = fopen("/dev/full", "w");
    ASSERT_TRUE(full);
    setvbuf(full, nullptr, _IONBF, 0);
    log_default(&log, full);
    errno = EPIPE;
    say("no room\n");
    EXPECT_EQ(errno, EPIPE);
    printed([&] {
        errno = EPIPE;
        say(std::string(3000, 'x'));
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
    auto fail = [this](int level) {
        g_log = {};
        g_log.time_format = TF_NO_TIME;
        log_open_ex(&g_log, path.c_str(), LOG_OPEN_APPEND);
        log_set_modules(&g_log, level);
        int answer = 41;
        CHECK(answer == 42);
    };
    EXPECT_EXIT(fail(LL_PANIC), testing::KilledBySignal(SIGABRT),
                "log_test.cc:[0-9]+: .*Assertion `answer == 42' failed");
    std::string text = take();
    EXPECT_EQ(text.find("(PNC)  ASSERT at:\n#0: "), 0u) << text;
    EXPECT_EQ(text.substr(text.size() - 3), "==\n");
    EXPECT_LE(text.size(), strlen("(PNC)  ASSERT at:\n==\n") + 511);
    EXPECT_EXIT(fail(-5), testing::KilledBySignal(SIGABRT), "answer == 42");
    EXPECT_EQ(take(), "");

    char buf[64];
    EXPECT_EQ(snprintf_btrace(buf, 6, "%s", "heading"), -1);
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "%s", ""), -1);
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "%s\n", "heading"), 0);
    EXPECT_EQ(strncmp(buf, "heading\n", 8), 0);
}
