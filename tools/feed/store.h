// The channel's directory and the names of the segments that this feeder makes in it: CHANNEL/NAME-000001.ts,
// NAME being the feeder's own. Numbers go on from the highest that the directory or the manifest knows.
#pragma once

#include <string>

inline constexpr size_t STORE_PATH_MAX = 63; // of a segment's path in the data directory
inline constexpr size_t STORE_DIR_MAX = 63;  // of the data directory

struct seg_store {
    std::string data_dir; // absolute
    std::string channel;
    std::string name;
    int lock_fd = -1; // nobody else makes segments of this name
};

// Makes the channel's directory when it is missing, for the daemon to write in as well where the data
// directory hands its group on. False, told, when it cannot be used.
bool store_open_dir(const seg_store &store);

// False, told, when another feeder has the name.
bool store_take_name(seg_store *store);

std::string store_manifest(const seg_store &store);
// The path of a segment in the data directory, from the name that a segmenter tells.
std::string store_segment(const seg_store &store, const std::string &file);
std::string store_full(const seg_store &store, const std::string &segment);

// ffmpeg's template for the names, and the first number that is free.
std::string store_template(const seg_store &store);
long store_next_number(const seg_store &store);

bool store_has_number(const seg_store &store, long number);

// Deletes what the last run left unfinished: the files numbered from `first` on.
void store_drop_from(const seg_store &store, long first);
// The number in `path` when it is one of this feeder's; -1 otherwise.
long store_number_of(const seg_store &store, std::string_view path);
