#include "app/rq.h"

#include "tests/app/app_fixture.h"

namespace {

class Rq : public App {
  protected:
    // A connection that a listener has accepted; the client's end stays in `client`.
    pl_urq *accept() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
        EXPECT_EQ(rui_add_request(pair[0], listener(), nullptr), 0);
        client = pair[1];
        return dlep_as<pl_urq>(dlep_head(listener()->requests));
    }
    static rui_socket_ctx *listener() { return &g_ctx.rui.user[PL_LISTENER - 1]; }
    void send(pl_urq *urq, const std::string &text) {
        ASSERT_EQ(write(client, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        EXPECT_EQ(urq_read(urq), 0);
    }
    std::string receive() {
        char buf[1024];
        const ssize_t n = read(client, buf, sizeof(buf));
        return {buf, n > 0 ? static_cast<size_t>(n) : 0};
    }
    // The end of the pass, and of the client.
    void finish(pl_urq *urq) {
        if (urq->pprm_idx < 0)
            pprm_urq(urq);
        rui_pprm_all(&g_ctx.rui);
        close(client);
    }
    int client = -1;
};

TEST_F(Rq, PlaylistLines) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10));
    const std::string t31 = "T" + std::string(30, 't');
    const std::string none = " ERROR HTTP:404 - source not found\n";
    const struct {
        std::string line;
        std::string answer; // its beginning
        uint32_t state;
    } cases[] = {
        {"T1 LIV chan\n", "T1 text/M3U " + dir + "/chan-LIV", URQ_NEW},
        {"T1 liv chan  \r\n", "T1 text/M3U " + dir + "/chan-LIV", URQ_NEW},
        {"T1\tVod\tchan\n", "T1 gzip/M3U " + dir + "/chan-VOD", URQ_NEW},
        {"T1 EVE chan 1040 x\n", "T1 text/M3U " + dir + "/chan-EVE", URQ_NEW},
        {"T1 XYZ chan\n", "", URQ_NEW},
        {"T1 VOD chan 100\n", "", URQ_QUI},
        {"T1 LIV\n", "", URQ_QUI},
        {"t1 LIV chan\n", "", URQ_RD},
        {"\n", "", URQ_RD},
        {" T1 LIV chan\n", "", URQ_RD},
        {t31 + "u LIV no\n", t31 + none, URQ_QUI},
    };
    for (const auto &one : cases) {
        pl_urq *urq = accept();
        send(urq, one.line);
        EXPECT_EQ(receive().substr(0, one.answer.size()), one.answer) << one.line;
        EXPECT_EQ(urq->state.num, one.state) << one.line;
        EXPECT_EQ(urq->pprm_idx >= 0, one.state != URQ_NEW) << one.line;
        EXPECT_TRUE(urq->text_len == 0 && !urq->response && !urq->peer_tag);
        finish(urq);
    }
}

TEST_F(Rq, OneConnectionManyLines) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10));
    pl_urq *urq = accept();
    // The options of one line are not those of the next.
    send(urq, "T1 EVE chan 1040 0 peer=a\n");
    const std::string bound = receive();
    send(urq, "T1 EVE chan 1040 0\n");
    EXPECT_NE(receive(), bound);
    send(urq, "T1 EVE chan 1040 0 peer=a\n");
    EXPECT_NE(receive().find(bound), std::string::npos);
    // A line in pieces; it waits for as long as it takes.
    send(urq, "T1 LI");
    EXPECT_EQ(urq->state.num, URQ_CON);
    set_clock(rqs_now().tv_sec + 100);
    EXPECT_FALSE(urq_timeout(&urq->rq, 3000));
    send(urq, "V chan");
    send(urq, "\n");
    EXPECT_EQ(receive().substr(0, 12), "T1 text/M3U ");
    set_clock(rqs_now().tv_sec + 3);
    EXPECT_FALSE(urq_timeout(&urq->rq, 3000));
    set_clock(rqs_now().tv_sec + 1);
    EXPECT_TRUE(urq_timeout(&urq->rq, 3000));
    pprm_urq(urq);
    EXPECT_EQ(listener()->pprm.len, 1u) << "listed once";
    finish(urq);
    EXPECT_EQ(dlep_count(listener()->requests), 0u);
}

} // namespace
