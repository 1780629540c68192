// Opens a channel from a URL. Datagram channels, "udp://host:port" with a unicast or multicast host, are
// what it knows; any other scheme is refused.
#pragma once

#include <sys/socket.h>

struct usock_ctx {
    int fd = -1;
    int socktype = 0; // what the scheme stands for, also when opening failed
    sockaddr_storage addr{};
    socklen_t addrlen = 0;
};

// Opens `url` for sending; `ifc` names the interface for multicast, null = the system's choice. 0 or -1
// (logged where it fails).
int usock_open(const char *url, const char *ifc, usock_ctx *uc);
void usock_close(usock_ctx *uc);
