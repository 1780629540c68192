// The playlist writer against writing the same, ready-made text to a file of the same directory.
#include "app/pl.h"
#include "app/pl_file.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

struct playlist_case {
    const char *name;
    size_t items;
    bool is_strict;
    pl_source *src;
    pl_task *text;
    pl_task *gzip;
    std::string ready; // what the writer made
};
static playlist_case g_cases[] = {{"6", 6, false, nullptr, nullptr, nullptr, {}},
                                  {"100800", FULL_LIST, false, nullptr, nullptr, nullptr, {}},
                                  {"6-strict", 6, true, nullptr, nullptr, nullptr, {}},
                                  {"100800-strict", FULL_LIST, true, nullptr, nullptr, nullptr, {}}};
static std::string g_tmp;
static std::string g_out;

static std::string read_file(const char *path) {
    std::string text;
    char buf[65536];
    FILE *fp = fopen(path, "r");
    if (!fp)
        give_up(path);
    for (size_t n; (n = fread(buf, 1, sizeof(buf), fp)) > 0;)
        text.append(buf, n);
    fclose(fp);
    return text;
}

static void make_case(playlist_case *one) {
    g_cfg.strict_hls = one->is_strict;
    one->src = bench_source(one->name, NO_TRIM);
    bench_fill(one->src, 0, one->items);
    ssize_t slots[2] = {};
    for (bool is_gzip : {false, true}) {
        pl_task *task = mk_vod_task(one->src, is_gzip);
        if (!task)
            give_up("mk_vod_task");
        slots[is_gzip] = task->idx;
        one->src->vod_idx = -1; // so that there can be a second one
    }
    one->text = src_task(one->src, slots[0]);
    one->gzip = src_task(one->src, slots[1]);
    one->ready = read_file(one->text->fpath);
}

static void write_playlist(benchmark::State &state, pl_task *task) {
    for (auto _ : state)
        if (mk_playlist(task) != 0)
            state.SkipWithError("mk_playlist");
}

static void plain_write(benchmark::State &state, const std::string &text) {
    for (auto _ : state) {
        int fd = open(g_tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            state.SkipWithError("write");
        close(fd);
        if (rename(g_tmp.c_str(), g_out.c_str()) != 0)
            state.SkipWithError("rename");
    }
}

static void plain_deflate(benchmark::State &state, const std::string &text) {
    for (auto _ : state) {
        gzFile gz = gzopen(g_tmp.c_str(), "w6");
        if (gzwrite(gz, text.data(), static_cast<unsigned>(text.size())) <= 0)
            state.SkipWithError("gzwrite");
        gzclose(gz);
        if (rename(g_tmp.c_str(), g_out.c_str()) != 0)
            state.SkipWithError("rename");
    }
}

int main(int argc, char **argv) {
    temp_dir dir;
    bench_open(dir, LL_NORM);
    g_tmp = dir / "floor.m3u8.tmp";
    g_out = dir / "floor.m3u8";
    for (playlist_case &one : g_cases) {
        make_case(&one);
        std::string n = one.name;
        benchmark::RegisterBenchmark(("text" + n).c_str(), write_playlist, one.text);
        benchmark::RegisterBenchmark(("gzip" + n).c_str(), write_playlist, one.gzip);
        benchmark::RegisterBenchmark(("write" + n).c_str(), plain_write, one.ready);
        benchmark::RegisterBenchmark(("deflate" + n).c_str(), plain_deflate, one.ready);
    }
    static constexpr bench_pair PAIRS[] = {
        {"playlist: text, 6 items / plain write", "text6", "write6", -2},
        {"playlist: text, 100800 items / plain write", "text100800", "write100800", -2},
        {"playlist: gzip, 6 items / one deflate", "gzip6", "deflate6", -1.05},
        {"playlist: gzip, 100800 items / one deflate", "gzip100800", "deflate100800", -1.05},
        {"playlist: text, 6 items, strict / not", "text6-strict", "text6", -1.1},
        {"playlist: text, 100800 items, strict / not", "text100800-strict", "text100800", -1.1},
        {"playlist: gzip, 6 items, strict / not", "gzip6-strict", "gzip6", -1.1},
        {"playlist: gzip, 100800 items, strict / not", "gzip100800-strict", "gzip100800", -1.1},
    };
    int rc = run_pairs(argc, argv, PAIRS);
    tell_note("playlist: floors open, write or gzwrite once, close and rename; %zu bytes of text\n",
              g_cases[1].ready.size());
    bench_close();
    return rc;
}
