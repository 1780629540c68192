#include "app/mdr.h"

#include "tests/app/app_fixture.h"

#include <arpa/inet.h>

namespace {

using Mdr = App;

TEST_F(Mdr, IdsCycleAndDatagramsAreWhole) {
    const int listener = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), len), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    auto receive = [&] {
        char buf[2000];
        const ssize_t n = recv(listener, buf, sizeof(buf), 0);
        return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
    };
    mdrep_cfg wanted{true, "", "pfx", 1, 3, "base", ""};
    snprintf(wanted.url, sizeof(wanted.url), "udp://127.0.0.1:%d", ntohs(addr.sin_port));
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
    mdr_close(mdr);
    mdr_close(nullptr);
    close(listener);
}

} // namespace
