// The viewers' connections: how many there are, and the end of those that do not finish a request. The HTTP
// library closes a connection that is silent; one that sends a byte now and then, or that the peer has given
// up without the library's notice, is closed here.
#pragma once

#include <microhttpd.h>

void conns_init(long idle_sec);
// For the library's notices of connections.
void conns_notify(void *cls, MHD_Connection *conn, void **context, MHD_ConnectionNotificationCode code);
// A request is complete, its body included; its answer has been sent.
void conns_begin(MHD_Connection *conn);
void conns_end(MHD_Connection *conn);
// Closes those whose time is up.
void conns_tick();
