// Assertions that are never compiled out: a state that must never occur ends the process loudly.
// Input that can occur is checked before it could reach one of them.
#pragma once

// Called before the process aborts, so that the report reaches the log too; none until the log core
// installs its own (`glog_init`).
using check_reporter = void (*)();
inline check_reporter g_check_reporter = nullptr;

// Reports through `g_check_reporter`, once (a check that fails while the report is written goes without),
// then stops the process with the platform's assertion failure that names the expression, the source unit,
// the line and the function.
[[noreturn]] void check_failed(const char *expr, const char *file, unsigned line, const char *func);

#define CHECK(expr)                                                                                          \
    (static_cast<bool>(expr) ? static_cast<void>(0) : check_failed(#expr, __FILE__, __LINE__, __func__))
