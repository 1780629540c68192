#include "lib/config.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/strops.h"
#include "lib/util.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static config_t g_config;
static bool g_is_open = false;

// The file name of an include line, empty for any other line.
static std::string included_path(const char *line) {
    static constexpr char DIRECTIVE[] = "@include";
    while (isblank(static_cast<unsigned char>(*line)))
        ++line;
    if (strncmp(line, DIRECTIVE, sizeof(DIRECTIVE) - 1) != 0)
        return {};
    const char *open_quote = strchr(line, '"');
    const char *close_quote = open_quote ? strchr(open_quote + 1, '"') : nullptr;
    return close_quote ? std::string(open_quote + 1, close_quote) : std::string();
}

// The parser ends the process when it is made to read a directory, so that what a file includes is looked at
// before. Missing files and circles are left to the parser's own messages.
static bool can_be_included(FILE *fp, int depth) {
    static constexpr int MAX_DEPTH = 10;
    char *line = nullptr;
    size_t size = 0;
    bool is_fine = true;
    while (is_fine && depth < MAX_DEPTH && getline(&line, &size, fp) > 0) {
        std::string path = included_path(line);
        if (path.empty() || access(path.c_str(), F_OK) != 0)
            continue;
        FILE *included = fopen_regular(path.c_str());
        is_fine = included && can_be_included(included, depth + 1);
        if (included)
            fclose(included);
        else
            LOG(LL_ERROR, "%s: cannot include [%s] ERROR(%d): %s\n", "config_open", path.c_str(), errno,
                strerror(errno));
    }
    free(line);
    rewind(fp);
    return is_fine;
}

int config_open(const char *path) {
    CHECK(!g_is_open);
    config_init(&g_config);
    g_is_open = true;
    FILE *fp = fopen_regular(path);
    if (!fp) {
        LOG_FN(LL_ERROR, "[%s] ERROR(%d): %s\n", path, errno, strerror(errno));
        fprintf(stderr, "Failed to load [%s]\n", path);
        return -1;
    }
    int rc = can_be_included(fp, 0) ? 0 : -1;
    if (rc == 0 && config_read(&g_config, fp) != CONFIG_TRUE) {
        LOG(LL_ERROR, "Error reading/parsing config file [%s]: line %d: %s\n", path,
            config_error_line(&g_config), config_error_text(&g_config));
        rc = -1;
    }
    fclose(fp);
    return rc;
}

void config_close() {
    if (g_is_open)
        config_destroy(&g_config);
    g_is_open = false;
}

config_setting_t *config_find(const char *key) {
    CHECK(g_is_open);
    return config_lookup(&g_config, key);
}

bool config_has_group(const char *key) {
    const config_setting_t *setting = config_find(key);
    return setting && config_setting_is_group(setting);
}

static int wrong_type(const char *key, const config_setting_t *setting, const char *wanted) {
    LOG_FN(LL_ERROR, "%s must be %s, line %d\n", key, wanted, config_setting_source_line(setting));
    return -1;
}

int load_config_int(const char *key, int64_t *value, int64_t fallback) {
    const config_setting_t *setting = config_find(key);
    if (!setting) {
        *value = fallback;
        return 0;
    }
    int type = config_setting_type(setting);
    if (type != CONFIG_TYPE_INT && type != CONFIG_TYPE_INT64)
        return wrong_type(key, setting, "an integer");
    *value = config_setting_get_int64(setting);
    return 0;
}

int load_config_bool(const char *key, bool *value, bool fallback) {
    const config_setting_t *setting = config_find(key);
    if (!setting) {
        *value = fallback;
        return 0;
    }
    if (config_setting_type(setting) != CONFIG_TYPE_BOOL)
        return wrong_type(key, setting, "true or false");
    *value = config_setting_get_bool(setting) != 0;
    return 0;
}

static int take_string(const char *key, const config_setting_t *setting, char *buf, size_t max,
                       const char *fallback) {
    const char *text = fallback;
    if (setting) {
        if (config_setting_type(setting) != CONFIG_TYPE_STRING)
            return wrong_type(key, setting, "a string");
        text = config_setting_get_string(setting);
    }
    size_t len = strlen(text);
    if (len > max) {
        LOG(LL_ERROR, "%s: %s value is too long (%ld), max = %ld characters.\n", "load_config_str", key,
            static_cast<long>(len), static_cast<long>(max));
        return -1;
    }
    memcpy(buf, text, len + 1);
    return 0;
}

int load_config_str(const char *key, char *buf, size_t max, const char *fallback) {
    return take_string(key, config_find(key), buf, max, fallback);
}

// "GROUP.SUBGROUP.KEY" of a key inside a setting, for the messages.
static void full_key(config_setting_t *setting, const char *key, char *out, size_t size) {
    char path[256];
    snprintf(out, size, "%s", key);
    for (; setting && config_setting_name(setting); setting = config_setting_parent(setting)) {
        snprintf(path, sizeof(path), "%s.%s", config_setting_name(setting), out);
        snprintf(out, size, "%s", path);
    }
}

int load_config_setting_str(config_setting_t *setting, const char *key, char *buf, size_t max,
                            const char *fallback) {
    char name[256];
    full_key(setting, key, name, sizeof(name));
    return take_string(name, config_setting_get_member(setting, key), buf, max, fallback);
}

int load_config_setting_size(config_setting_t *setting, const char *key, size_t *value, size_t fallback) {
    const config_setting_t *member = config_setting_get_member(setting, key);
    if (!member) {
        *value = fallback;
        return 0;
    }
    char name[256];
    full_key(setting, key, name, sizeof(name));
    int64_t size = -1;
    switch (config_setting_type(member)) {
    case CONFIG_TYPE_INT:
    case CONFIG_TYPE_INT64:
        size = config_setting_get_int64(member);
        break;
    case CONFIG_TYPE_STRING:
        if (a2size(config_setting_get_string(member), &size) != 0)
            size = -1;
        break;
    default:
        break;
    }
    if (size < 0)
        return wrong_type(name, member, "a size");
    *value = static_cast<size_t>(size);
    return 0;
}

int load_config_string_list(const char *key, void (*fn)(const char *text, void *arg), void *arg) {
    config_setting_t *setting = config_find(key);
    if (!setting)
        return 0;
    if (!config_setting_is_list(setting) && !config_setting_is_array(setting))
        return wrong_type(key, setting, "a list of strings");
    int n = config_setting_length(setting);
    for (int i = 0; i < n; ++i)
        if (!config_setting_get_string_elem(setting, i))
            return wrong_type(key, setting, "a list of strings");
    for (int i = 0; i < n; ++i)
        fn(config_setting_get_string_elem(setting, i), arg);
    return n;
}
