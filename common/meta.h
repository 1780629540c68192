// What the program says of itself: its tags, its banner and its build.
#pragma once

inline constexpr char APP_NAME[] = "lumo";
inline constexpr char APP_DESCRIPTION[] = "Playlist manager";
inline constexpr char APP_VERSION[] = "0.2";
inline constexpr int APP_BUILD_MAJOR = 0;
inline constexpr int APP_BUILD_MINOR = 7;
inline constexpr char APP_PRODUCT[] = "tarvex";
inline constexpr char APP_FAMILY[] = "Tarvex";
inline constexpr char APP_BUILD_DATE[] = "2019-10-07";

// Name, description, version, product, system and build date in at most 255 bytes; built once and kept.
// "#error#" when it cannot be built.
const char *meta_banner();
// "lumo/0.2-0.7 (tarvex)", at most 127 bytes; built once and kept. "#error#" when it cannot be built.
const char *meta_app_tag();
// One line of library and build flags.
const char *meta_build_info();
