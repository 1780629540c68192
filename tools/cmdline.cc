#include "tools/cmdline.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static bool is_short(const cmd_option &option) {
    return isalnum(static_cast<unsigned char>(option.letter)) != 0;
}

static std::string both_forms(const cmd_option &option) {
    std::string forms = is_short(option) ? std::string("-") + option.letter + ", --" : "    --";
    forms += option.name;
    return option.arg ? forms + " " + option.arg : forms;
}

void cmd_print_guide(const cmd_guide &guide) {
    size_t width = 0;
    for (const cmd_option &option : guide.options)
        width = std::max(width, both_forms(option).size());
    printf("Usage: %s %s\n%s\n\n", guide.program, guide.usage, guide.summary);
    for (const cmd_option &option : guide.options)
        printf("  %-*s  %s\n", static_cast<int>(width), both_forms(option).c_str(), option.text);
}

int cmd_next(const cmd_guide &guide, int argc, char **argv) {
    std::string letters = guide.is_strict ? "+" : "";
    std::vector<option> names;
    for (const cmd_option &one : guide.options) {
        names.push_back({one.name, one.arg ? required_argument : no_argument, nullptr, one.letter});
        if (is_short(one))
            letters.append(1, one.letter).append(one.arg ? ":" : "");
    }
    names.push_back({});
    return getopt_long(argc, argv, letters.c_str(), names.data(), nullptr);
}

bool cmd_number(const cmd_guide &guide, char letter, const char *text, long min, long max, long *value) {
    char *end = nullptr;
    errno = 0;
    long number = strtol(text, &end, 10);
    if (errno == 0 && end != text && *end == '\0' && number >= min && number <= max) {
        *value = number;
        return true;
    }
    const char *name = "?";
    for (const cmd_option &option : guide.options)
        if (option.letter == letter)
            name = option.name;
    fprintf(stderr, "%s: --%s wants a whole number from %ld to %ld, not [%s]\n", guide.program, name, min,
            max, text);
    return false;
}
