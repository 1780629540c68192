#include "lib/usock.h"

#include "tests/capture.h"

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
