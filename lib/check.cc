#include "lib/check.h"

#include <cassert>

[[noreturn]] void check_failed(const char *expr, const char *file, unsigned line, const char *func) {
    if (g_check_reporter)
        g_check_reporter();
    __assert_fail(expr, file, line, func);
}
