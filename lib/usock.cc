#include "lib/usock.h"

#include "lib/log.h"
#include "lib/netops.h"
#include "lib/syswrap.h"

#include <string>
#include <string_view>
#include <strings.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr std::string_view SCHEME_END = "://";

// "host:port" or "[host]:port"; false when either is missing.
static bool split_host(std::string_view text, std::string *host, std::string *port) {
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    *port = text.substr(colon + 1);
    text = text.substr(0, colon);
    if (text.size() > 2 && text.front() == '[' && text.back() == ']')
        text = text.substr(1, text.size() - 2);
    *host = text;
    return !host->empty() && is_decimal(port->c_str());
}

int usock_open(const char *url, const char *ifc, usock_ctx *uc) {
    *uc = {};
    std::string_view text = url;
    size_t at = text.find(SCHEME_END);
    bool is_udp = at == 3 && strncasecmp(url, "udp", 3) == 0;
    uc->socktype = is_udp ? SOCK_DGRAM : SOCK_STREAM;
    if (!is_udp)
        return -1;
    std::string_view rest = text.substr(at + SCHEME_END.size());
    rest = rest.substr(0, rest.find('/'));
    std::string host;
    std::string port;
    if (!split_host(rest, &host, &port)) {
        LOG_FN(LL_ERROR, "no host and port in [%s]\n", url);
        return -1;
    }
    sock_spec spec;
    spec.role = SOCK_CLIENT;
    spec.socktype = SOCK_DGRAM;
    spec.host = host.c_str();
    spec.port = port.c_str();
    spec.ifc = ifc;
    uc->fd = open_socket(spec, &uc->addr, &uc->addrlen);
    return uc->fd >= 0 ? 0 : -1;
}

void usock_close(usock_ctx *uc) {
    if (uc->fd >= 0)
        W_close(__func__, uc->fd);
    uc->fd = -1;
}
