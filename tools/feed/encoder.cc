#include "tools/feed/encoder.h"

#include "tools/feed/say.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int ROWS_FD = 3; // in the encoder
static constexpr int EXEC_FAILED = 127;

std::string enc_find(const std::string &program) {
    if (program.find('/') != std::string::npos)
        return access(program.c_str(), X_OK) == 0 ? program : "";
    const char *env = getenv("PATH");
    std::string dirs = std::string(env ? env : "/usr/local/bin:/usr/bin:/bin") + ":";
    for (size_t at = 0, end = 0; (end = dirs.find(':', at)) != std::string::npos; at = end + 1) {
        std::string path = (end == at ? "." : dirs.substr(at, end - at)) + "/" + program;
        if (access(path.c_str(), X_OK) == 0)
            return path;
    }
    return "";
}

// --- the command line ---

static bool holds(const std::vector<std::string> &args, std::initializer_list<const char *> words,
                  const char *value) {
    for (size_t i = 0; i < args.size(); ++i)
        for (const char *word : words)
            if (args[i] == word && (!value || (i + 1 < args.size() && args[i + 1] == value)))
                return true;
    return false;
}

// Segments begin with key frames; where pictures are encoded here they are put where a segment is to end,
// unless the user has a plan for them.
static bool wants_key_frames(const encoder_setup &setup) {
    bool is_copy = holds(setup.args, {"-c", "-codec", "-c:v", "-codec:v", "-vcodec", "-c:v:0"}, "copy");
    return !is_copy && !holds(setup.args, {"-force_key_frames", "-force_key_frames:v", "-vn"}, nullptr);
}

// Counting from zero is exact, but the input's own time stamps need not begin there.
static std::string key_frame_rule(const encoder_setup &setup, const std::string &length) {
    if (setup.retain_pts || holds(setup.args, {"-copyts"}, nullptr))
        return "expr:if(isnan(prev_forced_t),1,gte(t,prev_forced_t+" + length + "))";
    return "expr:gte(t,n_forced*" + length + ")";
}

static void add(std::vector<std::string> *to, std::initializer_list<std::string> words) {
    to->insert(to->end(), words);
}

std::vector<std::string> enc_command(const encoder_setup &setup, const std::string &name_template,
                                     long first_number) {
    std::vector<std::string> out;
    char length[32];
    snprintf(length, sizeof(length), "%g", setup.segment_sec);
    add(&out, {setup.program, "-nostdin", "-hide_banner", "-nostats", "-loglevel", "warning"});
    if (setup.retain_pts)
        add(&out, {"-copyts"});
    out.insert(out.end(), setup.args.begin(), setup.args.end());
    if (wants_key_frames(setup))
        add(&out, {"-force_key_frames", key_frame_rule(setup, length)});
    // Each segment has a muxer of its own, whose counters start anew.
    add(&out,
        {"-f", "segment", "-segment_time", length, "-segment_format", "mpegts", "-segment_format_options",
         std::string("mpegts_flags=+initial_discontinuity") + (setup.retain_pts ? ":mpegts_copyts=1" : ""),
         "-segment_list", "pipe:" + std::to_string(ROWS_FD), "-segment_list_type", "csv",
         "-segment_start_number", std::to_string(first_number), name_template});
    return out;
}

// --- the process ---

static void leave_with(const char *what, const char *program) {
    dprintf(STDERR_FILENO, "cannot %s [%s]: %s\n", what, program, strerror(errno));
    _exit(EXEC_FAILED);
}

// In the new process, in a group of its own, so that an interrupt from the terminal reaches the feeder alone.
[[noreturn]] static void become(char *const *argv, int rows, int words, pid_t parent) {
    sigset_t none;
    sigemptyset(&none);
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(EXEC_FAILED);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (dup2(words, STDERR_FILENO) < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(null, STDOUT_FILENO) < 0 ||
        dup2(rows, ROWS_FD) < 0)
        leave_with("connect", argv[0]);
    signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(argv[0], argv);
    leave_with("run", argv[0]);
    _exit(EXEC_FAILED);
}

static bool open_pipes(int rows[2], int words[2]) {
    if (pipe2(rows, O_CLOEXEC) != 0)
        return false;
    if (pipe2(words, O_CLOEXEC) == 0) {
        // Clear of the number that the encoder knows it by, or closing on exec would hold for the copy too.
        int clear = fcntl(rows[1], F_DUPFD_CLOEXEC, ROWS_FD + 1);
        if (clear >= 0) {
            close(rows[1]);
            rows[1] = clear;
            return true;
        }
        close(words[0]);
        close(words[1]);
    }
    close(rows[0]);
    close(rows[1]);
    return false;
}

bool enc_start(encoder *enc, const std::vector<std::string> &command) {
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (const std::string &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    int rows[2];
    int words[2];
    if (!open_pipes(rows, words)) {
        say(SAY_ERROR, "cannot make pipes for the encoder: %s", strerror(errno));
        return false;
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0)
        become(argv.data(), rows[1], words[1], parent);
    close(rows[1]);
    close(words[1]);
    if (pid < 0) {
        say(SAY_ERROR, "cannot start the encoder: %s", strerror(errno));
        close(rows[0]);
        close(words[0]);
        return false;
    }
    setpgid(pid, pid); // whoever of the two comes first
    fcntl(rows[0], F_SETFL, O_NONBLOCK);
    fcntl(words[0], F_SETFL, O_NONBLOCK);
    *enc = {};
    enc->pid = pid;
    enc->rows_fd = rows[0];
    enc->words_fd = words[0];
    return true;
}

void enc_reap(encoder *enc) {
    int status = 0;
    if (enc->pid == 0 || waitpid(enc->pid, &status, WNOHANG) != enc->pid)
        return;
    kill(-enc->pid, SIGKILL); // what it may have left behind keeps its pipes open
    enc->pid = 0;
    enc->status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void enc_signal(const encoder &enc, int signo) {
    if (enc.pid > 0)
        kill(-enc.pid, signo);
}

bool enc_is_over(const encoder &enc) {
    return enc.pid == 0 && enc.rows_fd < 0 && enc.words_fd < 0;
}
