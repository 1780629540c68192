#include "app/rq.h"

#include "tests/app/app_fixture.h"

namespace {

class Rq : public App {
  protected:
    // A connection that a listener has accepted; the client's end stays in `client`.
    pl_urq *accept(size_t listener = PL_LISTENER) {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
        EXPECT_EQ(rui_add_request(pair[0], srv(listener), nullptr), 0);
        client = pair[1];
        return dlep_as<pl_urq>(dlep_head(srv(listener)->requests));
    }
    static rui_socket_ctx *srv(size_t listener) { return &g_ctx.rui.user[listener - 1]; }
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
    const std::string n127(127, 'n');
    const struct {
        std::string line;
        std::string answer; // its beginning
        uint32_t state;
    } cases[] = {
        {"T1 LIV chan\n", "T1 text/M3U " + dir + "/chan-LIV", URQ_NEW},
        {"T1 liv chan  \r\n", "T1 text/M3U " + dir + "/chan-LIV", URQ_NEW},
        {"T1 LIV chan 5 6 peer=x\r", "T1 text/M3U " + dir + "/chan-LIV", URQ_NEW},
        {"T1\tVod\tchan\n", "T1 gzip/M3U " + dir + "/chan-VOD", URQ_NEW},
        {"T1 EVE chan 1040 -1\n", "T1 text/M3U " + dir + "/chan-EVE", URQ_NEW},
        {"T1 EVE chan 1040 x\n", "T1 text/M3U " + dir + "/chan-EVE", URQ_NEW},
        {"T1 EVE chan 1040\n", "T1 text/M3U " + dir + "/chan-EVE", URQ_NEW},
        {"T1 XYZ chan\n", "", URQ_NEW},
        {"T1 VOD chan 100\n", "", URQ_QUI},
        {"T1 VOD chan x\n", "T1 gzip/M3U " + dir + "/chan-VOD", URQ_NEW},
        {"T1 LIV\n", "", URQ_QUI},
        {"T\n", "", URQ_QUI},
        {"t1 LIV chan\n", "", URQ_RD},
        {"\n", "", URQ_RD},
        {" T1 LIV chan\n", "", URQ_RD},
        {t31 + " LIV no\n", t31 + none, URQ_QUI},
        {t31 + "u LIV no\n", t31 + none, URQ_QUI},
        {"T1 LIV" + std::string(26, 'x') + " chan\n", "", URQ_NEW},
        {"T1 LIV " + n127 + "m\n", "T1" + none, URQ_QUI},
        {"T1 EVE chan 1 0\n", "T1 ERROR HTTP:404 - no data for the event\n", URQ_QUI},
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
    expect_logged("src[" + n127 + "] not found"); // a field is cut at its limit
}

TEST_F(Rq, PeerNames) {
    const std::string p48(48, 'p');
    const struct {
        std::string rest;
        size_t max;
        const char *peer; // null = none
    } cases[] = {{"peer=abc&x=1", 128, "abc"},
                 {"x=1&peer=abc", 128, "abc"},
                 {"peer=a b", 128, "a"},
                 {"peer=a\tb", 128, "a"},
                 {"peer=a\x01", 128, "a"},
                 {"peer=\xc3\xa9", 128, ""},
                 {"peer=", 128, ""},
                 {"peer=" + p48, 128, p48.c_str()},
                 {"peer=" + p48 + "q", 128, p48.c_str()},
                 {"peer=abcdef", 3, "abc"},
                 {"peer", 128, nullptr},
                 {"", 128, nullptr}};
    for (const auto &one : cases) {
        pl_urq urq{};
        process_rest(&urq, one.rest.c_str(), one.max);
        ASSERT_EQ(urq.peer_tag != nullptr, one.peer != nullptr) << one.rest;
        EXPECT_STREQ(urq.peer_tag, one.peer);
        free(urq.peer_tag);
    }
}

TEST_F(Rq, OneConnectionManyLines) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10));
    pl_urq *urq = accept();
    EXPECT_EQ(urq->state.num, URQ_INI);
    // The options of one line are not those of the next.
    send(urq, "T1 EVE chan 1040 0 peer=a\n");
    const std::string bound = receive();
    send(urq, "T1 EVE chan 1040 0\n");
    EXPECT_NE(receive(), bound);
    send(urq, "T1 LIV chan 1 1 peer=b\n");
    send(urq, "T1 EVE chan 1040 0 peer=a\n");
    EXPECT_NE(receive().find(bound), std::string::npos);
    // A line in pieces; it waits for as long as it takes.
    send(urq, "T1 LI");
    EXPECT_EQ(urq->state.num, URQ_CON);
    set_clock(rqs_now().tv_sec + 100);
    EXPECT_FALSE(urq_timeout(&urq->rq, 3000));
    send(urq, "V chan");
    EXPECT_EQ(receive(), "");
    send(urq, "\n");
    EXPECT_EQ(receive().substr(0, 12), "T1 text/M3U ");
    EXPECT_FALSE(urq_timeout(&urq->rq, 3000));
    set_clock(rqs_now().tv_sec + 3);
    EXPECT_FALSE(urq_timeout(&urq->rq, 3000));
    set_clock(rqs_now().tv_sec + 1);
    EXPECT_TRUE(urq_timeout(&urq->rq, 3000));
    pprm_urq(urq);
    expect_logged("is already PPRM-ed");
    EXPECT_EQ(srv(PL_LISTENER)->pprm.len, 1u);
    finish(urq);
    EXPECT_EQ(dlep_count(srv(PL_LISTENER)->requests), 0u);
}

TEST_F(Rq, EndsOfAConnection) {
    pl_urq *urq = accept(); // a line that can never be complete
    send(urq, std::string(255, 'T'));
    EXPECT_EQ(urq->state.num, URQ_CON);
    send(urq, "\n");
    EXPECT_GE(urq->pprm_idx, 0);
    finish(urq);
    urq = accept(); // the longest line
    send(urq, "T1 XYZ " + std::string(247, 'n') + "\n");
    EXPECT_EQ(urq->state.num, URQ_NEW);
    finish(urq);
    urq = accept(); // a client that has gone, before and while it is answered
    shutdown(client, SHUT_RDWR);
    EXPECT_EQ(urq_read(urq), 0);
    EXPECT_GE(urq->pprm_idx, 0);
    finish(urq);
    urq = accept();
    urq_error(urq, true);
    EXPECT_GE(urq->pprm_idx, 0);
    finish(urq);
}

TEST_F(Rq, SourceLines) {
    const std::string n127 = "~" + std::string(126, 'n');
    const struct {
        std::string line;
        std::string name; // of the source that is there afterwards
        const char *tail;
    } cases[] = {
        {"S1 init a\n", "a", nullptr},
        {"S1 INIT b max_sec=100 item_pfx=x/\r\n", "b", nullptr},
        {"S1 init c max_sec=99\n", "", nullptr},
        {"S1 init\n", "", nullptr},
        {"S1 start d\n", "", nullptr},
        {"S1 init a\n", "", nullptr}, // is connected
        {"S1 init ../e\n", "", nullptr},
        {"S1 init " + n127 + "m\n", n127, nullptr},
        {"S1 init f\nSEGMENT: x.ts 1\nSEG", "f", "SEGMENT: x.ts 1\nSEG"},
        {"S1 init g\r\n\r\n", "g", nullptr},
        {"X init h\n", "", nullptr},
    };
    for (const auto &one : cases) {
        const size_t before = g_ctx.sources.len;
        pl_urq *urq = accept(SRC_LISTENER);
        send(urq, one.line);
        EXPECT_GE(urq->pprm_idx, 0) << one.line;
        EXPECT_EQ(receive(), "");
        EXPECT_EQ(g_ctx.sources.len - before, one.name.empty() ? 0u : 1u) << one.line;
        const pl_source *src = src_by_name(one.name.c_str());
        ASSERT_EQ(src != nullptr, !one.name.empty()) << one.line;
        EXPECT_STREQ(src ? src->tail : nullptr, one.tail);
        finish(urq);
    }
    EXPECT_EQ(src_by_name("b")->param.max_plbk_sec, 100u);
    EXPECT_STREQ(src_by_name("b")->item_pfx, "x/");
}

} // namespace
