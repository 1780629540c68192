// How many records the log has written, by level from LL_PANIC on; those of other levels are not counted.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t LOG_COUNTED = 7;
inline constinit uint64_t g_log_written[LOG_COUNTED]{};
