#include "bench/fixture.h"

#include "app/app.h"
#include "app/cfg.h"
#include "app/item.h"
#include "app/rq.h"
#include "app/task.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/tmout.h"
#include "lib/util.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

static time_t g_first_tm;

void bench_open(const temp_dir &dir, int level, const rqs_config &events) {
    glog_init("bench");
    init_timeout_registry();
    log_default(&g_log, stderr);
    init_plum_config(&g_cfg);
    snprintf(g_cfg.data_dir, sizeof(g_cfg.data_dir), "%s", dir.path.c_str());
    g_cfg.verify_item_filesize = false;
    g_cfg.max_sources = 1100;
    g_cfg.max_src_tasks = 513;
    log_set_modules(&g_log, level);
    log_set_pid(&g_log, getpid());
    if (log_open_ex(&g_log, (dir / "log").c_str(), LOG_OPEN_APPEND) != 0)
        give_up("log");
    log_set_rota(&g_log, 64u << 20, 1, 0);
    raise_fd_limit();
    if (rqs_init(&events) != 0 || init_plum_ctx(urq_callbacks()) != 0)
        give_up("context");
    g_first_tm = time(nullptr) - static_cast<time_t>(FULL_LIST) * ITEM_SEC;
}

void bench_close() {
    destroy_plum_ctx();
    rqs_destroy();
    log_close(&g_log);
}

pl_source *bench_source(const char *name, size_t max_plbk_sec, int *peer, const char *dir) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        give_up("socketpair");
    pl_urq urq{};
    urq.rq.fd = ends[0];
    std::string params = "max_sec=" + std::to_string(max_plbk_sec);
    if (dir)
        params += std::string(" data_dir=") + dir;
    if (add_source(&urq, name, params.c_str()) != 0)
        give_up("add_source");
    close(ends[0]);
    if (peer)
        *peer = ends[1];
    return src_by_name(name);
}

item_data bench_item(size_t n) {
    item_data data{};
    snprintf(data.itype, sizeof(data.itype), "SEGMENT:");
    snprintf(data.path, sizeof(data.path), "channel1-segment-%012zu.ts", n);
    data.start_tm = g_first_tm + static_cast<long>(n) * ITEM_SEC;
    data.duration = 5.88f + static_cast<float>(n % 7) * 0.04f;
    data.fsize = 1'000'000 + static_cast<long>(n % 1000) * 188;
    data.src_nid = 1;
    data.ifrm1_pts = 126'000 + static_cast<int64_t>(n) * ITEM_SEC * 90'000;
    return data;
}

std::string bench_line(size_t n) {
    item_data data = bench_item(n);
    char line[160];
    snprintf(line, sizeof(line), "%s %s %ld %f %ld %d %ld\n", data.itype, data.path, data.start_tm,
             data.duration, data.fsize, data.src_nid, data.ifrm1_pts);
    return line;
}

void bench_fill(pl_source *src, size_t first, size_t count) {
    for (size_t n = first; n < first + count; ++n) {
        item_data data = bench_item(n);
        if (add_seg(src, &data) != 0)
            give_up("add_seg");
    }
}

static int list_task(void *tasks, size_t i) {
    return pprm_task(static_cast<pl_task *>(tasks) + i);
}

void bench_drop_tasks(pl_source *src) {
    xvlst_each(&src->tasks, list_task, nullptr);
    pprm_task_cleanup();
}
