// Long compressed playlists from kept stretches, against one deflate of the same text to a file of the same
// directory.
#include "app/pl.h"
#include "app/pl_file.h"
#include "app/pl_stretch.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <cstdio>
#include <filesystem>
#include <malloc.h>
#include <zlib.h>

static constexpr int ROUNDS = 11;

static std::string unpack(const char *path) {
    std::string text;
    char buf[65536];
    gzFile gz = gzopen(path, "r");
    if (!gz)
        give_up(path);
    for (int n; (n = gzread(gz, buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    gzclose(gz);
    return text;
}

static double deflate_whole(const std::string &dir, const std::string &text) {
    std::string tmp = dir + "/floor.tmp";
    double start = cpu_sec();
    gzFile gz = gzopen(tmp.c_str(), "w");
    if (gzwrite(gz, text.data(), static_cast<unsigned>(text.size())) <= 0)
        give_up("gzwrite");
    gzclose(gz);
    rename(tmp.c_str(), (dir + "/floor").c_str());
    return cpu_sec() - start;
}

// A new VOD task over the list as it is.
static double answer(pl_source *src, std::string *text = nullptr, double *size = nullptr) {
    double start = cpu_sec();
    pl_task *task = mk_vod_task(src, true);
    double sec = cpu_sec() - start;
    if (!task)
        give_up("mk_vod_task");
    if (text)
        *text = unpack(task->fpath);
    if (size)
        *size = static_cast<double>(std::filesystem::file_size(task->fpath));
    bench_drop_tasks(src);
    return sec;
}

int main() {
    temp_dir dir;
    bench_open(dir, LL_WARN);
    snprintf(g_cfg.pl_item_pfx, sizeof(g_cfg.pl_item_pfx), "http://media.example.org/hls/");
    pl_source *src = bench_source("long", NO_TRIM);
    size_t next = FULL_LIST + 100; // so that the list does not begin with a stretch
    bench_fill(src, 100, FULL_LIST);
    std::string text;
    double size = 0;
    answer(src, &text, &size);
    deflate_whole(dir.path, text);
    double plain = static_cast<double>(std::filesystem::file_size(dir / "floor"));
    auto again = [&] {
        bench_fill(src, next++, 1);
        return answer(src);
    };
    auto first = [&] {
        stretch_drop(src);
        return answer(src);
    };
    auto floor = [&] { return deflate_whole(dir.path, text); };
    paired p = measure_pair(ROUNDS, again, floor);
    tell_ratio("stretch: VOD after one segment, 100800 items / deflate", p.ratio, -1.0 / 15, "%.0f / %.0f us",
               p.subject_sec * 1e6, p.floor_sec * 1e6);
    p = measure_pair(ROUNDS, first, floor);
    tell_ratio("stretch: first VOD over 100800 items / deflate", p.ratio, -1.1, "%.0f / %.0f us",
               p.subject_sec * 1e6, p.floor_sec * 1e6);
    tell_ratio("stretch: size of the file / of one deflate", size / plain, -1.1,
               "%.0f / %.0f bytes, %zu of text", size, plain, text.size());
    size_t with = mallinfo2().uordblks;
    stretch_drop(src);
    double kept =
        static_cast<double>(with - mallinfo2().uordblks) / static_cast<double>(dlep_count(src->items));
    tell_ratio("stretch: bytes kept for an item / 12", kept / 12, -1, "%.1f bytes, blocks of malloc counted",
               kept);
    bench_close();
    return 0;
}
