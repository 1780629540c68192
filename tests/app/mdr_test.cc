#include "app/mdr.h"

#include "tests/app/app_fixture.h"

#include <arpa/inet.h>

namespace {

class Mdr : public App {
  protected:
    void SetUp() override {
        App::SetUp();
        listener = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), len), 0);
        ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len), 0);
        wanted.is_enabled = true;
        snprintf(wanted.url, sizeof(wanted.url), "udp://127.0.0.1:%d", ntohs(addr.sin_port));
        strcpy(wanted.lid_pfx, "pfx");
        strcpy(wanted.src_base, "base");
        wanted.lid_min = 1;
        wanted.lid_max = 3;
    }
    void TearDown() override {
        close(listener);
        App::TearDown();
    }
    std::string receive() {
        char buf[2000];
        const ssize_t n = recv(listener, buf, sizeof(buf), 0);
        return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
    }
    int listener = -1;
    mdrep_cfg wanted{};
};

TEST_F(Mdr, IdsCycleAndDatagramsAreWhole) {
    mdr_t mdr = mdr_open(&wanted);
    ASSERT_TRUE(mdr);
    for (const char *id : {"2", "3", "1", "2", "3", "1"}) {
        EXPECT_EQ(mdr_send(mdr, "a/b.ts", 1700000000), 0);
        EXPECT_EQ(receive(), std::string("#!pfx-") + id + " /src/base/a/b.ts/dst/ 1700000000 #EOM");
    }
    // The longest datagram has 1399 bytes; a longer one is not sent.
    const size_t others = strlen("#!pfx-2 /src/base//dst/ 1 #EOM");
    EXPECT_EQ(mdr_send(mdr, std::string(1399 - others, 'p').c_str(), 1), 0);
    EXPECT_EQ(receive().size(), 1399u);
    EXPECT_EQ(mdr_send(mdr, std::string(1400 - others, 'p').c_str(), 1), -1);
    expect_logged("mdr_send: n=1400 is out of bounds\n");
    EXPECT_EQ(receive(), "");
    // Reloaded: ids of the new range, the address as it was.
    mdrep_cfg next = wanted;
    strcpy(next.url, "udp://127.0.0.1:9");
    strcpy(next.lid_pfx, "new");
    next.lid_min = 10;
    next.lid_max = 11;
    mdr_reconfigure(mdr, &next);
    for (const char *id : {"11", "10", "11"}) {
        EXPECT_EQ(mdr_send(mdr, "c.ts", 1), 0);
        EXPECT_EQ(receive(), std::string("#!new-") + id + " /src/base/c.ts/dst/ 1 #EOM");
    }
    mdr_close(mdr);
    mdr_close(nullptr);
}

TEST_F(Mdr, UrlsThatAreRefused) {
    const struct {
        const char *url;
        bool is_datagram;
    } cases[] = {{"tcp://127.0.0.1:1", false}, {"http://127.0.0.1/", false},
                 {"/a/file", false},           {"udp://", true},
                 {"udp://127.0.0.1", true},    {"", false}};
    for (const auto &one : cases) {
        strcpy(wanted.url, one.url);
        take_log();
        EXPECT_EQ(mdr_open(&wanted), nullptr) << one.url;
        const std::string text = take_log();
        EXPECT_EQ(text.find("non-UDP URLs not supported [") == std::string::npos, one.is_datagram) << one.url;
    }
    // A context that cannot report does not start, and leaves nothing behind.
    g_cfg.mdr = wanted;
    destroy_plum_ctx();
    EXPECT_EQ(init_plum_ctx(urq_callbacks()), -1);
    EXPECT_FALSE(g_ctx.is_ready || g_ctx.src_ht || g_ctx.sources.data);
}

TEST_F(Mdr, EverySegmentThatIsAcceptedIsReported) {
    g_cfg.mdr = wanted;
    restart();
    pl_source *src = source("chan", "max_sec=100");
    feed(
        src, producer,
        "SEGMENT: a.ts 1000 10 1 1 1\nSEGMENT: b.ts 1010 nan 1 1 1\nnonsense\nSEGMENT: c.ts 1010 10 1 1 2\n");
    EXPECT_EQ(receive(), "#!pfx-2 /src/base/a.ts/dst/ 1100 #EOM");
    EXPECT_EQ(receive(), "#!pfx-3 /src/base/c.ts/dst/ 1110 #EOM");
    EXPECT_EQ(receive(), "");
    g_cfg.mdr.is_enabled = false; // by a reload
    feed(src, producer, "SEGMENT: d.ts 1000 10 1 1 3\n");
    EXPECT_EQ(receive(), "");
    // A report that nobody takes does not keep the segment from the list.
    g_cfg.mdr.is_enabled = true;
    close(listener);
    listener = -1;
    feed(src, producer, "SEGMENT: e.ts 1000 10 1 1 4\n");
    feed(src, producer, "SEGMENT: f.ts 1000 10 1 1 5\n");
    EXPECT_EQ(list_of(src), "a.ts c.ts d.ts e.ts f.ts ");
}

} // namespace
