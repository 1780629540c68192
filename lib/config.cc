#include "lib/config.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/strops.h"

#include <cstdio>
#include <cstring>

LOG_UNIT(LOG_MOD_APP);

static config_t g_config;
static bool g_is_open = false;
static cfg_text g_text;
static const config_setting_t *g_last = nullptr; // looked up

int config_open(const char *path, const char *home) {
    CHECK(!g_is_open);
    config_init(&g_config);
    g_is_open = true;
    g_last = nullptr;
    if (cfgtext_read(path, home, &g_text) != 0)
        return -1;
    if (config_read_string(&g_config, g_text.text.c_str()) == CONFIG_TRUE)
        return 0;
    cfgtext_report(cfgtext_place(g_text, config_error_line(&g_config)), config_error_text(&g_config));
    return -1;
}

void config_close() {
    if (g_is_open)
        config_destroy(&g_config);
    g_is_open = false;
    g_text = {};
}

file_stamp config_stamp() {
    return g_text.stamp;
}

static cfg_place place_of(const config_setting_t *setting) {
    return cfgtext_place(g_text, static_cast<int>(config_setting_source_line(setting)));
}

cfg_place config_last_place() {
    return g_is_open && g_last ? place_of(g_last) : cfg_place{};
}

// --- what was looked up carries a mark ---

static char g_mark;

static void mark(config_setting_t *setting) {
    config_setting_set_hook(setting, &g_mark);
}

static bool is_marked(const config_setting_t *setting) {
    return config_setting_get_hook(setting) == &g_mark;
}

config_setting_t *config_find(const char *key) {
    CHECK(g_is_open);
    config_setting_t *setting = config_lookup(&g_config, key);
    if (setting)
        mark(setting);
    g_last = setting;
    return setting;
}

static config_setting_t *member(const config_setting_t *group, int i) {
    return config_setting_get_elem(group, static_cast<unsigned>(i));
}

static void mark_below(config_setting_t *group) {
    mark(group);
    for (int i = 0; config_setting_is_group(group) && i < config_setting_length(group); ++i)
        mark_below(member(group, i));
}

void config_skip(const char *key) {
    if (config_setting_t *group = config_find(key))
        mark_below(group);
}

static bool is_looked_up(const config_setting_t *setting) {
    bool found = is_marked(setting);
    for (int i = 0; !found && config_setting_is_group(setting) && i < config_setting_length(setting); ++i)
        found = is_looked_up(member(setting, i));
    return found;
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

static void visit_unread(config_setting_t *setting, void (*fn)(const char *, const cfg_place &, void *),
                         void *arg) {
    for (int i = 0; i < config_setting_length(setting); ++i) {
        config_setting_t *one = member(setting, i);
        if (!is_looked_up(one)) {
            char key[256];
            full_key(setting, config_setting_name(one), key, sizeof(key));
            fn(key, place_of(one), arg);
        } else if (config_setting_is_group(one)) {
            visit_unread(one, fn, arg);
        }
    }
}

void config_visit_unread(void (*fn)(const char *key, const cfg_place &place, void *arg), void *arg) {
    CHECK(g_is_open);
    visit_unread(config_root_setting(&g_config), fn, arg);
}

bool config_has_group(const char *key) {
    const config_setting_t *setting = config_find(key);
    return setting && config_setting_is_group(setting);
}

static int wrong_type(const char *key, const config_setting_t *setting, const char *wanted) {
    cfg_place place = place_of(setting);
    LOG_FN(LL_ERROR, "%s must be %s, line %d of [%s]\n", key, wanted, place.line, place.path.c_str());
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
