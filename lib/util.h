// Process-level services: daemon, user, signal handlers, pid file, run-time home, limits, and file helpers.
// Each reports through the application log and returns 0 or -1 unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

// --- process ---

// Detaches: fork, new session, "/", file-creation mask 0, fork again. Standard input and output end up on
// /dev/null; standard error stays for the log. The parents exit with status 0.
int daemonize();
// For the start: a standard descriptor that is closed is put on /dev/null. The log or a socket would take its
// number otherwise, and with it every stray message.
void occupy_standard_descriptors();
// Puts standard error on /dev/null, so that its number is never free.
int close_stderr();
// Duplicates `path` (not created) onto standard output and error. -1 open, -2 or -3 duplication failed.
int redirect_output(const char *path);
// Switches to the user with his groups.
int run_as_user(const char *name);
int run_as_user_id(uid_t uid, gid_t gid);
int set_nice(int inc);
// The whole process onto one processor; the affinity call's result.
int pin2cpu(int cpu);
int get_core_count();

// --- signals ---

using sig_handler = void (*)(int signo);
int handle_quit_signals(sig_handler handler); // SIGTERM, SIGQUIT, SIGINT
int handle_sig(int signo, sig_handler handler);
int ignore_sigpipe();
// The handlers: set the flag and log at level normal.
void on_sighup(int signo);
void on_sigusr1(int signo);
void on_tdbg(int signo);
void on_sigquit(int signo);

// --- pid file, single instance ---

enum : int { PIDF_QUIET = 1 };
// "DIR/APP-TAG.pid", "DIR/APP-TAGNUM.pid" or "DIR/APP-NUM.pid"; `buf`, or null (logged).
char *mk_pidfile_name(const char *dir, const char *app, const char *tag, long num, char *buf, size_t size);
// Writes `pid` into the file under a write lock; stores the file's inode when `ino` is given.
int create_pidfile_extra(const char *path, pid_t pid, ino_t *ino, int flags);
int write_lock(int fd);
// The periodic single-instance check, at most every 10 seconds: 0, errno, or -1 when the file was replaced.
int mensure(const char *path, ino_t *ino, time_t *last_check);
// Changes into `dir`, or into `alt` (else the user's home) when that is not allowed.
int goto_runtime_home(const char *dir, const char *alt);

// --- limits ---

// Lifts the core-file limit and makes the process dumpable; the former limit goes to `old` if given.
int set_unlimited_core(rlimit *old);
// Raises the soft limit of descriptors to the hard one and tells both at level info.
int raise_fd_limit();
int set_limit(int resource, unsigned long bytes, const char *label); // soft limit only
int set_vmem_limit(unsigned long bytes);
int set_rss_limit(unsigned long bytes);                    // enforced on the address space, as set_vmem_limit
int set_mem_limits(unsigned long rss, unsigned long vmem); // 0 = leave; rss takes precedence

// --- files ---

// The first of dirs[i]/name that opens; its path stays in `buf`. A null entry ends the list.
FILE *fopen_any(const char *name, const char *mode, size_t ndirs, const char *const *dirs, char *buf,
                size_t size);
// Opens a regular file for reading without ever waiting; -1 or null with errno set for anything else.
int open_regular(const char *path);
FILE *fopen_regular(const char *path);
// Puts a file with `text`, mode 0644, in the place of `path` by a rename of "PATH.tmp", so that nobody reads
// half of it. 0 or errno; the temporary file is gone after a failure, and nothing is logged.
int replace_file(const char *path, std::string_view text);
// Reads a whole file of at most `size` bytes; the bytes read, or -1.
ssize_t read_file_buf(const char *path, void *buf, size_t size);
// Puts `dir` before a relative path, unless `dir` is empty. 0; -1 (logged) when that does not fit `size`: the
// path stays as it is then.
int make_absolute(char *path, size_t size, const char *dir);
// Creates the missing directories of the directory part of `path`, mode 0755.
int mk_fpath_dirs(const char *path);
// 0 when `dir` exists, is a directory and can be written; otherwise errno (logged). "/" is always fine.
int dir_check(const char *dir);
off_t get_file_size(const char *path);
time_t get_file_mtime(const char *path, int quiet);
// Stores the modification time and returns true when it is later than the stored one. A file that cannot
// be read is no change and keeps the stored time.
bool chk_file_updated(const char *path, int64_t *mtime);
// What tells one state of a file from the next.
struct file_stamp {
    int64_t sec; // of its last modification
    long nsec;
    off_t size;
};
file_stamp stamp_of(const struct stat &st);
// Stores the stamp and returns true when the modification is later than the stored one, or as old with
// another size. A file that cannot be read is no change, and neither is one whose last modification is not
// settled: it may be followed by another that its time does not tell. Both keep the stored stamp; the second
// sets `is_unsettled`.
bool chk_file_stamp(const char *path, file_stamp *stamp, bool *is_unsettled);
int get_stat_mode(int fd, mode_t *mode);
const char *pick_first_file(const char *const *paths, size_t n); // the first that exists, or null
int close_pipe(int fds[2]);

// --- texts ---

int tag_index(const char *word, const char *const *list); // ignoring case; -1 = not in the list
size_t cpy_till(const char *src, const char *stop, char *dst, size_t size);
char lastchar(const char *s);
const char *get_base(const char *path); // without one leading "/"
// `path` with its directory part replaced by `dir`; `buf`, or null (logged) when it does not fit.
char *replace_dir(const char *path, const char *dir, char *buf, size_t size);
// Lets the option parser start over.
void reset_getopt_state();
