#include "lib/netops.h"

#include "lib/syswrap.h"
#include "tests/capture.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/un.h>

namespace fs = std::filesystem;

class Netops : public ::testing::Test {
  protected:
    void SetUp() override { first_free = next_fd(); }
    void TearDown() override { EXPECT_EQ(next_fd(), first_free) << "a descriptor leaked"; }

    LogCapture log;
    TempDir dir;
    int first_free = -1;
};

static sockaddr *sa(sockaddr_storage &addr) {
    return reinterpret_cast<sockaddr *>(&addr);
}

static sockaddr_storage numeric(const char *host, const char *port) {
    sockaddr_storage out{};
    addrinfo hints{}, *list = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_EQ(getaddrinfo(host, port, &hints, &list), 0) << host;
    memcpy(&out, list->ai_addr, list->ai_addrlen);
    freeaddrinfo(list);
    return out;
}

TEST_F(Netops, DomainListenerReplacesWhatStandsAtItsPath) {
    std::string at = dir / std::string(103 - dir.path.size() - 1, 's');
    mode_t mask = umask(0);
    for (const char *before : {"nothing", "stale socket", "regular file"}) {
        SCOPED_TRACE(before);
        if (before[0] == 'r') {
            fs::remove(at);
            write_file(at, "text");
        }
        fd_guard server(open_domain_listener(at.c_str()));
        EXPECT_TRUE(is_non_blocking(server.fd));
        EXPECT_EQ(fs::status(at).permissions(), fs::perms{0777});
        fd_guard client(open_domain_client(at.c_str(), 1, 0));
        fd_guard peer(accept(server.fd, nullptr, nullptr));
        EXPECT_TRUE(client.fd >= 0 && peer.fd >= 0);
    }
    umask(mask);
    EXPECT_EQ(open_domain_listener((dir / "missing/sock").c_str()), -1);
    EXPECT_EQ(open_domain_listener(dir.path.c_str()), -1);
    // Cut to 107 characters, the name would be another file's: that file stays.
    std::string other = dir / std::string(107 - dir.path.size() - 1, 'x');
    write_file(other, "text");
    EXPECT_EQ(open_domain_listener((other + "y").c_str()), -1);
    EXPECT_TRUE(fs::is_regular_file(other));
    EXPECT_EQ(open_domain_client((other + "y").c_str(), 1, 0), -1);
    EXPECT_TRUE(log.has("(108 bytes)"));
}

TEST_F(Netops, AddressTexts) {
    std::string too_long = "localhost" + std::string(116, '.') + ":80";
    const std::pair<const char *, int> refused[] = {
        {"12345:80", EINVAL},    {"a.b:80", EINVAL},    {"::1:80", EINVAL},
        {"localhost:http", -1},  {"localhost:", -1},    {"localhost", -1},
        {"localhost:65536", -1}, {"localhost:-80", -1}, {too_long.c_str(), -1}};
    sockaddr_storage addr{};
    socklen_t len = 7;
    for (const auto &[text, rc] : refused)
        EXPECT_EQ(mk_sockaddr(text, SOCK_STREAM, 0, &addr, &len), rc) << text;
    EXPECT_EQ(len, 7u) << "untouched";
    char buf[SADDR_STR_SIZE];
    ASSERT_EQ(mk_sockaddr("1.2.3.4:65535", SOCK_STREAM, 0, &addr, &len), 0) << "the shortest host";
    EXPECT_STREQ(saddr_str(sa(addr), len, buf, sizeof(buf)), "1.2.3.4:65535");
    EXPECT_STREQ(saddr_str(sa(addr), len, buf, 8), "1.2.3.4");
    sockaddr_storage v6 = numeric("2001:db8::1", "9");
    EXPECT_STREQ(saddr_str(sa(v6), sizeof(sockaddr_in6), buf, sizeof(buf)), "[2001:db8::1]:9");
    sockaddr_un un{AF_UNIX, "/run/x"};
    auto *unix_addr = reinterpret_cast<sockaddr *>(&un);
    EXPECT_STREQ(saddr_str(unix_addr, sizeof(sa_family_t), buf, sizeof(buf)), "DOMAIN :") << "unnamed peer";
    memset(un.sun_path, 'p', sizeof(un.sun_path)); // not terminated
    EXPECT_EQ(saddr_str(unix_addr, sizeof(un), buf, sizeof(buf)), "DOMAIN " + std::string(108, 'p') + ":");
}
