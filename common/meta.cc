#include "common/meta.h"

#include <cstdio>
#include <libconfig.h>
#include <sys/utsname.h>

static constexpr char BUILD_ERROR[] = "#error#";

const char *meta_banner() {
    static char text[256];
    if (text[0])
        return text;
    utsname sys;
    if (uname(&sys) != 0)
        return BUILD_ERROR;
    int n = snprintf(text, sizeof(text), "%s (%s) %s-%d.%d %s [%s %s %s] %s", APP_NAME, APP_DESCRIPTION,
                     APP_VERSION, APP_BUILD_MAJOR, APP_BUILD_MINOR, APP_PRODUCT, sys.sysname, sys.release,
                     sys.machine, APP_BUILD_DATE);
    if (n < 0 || n >= static_cast<int>(sizeof(text)))
        snprintf(text, sizeof(text), "%s", BUILD_ERROR);
    return text;
}

const char *meta_app_tag() {
    static char text[128];
    if (text[0])
        return text;
    int n = snprintf(text, sizeof(text), "%s/%s-%d.%d (%s)", APP_NAME, APP_VERSION, APP_BUILD_MAJOR,
                     APP_BUILD_MINOR, APP_PRODUCT);
    if (n < 0 || n >= static_cast<int>(sizeof(text)))
        snprintf(text, sizeof(text), "%s", BUILD_ERROR);
    return text;
}

const char *meta_build_info() {
    static char text[128];
    snprintf(text, sizeof(text), "libconfig %d.%d.%d, g++ %d.%d, C++%ld [-ggdb3]", LIBCONFIG_VER_MAJOR,
             LIBCONFIG_VER_MINOR, LIBCONFIG_VER_REVISION, __GNUC__, __GNUC_MINOR__, __cplusplus / 100 % 100);
    return text;
}
