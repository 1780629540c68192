#include "lib/usock.h"

#include "lib/netops.h"
#include "tests/capture.h"

#include <arpa/inet.h>

TEST(Usock, DatagramsReachTheUrl) {
    LogCapture log;
    for (const char *host : {"127.0.0.1", "::1"}) {
        sockaddr_storage at{};
        socklen_t len = sizeof(at);
        bool is_v6 = strchr(host, ':');
        at.ss_family = is_v6 ? AF_INET6 : AF_INET;
        void *place = is_v6 ? static_cast<void *>(&reinterpret_cast<sockaddr_in6 *>(&at)->sin6_addr)
                            : &reinterpret_cast<sockaddr_in *>(&at)->sin_addr;
        ASSERT_EQ(inet_pton(at.ss_family, host, place), 1);
        int reader = open_udp_listener(reinterpret_cast<sockaddr *>(&at), nullptr);
        if (reader < 0 && is_v6)
            continue; // a system without that family
        len = sizeof(at);
        ASSERT_EQ(getsockname(reader, reinterpret_cast<sockaddr *>(&at), &len), 0);
        char url[SADDR_STR_SIZE + 16], shown[SADDR_STR_SIZE], buf[16];
        ASSERT_TRUE(saddr_str(reinterpret_cast<sockaddr *>(&at), len, shown, sizeof(shown)));
        for (bool is_plain : {true, false}) {
            snprintf(url, sizeof(url), is_plain ? "udp://%s" : "UDP://%s/path?x=1", shown);
            usock_ctx uc;
            ASSERT_EQ(usock_open(url, nullptr, &uc), 0) << url;
            EXPECT_EQ(uc.socktype, SOCK_DGRAM);
            EXPECT_TRUE(is_non_blocking(uc.fd));
            EXPECT_EQ(sendto(uc.fd, "ping", 4, 0, reinterpret_cast<sockaddr *>(&uc.addr), uc.addrlen), 4)
                << url;
            EXPECT_EQ(recv(reader, buf, sizeof(buf), 0), 4) << url;
            usock_close(&uc);
            usock_close(&uc);
            EXPECT_EQ(uc.fd, -1);
        }
        close(reader);
    }
}

TEST(Usock, GroupsAndRefusedUrls) {
    LogCapture log;
    int fd = next_fd();
    usock_ctx uc;
    ASSERT_EQ(usock_open("udp://239.7.7.7:5000", "lo", &uc), 0);
    in_addr ifc{};
    socklen_t len = sizeof(ifc);
    ASSERT_EQ(getsockopt(uc.fd, IPPROTO_IP, IP_MULTICAST_IF, &ifc, &len), 0);
    EXPECT_EQ(ntohl(ifc.s_addr), INADDR_LOOPBACK);
    usock_close(&uc);
    log.take();
    struct {
        const char *url, *ifc;
        int socktype;
    } cases[] = {{"http://127.0.0.1:80", nullptr, SOCK_STREAM},
                 {"127.0.0.1:80", nullptr, SOCK_STREAM},
                 {"xudp://127.0.0.1:80", nullptr, SOCK_STREAM},
                 {"", nullptr, SOCK_STREAM},
                 {"udp://", nullptr, SOCK_DGRAM},
                 {"udp://127.0.0.1", nullptr, SOCK_DGRAM},
                 {"udp://127.0.0.1:", nullptr, SOCK_DGRAM},
                 {"udp://127.0.0.1:ntp", nullptr, SOCK_DGRAM},
                 {"udp://:5000", nullptr, SOCK_DGRAM},
                 {"udp://127.0.0.1/:5000", nullptr, SOCK_DGRAM},
                 {"udp://239.7.7.7:5000", "none77", SOCK_DGRAM}};
    for (auto &c : cases) {
        uc = {};
        EXPECT_EQ(usock_open(c.url, c.ifc, &uc), -1) << c.url;
        EXPECT_EQ(uc.fd, -1) << c.url;
        EXPECT_EQ(uc.socktype, c.socktype) << c.url;
        EXPECT_EQ(!log.take().empty(), c.socktype == SOCK_DGRAM) << c.url;
    }
    EXPECT_EQ(next_fd(), fd);
}
