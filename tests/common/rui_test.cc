#include "common/rui.h"

#include "lib/rqs.h"
#include "lib/sigflag.h"
#include "lib/timeop.h"
#include "tests/capture.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <vector>

namespace {

struct request {
    rui_rq_header head;
    int number;
};

// What the request family's callbacks did.
struct family {
    int made = 0, data = 0;
    bool is_refusing = false;
    std::vector<int> removed, asked;
    std::function<bool(request *)> time_out;
} g_family;

rui_rq_header *new_rq(int fd, rui_socket_ctx *srv, void *data) {
    if (g_family.is_refusing)
        return nullptr;
    auto *rq = static_cast<request *>(calloc(1, sizeof(request)));
    rq->head.srv = srv;
    rq->head.fd = fd;
    rq->number = ++g_family.made;
    if (data)
        g_family.data = *static_cast<int *>(data);
    return &rq->head;
}

void rm_rq(rui_rq_header *rq) {
    EXPECT_EQ(rq->fd, -1);
    g_family.removed.push_back(reinterpret_cast<request *>(rq)->number);
    free(rq);
}

bool time_out(rui_rq_header *rq, long tmout_ms) {
    EXPECT_EQ(tmout_ms, 500);
    auto *record = reinterpret_cast<request *>(rq);
    g_family.asked.push_back(record->number);
    return g_family.time_out && g_family.time_out(record);
}

void defer(rui_rq_header *rq) {
    xvlst *pprm = &rq->srv->pprm;
    ssize_t slot = xvlst_add(pprm, sizeof(rq), 8);
    ASSERT_GE(slot, 0);
    *xvlst_at<rui_rq_header *>(*pprm, static_cast<size_t>(slot)) = rq;
}

class Rui : public testing::Test {
  protected:
    void SetUp() override {
        descriptors = next_fd();
        g_family = {};
        rqs_config config{};
        ASSERT_EQ(rqs_init(&config), 0);
        for (int type = 0; type < RUI_MAX; ++type)
            rui_set_cb(type, {{"TRQ"}, new_rq, rm_rq, time_out});
        for (int i = 0; i < 2; ++i) {
            rui_listener_cfg &lc = cfg.user[i];
            lc.is_valid = true;
            snprintf(lc.alias, sizeof(lc.alias), "l%d", i + 1);
            snprintf(lc.domain_path, sizeof(lc.domain_path), "%s", (dir / lc.alias).c_str());
        }
        ASSERT_EQ(rui_ctx_init(&cfg, &ctx), 0);
    }
    void TearDown() override {
        for (int fd : clients)
            close(fd);
        rui_ctx_destroy(&ctx);
        rqs_destroy();
        timeop_set_loop_clock(nullptr);
        g_quit = 0;
        EXPECT_EQ(static_cast<int>(g_family.removed.size()), g_family.made);
        EXPECT_EQ(next_fd(), descriptors);
    }
    int connect_client() {
        clients.push_back(open_domain_client(cfg.user[0].domain_path, 1, 0));
        EXPECT_GE(clients.back(), 0);
        return clients.back();
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
    std::vector<int> clients;
    int descriptors = 0;
};

TEST_F(Rui, ListenerLife) {
    EXPECT_EQ(srv->tag.num, RSC_TAG);
    EXPECT_EQ(srv->sockfd, -1);
    EXPECT_EQ(ctx.user[2].tag.num, 0u);
    EXPECT_TRUE(log.has("rui_setup_listeners: 2 [user] listeners set up\n"));
    rui_stop_listener(srv); // nothing to stop
    EXPECT_FALSE(srv->deferred);
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 2u);
    EXPECT_TRUE(log.has("(INF)  STARTED listener fd" + std::to_string(srv->sockfd) + " for TRQ requests on " +
                        cfg.user[0].domain_path + ":; 0 requests pending\n"));
    EXPECT_DEATH(rui_start_listener(&cfg.user[0], srv), "-1 == srv->sockfd");
    queue(1);
    rui_stop_listener(srv);
    EXPECT_TRUE(log.has("wll be closed (1 requsts queued)\n"));
    EXPECT_TRUE(srv->deferred);
    EXPECT_EQ(srv->sockfd, -1);
    EXPECT_EQ(queued(), 1u);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 2u);           // the other listener and the request
    ASSERT_EQ(rui_start_listener(&cfg.user[0], srv), 0); // the path it left is taken over
    EXPECT_FALSE(srv->deferred);
    connect_client();
    EXPECT_EQ(rui_accept(srv, 64, 0, nullptr), 0);
    EXPECT_EQ(queued(), 2u);
    stop_listeners("user", ctx.user, false);
    EXPECT_EQ(ctx.user[1].sockfd, -1);
    EXPECT_EQ(queued(), 2u);

    snprintf(cfg.user[0].domain_path, sizeof(cfg.user[0].domain_path), "%s", (dir / "none/s").c_str());
    int fd = next_fd();
    EXPECT_EQ(rui_enable_listeners(ctx.user), -1);
    EXPECT_EQ(srv->sockfd, -1);
    EXPECT_EQ(ctx.user[1].sockfd, -1);
    EXPECT_TRUE(log.has("(ERR)  rui_start_listener: failed to start TRQ listener\n"));
    EXPECT_EQ(next_fd(), fd);
    EXPECT_DEATH(rui_set_cb(RUI_MAX, {}), "type >= 0 && type < RUI_MAX");
    rui_set_cb(RUI_ADMIN, {{"ARQ"}, new_rq, nullptr, nullptr});
    EXPECT_DEATH(rui_setup_listeners(RUI_ADMIN, cfg.user, ctx.admin), "cb->new_rq && cb->rm_rq");
}

TEST_F(Rui, AcceptsAtMostSoManyAtOnce) {
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    for (int i = 0; i < 3; ++i)
        connect_client();
    EXPECT_EQ(rui_accept(srv, 0, 0, nullptr), 0);
    EXPECT_EQ(queued(), 0u);
    EXPECT_TRUE(log.has("(WRN)  rui_accept(l1): CANNOT ACCEPT ALL (accepted=0), max=0\n"));
    g_quit = 1;
    EXPECT_EQ(rui_accept(srv, 64, 0, nullptr), 0);
    EXPECT_EQ(queued(), 0u);
    g_quit = 0;
    int word = 77;
    EXPECT_EQ(rui_accept(srv, 2, 0, &word), 0);
    EXPECT_EQ(queued(), 2u);
    EXPECT_EQ(g_family.data, 77);
    EXPECT_TRUE(log.has("CANNOT ACCEPT ALL (accepted=2), max=2\n"));
    log.take();
    // A connection that nobody wants does not keep the next from being taken.
    g_family.is_refusing = true;
    connect_client();
    EXPECT_EQ(rui_accept(srv, 1, 0, nullptr), 0); // but counts as a try
    EXPECT_EQ(recv(clients[3], nullptr, 0, MSG_DONTWAIT), -1);
    EXPECT_EQ(rui_accept(srv, 2, 0, nullptr), 0);
    EXPECT_EQ(queued(), 2u);
    EXPECT_TRUE(log.has("(ERR)  Error rc=-1 processing connection [l1] fd="));
    char c;
    EXPECT_EQ(read(clients[2], &c, 1), 0); // closed
    EXPECT_EQ(read(clients[3], &c, 1), 0);
    EXPECT_TRUE(log.has("rui_accept(l1): end of accept queue reached\n"));
    EXPECT_EQ(log.take().find("CANNOT"), std::string::npos);

    int mark = 0;
    socklen_t len = sizeof(mark);
    EXPECT_TRUE(is_non_blocking(newest()->fd));
    ASSERT_EQ(getsockopt(newest()->fd, SOL_SOCKET, SO_RCVLOWAT, &mark, &len), 0);
    EXPECT_EQ(mark, 1); // not on local connections
    rui_stop_listener(srv);
    EXPECT_EQ(rui_accept(srv, 2, 0, nullptr), -1);
}

TEST_F(Rui, TcpConnectionsAreTuned) {
    cfg.custom[0].is_valid = cfg.custom[1].is_valid = true;
    strcpy(cfg.custom[0].port, "0"); // any number, on any address
    cfg.custom[0].proto = 6;
    cfg.custom[1].proto = 17;
    cfg.custom[1].ifc = static_cast<ifc_info *>(calloc(1, sizeof(ifc_info)));
    ASSERT_EQ(get_ifc_info("lo", AF_INET, cfg.custom[1].ifc), 0);
    ASSERT_EQ(rui_setup_listeners(RUI_CUSTOM, cfg.custom, ctx.custom), 0);
    ASSERT_EQ(rui_enable_listeners(ctx.custom), 0) << log.take();
    EXPECT_TRUE(log.has(" for TRQ requests on all:0; 0 requests pending\n"));
    EXPECT_TRUE(log.has(" for TRQ requests on 127.0.0.1:"));
    sockaddr_storage addr;
    socklen_t len = sizeof(addr);
    srv = &ctx.custom[0];
    ASSERT_EQ(getsockname(srv->sockfd, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    for (int flags : {0, RUI_TCP_NODELAY}) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        clients.push_back(fd);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), len), 0);
        ASSERT_EQ(rui_accept(srv, 1, flags, nullptr), 0);
        int mark = 0, nodelay = 0;
        socklen_t size = sizeof(int);
        ASSERT_EQ(getsockopt(newest()->fd, SOL_SOCKET, SO_RCVLOWAT, &mark, &size), 0);
        ASSERT_EQ(getsockopt(newest()->fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size), 0);
        EXPECT_EQ(mark, 32);
        EXPECT_EQ(nodelay != 0, flags != 0);
    }
}

TEST_F(Rui, QueueLimitAndBackPressure) {
    queue(74);
    log.take();
    EXPECT_TRUE(rui_should_listen(srv, 100));
    EXPECT_TRUE(log.has("rui_should_listen: TRQ (74 requsts queued)\n")); // it is stopped
    EXPECT_FALSE(rui_should_listen(srv, 74));
    queue(1, 1024);
    EXPECT_GT(newest()->fd, 1023);
    EXPECT_FALSE(rui_should_listen(srv, 100));
    EXPECT_TRUE(rui_should_listen(srv, 101) == false && rui_should_listen(srv, 102));
    EXPECT_TRUE(rui_can_listen(srv, 76) && !rui_can_listen(srv, 75));
    EXPECT_FALSE(rui_should_listen(srv, 0));

    queue(RUI_MAX_REQUESTS - 76, 1024);
    ASSERT_EQ(rui_start_listener(&cfg.user[0], srv), 0);
    connect_client();
    connect_client();
    EXPECT_EQ(rui_accept(srv, 1, 0, nullptr), 0);
    EXPECT_EQ(queued(), 1000u);
    log.take();
    EXPECT_EQ(rui_accept(srv, 64, 0, nullptr), 0);
    EXPECT_EQ(queued(), 1000u);
    EXPECT_TRUE(log.has("(ERR)  rui_add_request: Too many user requests (1000) queued\n"));
    EXPECT_TRUE(log.has("(ERR)  Error rc=16 processing connection [l1] fd="));
    char c;
    EXPECT_EQ(read(clients[1], &c, 1), 0);
    rui_rm_request(newest());
    connect_client();
    EXPECT_EQ(rui_accept(srv, 64, 0, nullptr), 0);
    EXPECT_EQ(queued(), 1000u);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1001u);
}

TEST_F(Rui, RequestsAreRemovedNowOrAtTheEndOfThePass) {
    queue(5);
    std::vector<rui_rq_header *> rq;
    for (dlep_elem *le = dlep_tail(srv->requests); le; le = le->next)
        rq.push_back(dlep_as<rui_rq_header>(le));
    defer(rq[3]);
    defer(rq[1]);
    defer(rq[2]);
    int fd = rq[1]->fd;
    EXPECT_EQ(queued(), 5u);
    rui_rm_request(rq[1]); // leaves the list of the deferred, too
    EXPECT_TRUE(log.has(": removed ("));
    EXPECT_EQ(srv->pprm.len, 2u);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(g_family.removed, std::vector<int>({2}));
    rui_rm_request(rq[0]);
    rui_pprm_all(&ctx);
    EXPECT_EQ(g_family.removed, std::vector<int>({2, 1, 4, 3}));
    EXPECT_EQ(queued(), 1u);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
    EXPECT_TRUE(log.has("pprm_srv: done for for [user]\n"));
    log.take();
    rui_pprm_all(&ctx);
    EXPECT_EQ(g_family.removed.size(), 4u);
    EXPECT_TRUE(log.has("pprm_srv: [user] listener[l2], 0 pprm items\n"));

    // A number that is free again is no longer marked, one that was closed behind the queue's back is.
    log.take();
    queue(1);
    EXPECT_EQ(log.take().find("already marked"), std::string::npos);
    close(newest()->fd);
    newest()->fd = -1;
    queue(1);
    EXPECT_TRUE(log.has("is already marked queued\n"));

    // A descriptor that cannot be watched stays the caller's.
    write_file(dir / "plain", "");
    fd = open((dir / "plain").c_str(), O_RDONLY);
    size_t before = queued();
    EXPECT_NE(rui_add_request(fd, srv, nullptr), 0);
    EXPECT_EQ(queued(), before);
    EXPECT_EQ(close(fd), 0);
    // What is still queued or deferred goes with the context.
    defer(newest());
}

TEST_F(Rui, TimeOutsAskTheOldestFirst) {
    queue(4);
    g_family.time_out = [](request *rq) {
        if (rq->number % 2)
            return false;
        defer(&rq->head);
        return true;
    };
    rui_tmout_all(&ctx, 500);
    EXPECT_EQ(g_family.asked, std::vector<int>({1, 2, 3, 4}));
    EXPECT_TRUE(log.has("(WRN)  tmout_srv: 2 [user] requests timed out\n"));
    EXPECT_TRUE(log.has("tmout_srv: no time-outs for [admin]\n"));
    EXPECT_EQ(queued(), 4u);
    rui_pprm_all(&ctx);
    EXPECT_EQ(g_family.removed, std::vector<int>({2, 4}));
    rui_set_cb(RUI_USER, {{"TRQ"}, new_rq, rm_rq, nullptr});
    EXPECT_DEATH(rui_tmout_all(&ctx, 500), "cb->time_out");
}

TEST_F(Rui, TrackNumbers) {
    struct {
        size_t count, max;
        const char *text;
    } cases[] = {
        {0, MAX_RQNUM, "u0001"},         {9998, MAX_RQNUM, "u9999"},          {9999, MAX_RQNUM, "u10000"},
        {99998, MAX_RQNUM, "u99999"},    {99999, MAX_RQNUM, "u10000"}, // 100000, cut
        {MAX_RQNUM, MAX_RQNUM, "u0001"}, {MAX_RQNUM + 5, MAX_RQNUM, "u0001"}, {3, 3, "u0001"}};
    for (auto &c : cases) {
        size_t count = c.count;
        n64_tag tag;
        memset(&tag, 0xff, sizeof(tag));
        rui_mk_trknum(&count, &tag, 'u', c.max);
        EXPECT_STREQ(tag.sym8, c.text);
        EXPECT_EQ(tag.sym8[7], 0);
        EXPECT_EQ(count, c.count >= c.max ? 1 : c.count + 1);
    }
    EXPECT_TRUE(log.has("rui_mk_trknum: rolling over u-requests\n"));
    size_t count = 1000000;
    n64_tag tag;
    EXPECT_DEATH(rui_mk_trknum(&count, &tag, 'u', SIZE_MAX), "n >= 1 && n <= 6");
}

TEST_F(Rui, ConnectionsAreShedWhenDescriptorsRunOut) {
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    for (int i = 0; i < 3; ++i)
        connect_client();
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    for (rlim_t spare : {0, 1}) {
        log.take();
        rlimit low = {static_cast<rlim_t>(next_fd()) + spare, old.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        int rc = rui_accept(srv, 64, 0, nullptr);
        setrlimit(RLIMIT_NOFILE, &old);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(queued(), spare);
        EXPECT_TRUE(log.has("(WRN)  shed_connection: [l1] out of descriptors, connection shed\n"));
        char c;
        for (size_t i = clients.size() - 3 + spare; i < clients.size(); ++i)
            EXPECT_EQ(recv(clients[i], &c, 1, MSG_DONTWAIT), 0) << "connection left waiting";
        connect_client();
        connect_client();
        connect_client();
    }
    EXPECT_EQ(rui_accept(srv, 64, 0, nullptr), 0);
    EXPECT_EQ(queued(), 4u);
}

TEST_F(Rui, AnErrorOnAListenerEndsTheProcess) {
    ASSERT_EQ(rui_ctx_start(&ctx), 0);
    auto crash = [this](bool is_hup) {
        log_default(&g_log, stderr);
        rui_crash_on_error(srv, is_hup);
    };
    EXPECT_EXIT(crash(true), testing::KilledBySignal(SIGABRT),
                "rui_crash_on_error: HUP listener\\[l1\\] ERROR\\(0\\): .*\n.*Aborting at:\n#0: ");
    srv->lc = nullptr;
    EXPECT_EXIT(crash(false), testing::KilledBySignal(SIGABRT),
                "rui_crash_on_error:  listener\\[\\?\\] ERROR");
    srv->lc = &cfg.user[0];
}

} // namespace
