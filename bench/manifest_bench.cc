// The import of a full manifest against reading and scanning the same lines.
#include "app/item.h"
#include "app/manifest.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <cstdio>
#include <sys/stat.h>

static constexpr int ROUNDS = 11;
static std::string g_path;

static void write_manifest(const temp_dir &dir) {
    mkdir((dir / "chan").c_str(), 0755);
    g_path = dir / "chan/chan.manifest_live";
    FILE *fp = fopen(g_path.c_str(), "w");
    if (!fp)
        give_up("manifest");
    for (size_t n = 0; n < FULL_LIST; ++n)
        fprintf(fp, "%zu: %s", n + 1, bench_line(n).c_str());
    fclose(fp);
}

static double import(pl_source *src, int level) {
    log_set_modules(&g_log, level);
    double start = cpu_sec();
    read_manifest(src);
    double sec = cpu_sec() - start;
    log_set_modules(&g_log, LL_NORM);
    if (dlep_count(src->items) != FULL_LIST + 1)
        give_up("imported items");
    dlep_purge(src->items, [](dlep_elem *elem) { free_item(dlep_as<pl_item>(elem)); });
    src->total_sec = 0;
    return sec;
}

static double read_and_scan() {
    char line[255];
    size_t count = 0;
    double start = cpu_sec();
    FILE *fp = fopen(g_path.c_str(), "r");
    while (fp && fgets(line, sizeof(line), fp)) {
        int64_t number = 0;
        item_data data{};
        std::string_view rest;
        line_scan scan{.rest = strip_tail(line)};
        scan_long(&scan, &number);
        scan.rest.remove_prefix(1);
        count += scan_item(&scan, &data, &rest) == LINE_OK;
    }
    if (fp)
        fclose(fp);
    double sec = cpu_sec() - start;
    if (count != FULL_LIST)
        give_up("scanned lines");
    return sec;
}

int main() {
    temp_dir dir;
    bench_open(dir, LL_NORM);
    pl_source *src = bench_source("chan", NO_TRIM, nullptr, dir.path.c_str());
    write_manifest(dir);
    const struct {
        const char *name;
        int level;
        double aim;
    } cases[] = {{"manifest: import, log level norm / read and scan", LL_NORM, -3},
                 {"manifest: import, log level info / read and scan", LL_INFO, -3}};
    for (const auto &one : cases) {
        paired p = measure_pair(
            ROUNDS, [&] { return import(src, one.level); }, read_and_scan);
        tell_ratio(one.name, p.ratio, one.aim, "%.1f / %.1f ms for %zu lines", p.subject_sec * 1e3,
                   p.floor_sec * 1e3, FULL_LIST);
    }
    tell_note("manifest: no size checks; the floor scans with the feed's own scanner\n");
    bench_close();
    return 0;
}
