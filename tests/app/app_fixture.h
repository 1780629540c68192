// A daemon's context without its sockets: a private directory for playlists, the log in memory, the loop's
// clock standing still, and producers at the other end of socket pairs.
#pragma once

#include "app/app.h"
#include "app/cfg.h"
#include "app/feed.h"
#include "app/item.h"
#include "app/pl_file.h"
#include "app/rq.h"
#include "app/task.h"
#include "lib/rqs.h"
#include "lib/tmout.h"
#include "tests/capture.h"

#include <cmath>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <vector>
#include <zlib.h>

namespace fs = std::filesystem;

inline constexpr float MARKER = 0; // among the durations of append()

class App : public ::testing::Test {
  protected:
    void SetUp() override {
        descriptors = open_descriptors();
        init_timeout_registry();
        const rqs_config none{};
        ASSERT_EQ(rqs_init(&none), 0);
        timespec any = rqs_now();
        is_iocheck_time(&any, 1); // a check that an earlier test brought forward is not this one's
        init_plum_config(&g_cfg);
        strcpy(g_cfg.data_dir, dir.c_str());
        g_cfg.verify_item_filesize = false;
        g_cfg.has_gzip_pl = false;
        config_plum_ifc(&g_cfg, SRC_LISTENER, YLI_tag, (dir + "/src").c_str());
        config_plum_ifc(&g_cfg, PL_LISTENER, SLI_tag, (dir + "/pl").c_str());
        ASSERT_EQ(init_plum_ctx(urq_callbacks()), 0);
    }

    void TearDown() override {
        pprm_task_cleanup();
        destroy_plum_ctx();
        rqs_destroy();
        for (int fd : ends)
            close(fd);
        EXPECT_EQ(open_descriptors(), descriptors) << "a descriptor leaked";
        EXPECT_EQ(get_min_timeout(), MIN_TIMER_VAL) << "a time-out stayed registered";
    }

    static ptrdiff_t open_descriptors() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }

    static void set_clock(time_t sec) {
        const_cast<timespec *>(rqs_now_ref())->tv_sec = sec; // the loop's own record, which is not const
    }

    void expect_logged(const std::string &text) {
        EXPECT_TRUE(log.has(text));
        log.take();
    }

    // A connection's init line reaches the registry; the producer's end stays in `producer`.
    int connect(const std::string &name, const std::string &params = "") {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
        ends.push_back(producer = pair[1]);
        pl_urq urq{};
        urq.rq.fd = pair[0];
        const int rc = add_source(&urq, name.c_str(), params.c_str());
        close(pair[0]);
        return rc;
    }
    pl_source *source(const std::string &name = "chan", const std::string &params = "") {
        EXPECT_EQ(connect(name, params), 0);
        return src_by_name(name.c_str());
    }
    static void feed(pl_source *src, int fd, const std::string &text) {
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        EXPECT_EQ(read_source(src), 0);
    }
    // Segments "s<mseq>.ts" end to end from `start` on; 0 is a discontinuity.
    void append(pl_source *src, const std::vector<float> &durations) {
        for (const float duration : durations) {
            item_data data{};
            const pl_item *newest = newest_item(src);
            snprintf(data.path, sizeof(data.path), "s%zu.ts", newest ? newest->mseq + 1 : 0);
            data.duration = duration;
            data.start_tm = start;
            data.ifrm1_pts = 1;
            if (std::fabs(duration) < 1e6f)
                start += static_cast<long>(std::ceil(duration));
            ASSERT_EQ(duration == MARKER ? add_discontinuity(src) : add_seg(src, &data), 0);
        }
    }
    // Counted from the oldest.
    static pl_item *item(const pl_source *src, size_t n) {
        pl_item *at = oldest_item(src);
        while (n-- > 0)
            at = newer_item(at);
        return at;
    }
    static std::string list_of(const pl_source *src) {
        std::string text;
        for (const pl_item *at = oldest_item(src); at; at = newer_item(at))
            text += (is_segment(at) ? at->path : "-") + std::string(" ");
        return text;
    }

    // The markers before each item.
    static std::string breaks_of(const pl_source *src) {
        std::string text;
        for (const pl_item *at = oldest_item(src); at; at = newer_item(at))
            text += std::to_string(item_breaks(at)) + " ";
        return text;
    }

    static pl_task *task(pl_source *src, uint32_t tag, bool is_live, pl_item *first, pl_item *last) {
        pl_task *made = add_task("test", src, tag);
        made->is_live = is_live;
        made->ifirst = first;
        made->ilast = last;
        return made;
    }
    static std::vector<pl_task *> tasks_of(const pl_source *src) {
        std::vector<pl_task *> found;
        for (size_t i = 0; i <= src->tasks.last; ++i)
            if (xvlst_taken(src->tasks, i))
                found.push_back(src_task(src, static_cast<ssize_t>(i)));
        return found;
    }
    // The task whose playlist a response names.
    static pl_task *task_of(const pl_source *src, const std::string &response) {
        for (pl_task *one : tasks_of(src))
            if (one->fpath[0] && response.find(one->fpath) != std::string::npos)
                return one;
        return nullptr;
    }
    // Every window that is still in use begins and ends on items of the list, in that order.
    static void expect_windows_in_list(const pl_source *src) {
        for (const pl_task *one : tasks_of(src)) {
            if (one->pprm_idx >= 0 || (one->is_eot && !one->ifirst && !one->ilast))
                continue;
            const pl_item *at = oldest_item(src);
            while (at && at != one->ifirst)
                at = newer_item(at);
            EXPECT_TRUE(at) << one->tag.sym << one->tseq << ": first item is gone";
            while (at && at != one->ilast)
                at = newer_item(at);
            EXPECT_TRUE(at) << one->tag.sym << one->tseq << ": last item is gone or older";
        }
    }

    // One playlist request line; the response, "" for none, and its result in `code`.
    std::string ask(const std::string &line) {
        pl_urq urq{};
        urq.rq.srv = &g_ctx.rui.user[PL_LISTENER - 1];
        snprintf(urq.text, sizeof(urq.text), "%s", line.c_str());
        code = process_pl_rq(&urq);
        EXPECT_EQ(urq.peer_tag, nullptr);
        const std::string response = urq.response ? urq.response : "";
        free(urq.response);
        return response;
    }

    // Plain or compressed.
    static std::string read_file(const std::string &path) {
        std::string text;
        char buf[4096];
        gzFile gz = gzopen(path.c_str(), "r");
        for (int n; gz && (n = gzread(gz, buf, sizeof(buf))) > 0;)
            text.append(buf, static_cast<size_t>(n));
        gzclose(gz);
        return text;
    }
    static void write_file(const std::string &path, const std::string &text) {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }

    TempDir tmp;
    std::string dir = tmp.path;
    LogCapture log;
    long start = 1000; // of the next segment
    int producer = -1;
    int code = 0;

  private:
    std::vector<int> ends;
    ptrdiff_t descriptors = 0;
};
