#include "lib/netops.h"

#include "lib/syswrap.h"
#include "tests/capture.h"

#include <sys/stat.h>

namespace fs = std::filesystem;

class Netops : public ::testing::Test {
  protected:
    void SetUp() override { first_free = next_fd(); }
    void TearDown() override { EXPECT_EQ(next_fd(), first_free) << "a descriptor leaked"; }

    LogCapture log;
    TempDir dir;
    int first_free = -1;
};

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
