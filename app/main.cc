// The daemon: start-up, process set-up, the event callbacks, the idle step and the orderly end.
#include "app/app.h"
#include "app/cfg.h"
#include "app/expiry.h"
#include "app/feed.h"
#include "app/mdr.h"
#include "app/options.h"
#include "app/rewrite.h"
#include "app/rq.h"
#include "app/startup.h"
#include "app/status.h"
#include "app/task.h"
#include "common/meta.h"
#include "lib/check.h"
#include "lib/fdio.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/sigflag.h"
#include "lib/tmout.h"
#include "lib/util.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t CONFIG_LOOK_MS = 10; // between two looks at the configuration file
static constexpr char FALLBACK_HOME[] = "/tmp";

// --- event dispatch: the first word of every registered record is its type ---

static void report_expired(const n32_tag &tag, const void *record) {
    LOG(LL_WARN, "%s: got expired [%3s] (0x%04x) on (%p), dismissing\n", "on_read", tag.sym, tag.num, record);
}

[[noreturn]] static void report_corruption(const n32_tag &tag, const void *record) {
    LOG(LL_ERROR, "%s: unknown data type: [%.3s] (0x%04x) on (%p), data corruption detected\n", "on_read",
        tag.sym, tag.num, record);
    check_failed("known record type", __FILE__, __LINE__, "on_read");
}

// A producer may write its lines and go at once: they are its work, and no answer is waited for.
static bool has_source_lines(const pl_urq *urq) {
    return urq->kind.num == YLI_tag && bytes_to_read(urq->rq.fd) > 0;
}

static int read_urq(pl_urq *urq, int err) {
    bool is_data = err == 0 || has_source_lines(urq);
    if (!is_data) {
        // A connection that hung up is readable for good: waiting for that would tell nothing.
        if (err == RQS_HUP)
            LOG(LL_DEBUG, "%s: no data pending for fd%d\n", "on_read", urq->rq.fd);
        LOG(hangup_level(err & ~RQS_HUP), "%s: URQ [%s] (%p) err=%d\n", "on_read", urq->rq.trk_tag.sym8,
            static_cast<void *>(urq), err);
        pprm_urq(urq);
        return 0;
    }
    if (urq->kind.num == SLI_tag || urq->kind.num == YLI_tag)
        return urq_read(urq);
    LOG(LL_ERROR, "%s: unknown URQ type: [%s]\n", "on_read", urq->kind.sym);
    report_corruption(urq->rq.le.tag, urq);
}

static int read_src(pl_source *src, int err) {
    if (err == 0)
        return read_source(src);
    // A producer that came back in this pass has taken the place of the connection that is told of.
    if (src->sockfd < 0 || !has_hung_up(src->sockfd))
        return 0;
    LOG(hangup_level(err & ~RQS_HUP), "%s: src[%s] (%p) err=%d\n", "on_read", src->nametag,
        static_cast<void *>(src), err);
    drain_source(src);
    source_error(src, err & RQS_HUP);
    return 0;
}

static int on_srv_accept(rui_socket_ctx *srv, int err) {
    if (err)
        LOG_FN(LL_ERROR, "[%s] ERR/HUP\n", srv->lc->alias);
    else if (rui_accept(srv, g_cfg.rui.max_accept, 0, nullptr) != 0)
        LOG_FN(LL_ERROR, "error accepting requests on [%s]\n", srv->lc->alias);
    if (!g_quit)
        return 0;
    LOG_FN(LL_NORM, "quitting with the app\n");
    return 1;
}

static int on_read(long, int err, void *udata, void *) {
    const n32_tag &tag = *static_cast<const n32_tag *>(udata);
    const char *what = err & RQS_HUP ? "HUP" : err ? "ERROR" : "data";
    LOG_FN(LL_DEBUG, "%s [%.3s] (%p) err=%d\n", what, tag.sym, udata, err);
    switch (tag.num) {
    case PL_URQ:
        return read_urq(static_cast<pl_urq *>(udata), err);
    case PL_SRC:
        return read_src(static_cast<pl_source *>(udata), err);
    case RSC_TAG:
        return on_srv_accept(static_cast<rui_socket_ctx *>(udata), err);
    default:
        if (tag.sym[0] != TAG_EXPIRED)
            report_corruption(tag, udata);
        report_expired(tag, udata);
        return 0;
    }
}

// No writer is ever registered.
static int on_write(long, int err, void *udata, void *aux) {
    LOG_FN(LL_PANIC, "tag=[%s] err=%d, udata=%p, aux=%p - why are we here?\n",
           static_cast<const n32_tag *>(udata)->sym, err, udata, aux);
    log_abort();
}

static int on_error(long, int err, void *udata, void *) {
    const n32_tag &tag = *static_cast<const n32_tag *>(udata);
    bool is_hup = err & RQS_HUP;
    LOG_FN(LL_INFO, "%s (%p), err=0x%04x %s\n", tag.sym, udata, static_cast<unsigned>(err),
           is_hup ? "HUP" : "-");
    switch (tag.num) {
    case PL_URQ:
        urq_error(static_cast<pl_urq *>(udata), is_hup);
        break;
    case PL_SRC:
        source_error(static_cast<pl_source *>(udata), is_hup);
        break;
    case RSC_TAG:
        listener_error(static_cast<rui_socket_ctx *>(udata), is_hup);
    default:
        break;
    }
    return 0;
}

static int on_pp() {
    pprm_task_cleanup();
    pprm_requests();
    return 0;
}

static void upd_tmout(timespec *tmout) {
    ms2timespec(get_min_timeout(), tmout);
}

// --- the idle step ---

// The terminal gets a copy of what a foreground start with a log file says.
static bool has_terminal_copy() {
    return !g_cfg.rt.quiet && g_cfg.rt.non_daemon && g_cfg.log.path[0];
}

static void dump_config() {
    dump_plum_config(log_fp(&g_log), &g_cfg);
    if (has_terminal_copy())
        dump_plum_config(stderr, &g_cfg);
}

static void reload_config() {
    LOG(LL_NORM, "Reloading configuration from [%s]\n", g_cfg.config_path);
    if (load_plum_config(g_cfg.config_path, &g_cfg, true) != 0)
        return;
    LOG(LL_NORM, "Configuration reloaded from [%s]\n", g_cfg.config_path);
    mdr_reconfigure(g_ctx.mdr, &g_cfg.mdr);
    dump_config();
}

static void rotate_log() {
    LOG(LL_NORM, "Force-rotating current log [%s]\n", g_cfg.log.path);
    if (log_rotate(&g_log) == 0)
        LOG(LL_NORM, "Successfully force-rotated log [%s]\n", g_cfg.log.path);
}

static void toggle_debug() {
    static bool is_pushed = false;
    if (!is_pushed) {
        log_push_mlevels();
        log_set_modules(&g_log, LL_DEBUG);
    } else {
        log_pop_mlevels();
    }
    is_pushed = !is_pushed;
    LOG(LL_INFO, "Log level %s (DEBUG)\n", is_pushed ? "PUSH" : "POP");
    if (is_pushed)
        LOG(LL_DEBUG, "%s: now all DEBUG messages will be recorded\n", "process_signals");
}

// Whether the configuration file was touched. A busy loop does not look in every pass, and a file that was
// touched a moment ago may not be finished.
static bool is_config_touched() {
    static timespec last_look;
    timespec gap;
    ms2timespec(CONFIG_LOOK_MS, &gap);
    bool is_touched = false;
    bool is_owed = !timed_out(last_look, gap);
    if (!is_owed) {
        rqs_set_now(&last_look);
        is_touched = chk_file_stamp(g_cfg.config_path, &g_cfg.stamp, &is_owed);
        g_cfg.last_mtime = g_cfg.stamp.sec;
    }
    // A look that is still to come also comes when the traffic stops.
    keep_timeout(TMO_CONFIG, CONFIG_LOOK_MS, is_owed);
    return is_touched;
}

static void process_signals() {
    bool is_updated = is_config_touched();
    if (g_hup || is_updated)
        reload_config();
    g_hup = 0;
    if (g_usr1)
        rotate_log();
    g_usr1 = 0;
    if (g_tdbg)
        toggle_debug();
    g_tdbg = 0;
}

static int do_idle_tasks() {
    process_signals();
    time_out_src_tasks();
    time_out_requests();
    rewrite_step();
    status_pass();
    return 0;
}

// --- process set-up ---

static int install_handlers() {
    int rc = handle_quit_signals(on_sigquit);
    const struct {
        int signo;
        sig_handler handler;
    } others[] = {{SIGHUP, on_sighup}, {SIGUSR2, on_tdbg}, {SIGUSR1, on_sigusr1}, {SIGHUP, on_sighup}};
    for (const auto &one : others)
        if (rc == 0)
            rc = handle_sig(one.signo, one.handler);
    return rc == 0 ? ignore_sigpipe() : rc;
}

static int report_getcwd() {
    LOG(LL_ERROR, "getcwd ERROR(%d) : %s\n", errno, strerror(errno));
    return -1;
}

static int become_daemon() {
    if (g_cfg.log.path[0] == '\0') {
        LOG(LL_ERROR, "Logfile must be specified to run as daemon\n");
        return 1;
    }
    char cwd[256];
    if (!getcwd(cwd, sizeof(cwd)))
        return report_getcwd();
    int rc = pin_paths(cwd);
    if (rc == 0)
        rc = check_as_daemon();
    if (rc != 0)
        return rc;
    rc = daemonize();
    if (rc != 0) {
        log_default(&g_log, stderr);
        LOG(LL_ERROR, "Failed to make the process a daemon, quitting.\n");
        return rc;
    }
    if (g_cfg.rt.user[0])
        rc = run_as_user(g_cfg.rt.user);
    if (rc == 0 && dir_check(g_cfg.data_dir) != 0)
        rc = -1;
    if (rc == 0 && geteuid() != 0)
        rc = goto_runtime_home(cwd, FALLBACK_HOME);
    return rc;
}

static int open_log() {
    const char *path = g_cfg.log.path;
    if (path[0] == '\0')
        return 0;
    int rc = path[0] == '|' ? log_popen(&g_log, path + 1) : log_open_ex(&g_log, path, 0);
    if (rc != 0) {
        log_default(&g_log, stderr);
        return rc;
    }
    appcfg_apply_log(&g_cfg.log);
    return 0;
}

static int open_ring() {
    if (g_cfg.log.ring[0] == '\0')
        return 0;
    lard_t ring = lard_create(g_cfg.log.ring, static_cast<size_t>(g_cfg.log.ring_pages));
    if (!ring) {
        LOG(LL_ERROR, "%s: cannot make the log ring [%s] of %d pages\n", "runtime_setup", g_cfg.log.ring,
            g_cfg.log.ring_pages);
        return -1;
    }
    log_set_lard(&g_log, ring);
    return 0;
}

static int settle_daemon() {
    close_stderr();
    int rc = create_pidfile_extra(g_cfg.rt.pidfile, getpid(), nullptr, 0);
    if (rc != 0)
        return rc;
    if (g_cfg.log.enable_syslog)
        glog_enable_syslog(APP_NAME);
    return 0;
}

static int tell_runtime() {
    char cwd[256];
    if (!getcwd(cwd, sizeof(cwd)))
        return report_getcwd();
    LOG(LL_INFO, "Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", static_cast<long>(getpid()),
        static_cast<long>(geteuid()), static_cast<long>(getegid()), cwd);
    return 0;
}

static int pin_processor() {
    if (g_cfg.rt.cpunum < 0)
        return 0;
    long pid = getpid();
    int rc = pin2cpu(g_cfg.rt.cpunum);
    if (rc == 0)
        LOG(LL_INFO, "%s(pid=%ld) processor affinity set to CPU%d\n", meta_app_tag(), pid, g_cfg.rt.cpunum);
    else
        LOG(LL_ERROR, "Failed to pin this %s(pid=%ld) to CPU%d\n", meta_app_tag(), pid, g_cfg.rt.cpunum);
    return rc;
}

static int lift_limits() {
    log_set_pid(&g_log, getpid());
    if (g_cfg.rt.enforce_core_dumps)
        set_unlimited_core(nullptr);
    raise_fd_limit();
    return 0;
}

static int detach() {
    return g_cfg.rt.non_daemon ? 0 : become_daemon();
}

static int settle() {
    return g_cfg.rt.non_daemon ? 0 : settle_daemon();
}

static int runtime_setup() {
    meta_app_tag();
    sigflag_shut_out(nullptr);
    int rc = install_handlers();
    if (rc != 0)
        return rc;
    using step = int (*)();
    for (step next :
         {check_sockets, detach, open_log, open_ring, settle, lift_limits, tell_runtime, pin_processor})
        if ((rc = next()) != 0)
            break;
    if (rc != 0)
        LOG_FN(LL_ERROR, "FAILED (rc=%d)\n", rc);
    else
        LOG_FN(LL_DEBUG, "OK\n");
    return rc;
}

// --- start and end ---

static int app_start() {
    const rqs_config config = {.cb = {.update_tmout = upd_tmout,
                                      .on_idle = do_idle_tasks,
                                      .read = on_read,
                                      .write = on_write,
                                      .error = on_error,
                                      .post_process = on_pp,
                                      .on_file_modified = nullptr,
                                      .time_out = nullptr,
                                      .is_dormant = nullptr},
                               .quit_on_zero_fds = 0};
    int rc = rqs_init(&config);
    return rc == 0 ? rui_ctx_start(&g_ctx.rui) : rc;
}

// A file that names another running process is its guard, not ours to remove.
static void remove_pidfile() {
    char text[32] = "";
    if (g_cfg.rt.pidfile[0] == '\0' || access(g_cfg.rt.pidfile, F_OK) != 0)
        return;
    ssize_t n = read_file_buf(g_cfg.rt.pidfile, text, sizeof(text) - 1);
    pid_t owner = n > 0 ? atoi(text) : 0;
    bool is_others = owner > 0 && owner != getpid() && (kill(owner, 0) == 0 || errno == EPERM);
    if (!is_others)
        unlink(g_cfg.rt.pidfile);
}

static void app_shutdown() {
    LOG_FN(LL_DEBUG, "begins\n");
    pprm_task_cleanup();
    destroy_plum_ctx();
    rqs_destroy();
    remove_pidfile();
    LOG(LL_NORM, "%s shut down\n", APP_NAME);
}

static int run() {
    int rc = runtime_setup();
    if (rc != 0)
        return rc;
    if (has_terminal_copy())
        log_mirror(&g_log, stderr);
    dump_config();
    rc = init_plum_ctx(urq_callbacks());
    if (rc == 0)
        rc = app_start();
    if (rc != 0)
        return rc;
    status_start();
    LOG(LL_NORM, "%s STARTING. PID=%ld\n", meta_banner(), static_cast<long>(getpid()));
    LOG(LL_INFO, "Config read from [%s]\n", g_cfg.config_path);
    rc = rqs_event_loop();
    if (!g_quit)
        return rc;
    LOG(LL_NORM, "%s has been asked to quit.\n", APP_NAME);
    return 0;
}

int main(int argc, char **argv) {
    occupy_standard_descriptors();
    const char *sysw_debug = getenv("SYSW_DEBUG");
    if (argc < 2)
        usage(1);
    glog_init(APP_NAME);
    init_timeout_registry();
    log_default(&g_log, stderr);
    setup_config(argc, argv);
    if (sysw_debug && strcmp(sysw_debug, "1") == 0)
        g_mod_ll[LOG_MOD_SYSWRAP] = LL_DEBUG;
    int rc = run();
    app_shutdown();
    if (rc < 0)
        rc = -rc;
    LOG(LL_NORM, "%s EXIT(%d). PID=%ld\n", meta_banner(), rc, static_cast<long>(getpid()));
    log_close(&g_log);
    lard_destroy(log_set_lard(&g_log, nullptr));
    return rc;
}
