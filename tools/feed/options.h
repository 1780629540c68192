// The command line of the feeder, the file of arguments that it may name, and the daemon's configuration,
// from which the socket and the data directory are taken. What is given later holds: configuration, file,
// command line.
#pragma once

#include <string>
#include <vector>

inline constexpr long FEED_MIN_DEPTH = 100; // seconds; the least that the daemon takes

enum feed_mode { FEED_ENCODER, FEED_TEST, FEED_LIST };

struct feed_options {
    std::string channel;
    std::vector<std::string> encoder_args;
    feed_mode mode = FEED_ENCODER;
    std::string socket = "/tmp/lumo-source.sock";
    std::string data_dir = "/tmp"; // absolute, without links
    std::string url_prefix;        // put before the segments' paths in playlists; empty = the daemon's
    std::string name;              // segments are called NAME-000001.ts
    std::string program = "ffmpeg";
    long depth_sec = 3600;
    long segment_sec = 6;
    long ago_sec = 0;
    bool is_backup = false;
    bool is_once = false;
    bool retain_pts = false;
    bool is_verbose = false;
    bool is_quiet = false;
};

enum options_result { OPTIONS_RUN, OPTIONS_DONE, OPTIONS_WRONG, OPTIONS_FAILED };

// DONE: the guide or the version was printed. WRONG and FAILED: the reason was told on standard error.
options_result options_read(int argc, char **argv, feed_options *opts);

// The line that names the channel, or its stand-in, to the daemon.
std::string options_init_line(const feed_options &opts, bool is_stand_in);
