#include "lib/usock.h"

#include "lib/netops.h"
#include "tests/capture.h"

#include <arpa/inet.h>

TEST(Usock, DatagramsReachTheUrl) {
    LogCapture log;
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int reader = open_udp_listener(reinterpret_cast<sockaddr *>(&at), nullptr);
    socklen_t len = sizeof(at);
    ASSERT_EQ(getsockname(reader, reinterpret_cast<sockaddr *>(&at), &len), 0);
    const std::string port = std::to_string(ntohs(at.sin_port));
    for (const std::string &url : {"udp://127.0.0.1:" + port, "UDP://127.0.0.1:" + port + "/path?x=1"}) {
        usock_ctx uc;
        char buf[16];
        ASSERT_EQ(usock_open(url.c_str(), nullptr, &uc), 0) << url;
        EXPECT_TRUE(is_non_blocking(uc.fd));
        EXPECT_EQ(sendto(uc.fd, "ping", 4, 0, reinterpret_cast<sockaddr *>(&uc.addr), uc.addrlen), 4) << url;
        EXPECT_EQ(recv(reader, buf, sizeof(buf), 0), 4) << url;
        usock_close(&uc);
        usock_close(&uc);
        EXPECT_EQ(uc.fd, -1);
    }
    close(reader);
}

TEST(Usock, GroupsAndRefusedUrls) {
    LogCapture log;
    int fd = next_fd();
    usock_ctx uc;
    ASSERT_EQ(usock_open("udp://239.7.7.7:5000", "lo", &uc), 0);
    usock_close(&uc);
    for (const char *url : {"http://127.0.0.1:80", "127.0.0.1:80", "", "udp://", "udp://127.0.0.1",
                            "udp://127.0.0.1:ntp", "udp://:5000", "udp://127.0.0.1/:5000"}) {
        uc = {};
        EXPECT_EQ(usock_open(url, nullptr, &uc), -1) << url;
        EXPECT_EQ(uc.fd, -1) << url;
    }
    EXPECT_EQ(usock_open("udp://239.7.7.7:5000", "none77", &uc), -1);
    EXPECT_EQ(next_fd(), fd);
}
