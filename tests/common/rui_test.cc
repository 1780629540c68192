#include "common/rui.h"

#include "lib/rqs.h"
#include "lib/timeop.h"
#include "tests/capture.h"

#include <fcntl.h>
#include <vector>

namespace {

struct request {
    rui_rq_header head;
    int number;
};

// What the request family's callbacks did.
int made;
std::vector<int> removed;

void defer(rui_rq_header *rq) {
    xvlst *pprm = &rq->srv->pprm;
    ssize_t slot = xvlst_add(pprm, sizeof(rq), 8);
    ASSERT_GE(slot, 0);
    *xvlst_at<rui_rq_header *>(*pprm, static_cast<size_t>(slot)) = rq;
}

rui_rq_header *new_rq(int fd, rui_socket_ctx *srv, void *) {
    auto *rq = static_cast<request *>(calloc(1, sizeof(request)));
    rq->head.srv = srv;
    rq->head.fd = fd;
    rq->number = ++made;
    return &rq->head;
}

void rm_rq(rui_rq_header *rq) {
    EXPECT_EQ(rq->fd, -1);
    removed.push_back(reinterpret_cast<request *>(rq)->number);
    free(rq);
}

class Rui : public testing::Test {
  protected:
    void SetUp() override {
        descriptors = next_fd();
        made = 0;
        removed.clear();
        rqs_config config{};
        ASSERT_EQ(rqs_init(&config), 0);
        for (int type = 0; type < RUI_MAX; ++type)
            rui_set_cb(type, {{"TRQ"}, new_rq, rm_rq, nullptr, nullptr});
        for (int i = 0; i < 2; ++i) {
            rui_listener_cfg &lc = cfg.user[i];
            lc.is_valid = true;
            snprintf(lc.alias, sizeof(lc.alias), "l%d", i + 1);
            snprintf(lc.domain_path, sizeof(lc.domain_path), "%s", (dir / lc.alias).c_str());
        }
        ASSERT_EQ(rui_ctx_init(&cfg, &ctx), 0);
    }
    void TearDown() override {
        rui_ctx_destroy(&ctx);
        rqs_destroy();
        timeop_set_loop_clock(nullptr);
        EXPECT_EQ(static_cast<int>(removed.size()), made);
        EXPECT_EQ(next_fd(), descriptors);
    }
    // Queues requests on duplicates of one descriptor, from number `from` on.
    void queue(size_t count, int from = 0) {
        int pipes[2];
        ASSERT_EQ(pipe(pipes), 0);
        for (size_t i = 0; i < count; ++i)
            ASSERT_EQ(rui_add_request(fcntl(pipes[0], F_DUPFD, from), srv, nullptr), 0);
        close(pipes[0]);
        close(pipes[1]);
    }
    rui_rq_header *newest() { return dlep_as<rui_rq_header>(dlep_head(srv->requests)); }
    size_t queued() { return dlep_count(srv->requests); }

    LogCapture log;
    TempDir dir;
    rui_cfg cfg{};
    rui_ctx ctx{};
    rui_socket_ctx *srv = &ctx.user[0];
    int descriptors = 0;
};

TEST_F(Rui, BackPressure) {
    queue(74);
    EXPECT_TRUE(rui_should_listen(srv, 100)); // it is stopped
    EXPECT_FALSE(rui_should_listen(srv, 74));
    queue(1, 1024);
    EXPECT_GT(newest()->fd, 1023);
    EXPECT_FALSE(rui_should_listen(srv, 100) || rui_should_listen(srv, 101));
    EXPECT_TRUE(rui_should_listen(srv, 102));
    EXPECT_TRUE(rui_can_listen(srv, 76) && !rui_can_listen(srv, 75));
}

TEST_F(Rui, RequestsAreRemovedNowOrAtTheEndOfThePass) {
    queue(5);
    std::vector<rui_rq_header *> rq;
    for (dlep_elem *le = dlep_tail(srv->requests); le; le = le->next)
        rq.push_back(dlep_as<rui_rq_header>(le));
    for (int i : {3, 1, 2})
        defer(rq[i]);
    int fd = rq[1]->fd;
    rui_rm_request(rq[1]); // leaves the list of the deferred, too
    EXPECT_EQ(srv->pprm.len, 2u);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    rui_rm_request(rq[0]);
    rui_pprm_all(&ctx);
    EXPECT_EQ(removed, std::vector<int>({2, 1, 4, 3}));
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
    // A descriptor that cannot be watched stays the caller's.
    write_file(dir / "plain", "");
    fd = open((dir / "plain").c_str(), O_RDONLY);
    EXPECT_NE(rui_add_request(fd, srv, nullptr), 0);
    EXPECT_EQ(queued(), 1u);
    EXPECT_EQ(close(fd), 0);
    // What is still queued or deferred goes with the context.
    defer(newest());
}

} // namespace
