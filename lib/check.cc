#include "lib/check.h"

#undef NDEBUG // the platform's report is declared without it only
#include <cassert>
#include <utility>

[[noreturn]] void check_failed(const char *expr, const char *file, unsigned line, const char *func) {
    if (const check_reporter report = std::exchange(g_check_reporter, nullptr))
        report();
    __assert_fail(expr, file, line, func);
}
