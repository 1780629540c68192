// The settings of lumo-web: the command line over the daemon's configuration over the built-in values.
#pragma once

#include <string>

struct web_options {
    std::string address = "127.0.0.1"; // where viewers connect
    std::string port = "8080";
    std::string pl_socket = "/tmp/lumo-playlist.sock"; // the daemon's
    std::string data_dir = "/tmp";                     // segments and playlists lie below it
    std::string status_path;                           // the daemon's status file; empty = none
    std::string www_dir;                               // the page; empty = none is served
    std::string accel;         // what stands before a path in X-Accel-Redirect; empty = files are sent here
    std::string client_header; // names the viewer's address; empty = the connection's
    long event_grid = 10;      // seconds that event times are rounded to
    long max_sessions = 8;     // events of one viewer's address
    long session_tmout = 30;   // seconds of silence after which an event is forgotten
    long answer_ms = 2000;     // the daemon's time for an answer
    long grace = 10;           // seconds that a playlist outlives the daemon
    long idle_tmout = 60;      // seconds without a whole request after which a connection is closed
    long max_connections = 10000;
};

enum : int { OPTIONS_GO = -1 };

// Reads the command line and the configuration file that it names. OPTIONS_GO, or the status to end with
// (the guide was asked for, or a fault has been told on standard error).
int options_read(int argc, char **argv, web_options *opts);
