#include "tools/feed/say.h"

#include <cstdarg>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr unsigned DEFAULT_COLUMNS = 80;
static constexpr char CLEAR_LINE[] = "\r\033[K";

static struct {
    std::string channel = "lumo-feed";
    say_level level = SAY_NOTE;
    bool is_terminal = false;
    std::string state; // as it stands on the terminal
} g_say;

void say_init(const char *channel, say_level level) {
    g_say.channel = channel;
    g_say.level = level;
    g_say.is_terminal = level > SAY_ERROR && isatty(STDERR_FILENO);
}

bool say_is_wanted(say_level level) {
    return level <= g_say.level;
}

// One write for each line, so that lines of several feeders do not run into each other.
static void put(const std::string &text) {
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

void say(say_level level, const char *format, ...) {
    if (!say_is_wanted(level))
        return;
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    std::string clear = g_say.state.empty() ? "" : CLEAR_LINE;
    put(clear + g_say.channel + ": " + text + "\n" + g_say.state);
}

bool say_has_state() {
    return g_say.is_terminal;
}

void say_state(const std::string &line) {
    if (!g_say.is_terminal)
        return;
    winsize size{};
    unsigned columns =
        ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : DEFAULT_COLUMNS;
    g_say.state = (g_say.channel + ": " + line).substr(0, columns - 1);
    put(CLEAR_LINE + g_say.state);
}

void say_clear() {
    if (!g_say.state.empty())
        put(CLEAR_LINE);
    g_say.state.clear();
}
