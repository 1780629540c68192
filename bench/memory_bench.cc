// Resident memory of an item against the bytes that it cannot do without.
#include "bench/fixture.h"
#include "lib/log.h"

#include <cstdio>
#include <malloc.h>
#include <unistd.h>

static constexpr size_t ITEMS = 1'000'000;

static double resident() {
    long pages = 0;
    FILE *fp = fopen("/proc/self/statm", "r");
    if (!fp || fscanf(fp, "%*d %ld", &pages) != 1)
        give_up("/proc/self/statm");
    fclose(fp);
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

int main() {
    temp_dir dir;
    bench_open(dir, LL_NORM);
    std::vector<double> sizes;
    for (int round = 0; round < 3; ++round) {
        pl_source *src = bench_source(("chan" + std::to_string(round)).c_str(), NO_TRIM);
        double before = resident();
        bench_fill(src, 0, ITEMS);
        sizes.push_back((resident() - before) / ITEMS);
    }
    double least = static_cast<double>(offsetof(pl_item, path)) + 33;
    double bytes = median(sizes);
    // Whole pages are counted, so a hair's breadth more than what the items take.
    tell_ratio("memory: resident bytes of an item / 96", bytes / 96, -1.005,
               "%.1f bytes, 1000000 items, path of 32 characters", bytes);
    tell_ratio("memory: resident bytes of an item / record and path", bytes / least, 0, "%.1f / %.0f bytes",
               bytes, least);
    bench_close();
    return 0;
}
