// Prints what a log ring holds, follows it as it grows, or tells the state of its owner.
#include "lib/lard.h"
#include "lib/timeop.h"
#include "tools/cmdline.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

static constexpr size_t TAIL_MAX = 256; // bytes compared to notice that the writer came round
static constexpr size_t TAIL_MIN = 16;
static constexpr int COPY_TRIES = 64;
static constexpr long NAP_MIN = 1'000'000; // nanoseconds between two looks while records arrive
static constexpr long NAP_MAX = 64'000'000;

enum { EXIT_OK = 0, EXIT_NO_RING = 1, EXIT_USAGE = 2 };

static constexpr cmd_option OPTIONS[] = {
    {'f', "follow", nullptr, "go on printing what arrives until the owner closes the ring"},
    {'s', "status", nullptr, "tell the state of the ring and its owner instead of its records"},
    {'h', "help", nullptr, "print this guide"},
};
static constexpr cmd_guide GUIDE = {"lumo-ring", "[OPTIONS] NAME",
                                    "Prints the log ring NAME of lumo (key log.ring).", OPTIONS};

struct options {
    bool is_following;
    bool is_status;
    const char *name;
};

// Where the printing of a ring stands.
struct cursor {
    size_t end;       // offset behind the last byte seen
    std::string tail; // the last bytes before it
};

static bool put_text(std::string_view text) {
    if (fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0)
        return true;
    fprintf(stderr, "lumo-ring: cannot write: %s\n", strerror(errno));
    return false;
}

static size_t ring_size(lard_t ring) {
    size_t size;
    lard_get_data(ring, &size);
    return size;
}

// In ascending order, a word at a time: whoever copied a byte of a record that is being written has the zero
// byte that the writer stored behind it before.
static std::string copy_bytes(lard_t ring, size_t start, size_t len) {
    size_t size;
    const char *from = lard_get_data(ring, &size) + start;
    std::string text(len, '\0');
    size_t i = 0;
    for (; i < len && (start + i) % sizeof(uint64_t) != 0; ++i)
        text[i] = __atomic_load_n(from + i, __ATOMIC_ACQUIRE);
    for (; i + sizeof(uint64_t) <= len; i += sizeof(uint64_t)) {
        uint64_t word = __atomic_load_n(reinterpret_cast<const uint64_t *>(from + i), __ATOMIC_ACQUIRE);
        memcpy(&text[i], &word, sizeof(word));
    }
    for (; i < len; ++i)
        text[i] = __atomic_load_n(from + i, __ATOMIC_ACQUIRE);
    return text;
}

static size_t end_of(const lard_span &span, size_t size) {
    return (span.start + span.len) % size;
}

static std::string tail_of(const std::string &text) {
    return text.substr(text.size() - std::min(text.size(), TAIL_MAX));
}

// The last zero byte ends what was being written over the oldest records; what stands behind it is the rest
// of one of them.
static void drop_torn_lines(std::string *text, bool has_wrapped) {
    size_t zero = text->rfind('\0');
    if (zero == std::string::npos && !has_wrapped)
        return;
    size_t line_end = text->find('\n', zero == std::string::npos ? 0 : zero);
    text->erase(0, line_end == std::string::npos ? text->size() : line_end + 1);
}

// Offsets alone do not tell how often the writer went round since the last look, but as long as the bytes
// before the cursor are still there, it did not pass them.
static bool is_lapped(lard_t ring, const cursor &cur, size_t size) {
    lard_span now = lard_kept(ring);
    if (now.len < size)
        return false;
    size_t fresh = (end_of(now, size) + size - cur.end) % size;
    size_t len = std::min(size - fresh - 1, cur.tail.size());
    std::string_view tail(cur.tail);
    return len < TAIL_MIN || copy_bytes(ring, size + cur.end - len, len) != tail.substr(tail.size() - len);
}

static bool is_same(const lard_span &a, const lard_span &b) {
    return a.start == b.start && a.len == b.len;
}

// Copies what is held and sets the cursor behind it; false when the writer went round meanwhile, which makes
// the copy a mixture. The tail tells, provided that the writer stood still while it was copied.
static bool copy_held(lard_t ring, cursor *cur, std::string *text) {
    size_t size = ring_size(ring);
    lard_span held = lard_kept(ring);
    size_t tail = std::min(held.len, TAIL_MAX);
    *cur = {end_of(held, size), copy_bytes(ring, held.start + held.len - tail, tail)};
    if (!is_same(held, lard_kept(ring)))
        return false;
    *text = copy_bytes(ring, held.start, held.len);
    lard_span now = lard_kept(ring);
    if (is_lapped(ring, *cur, size))
        return false;
    // What was overwritten meanwhile is the beginning.
    size_t overwritten = (now.start + size - held.start) % size;
    text->erase(0, std::min(overwritten, text->size()));
    drop_torn_lines(text, now.len == size || now.start > 0);
    return true;
}

// Prints all whole lines that are held.
static bool print_held(lard_t ring, cursor *cur) {
    std::string text;
    for (int tries = COPY_TRIES; tries > 0; --tries)
        if (copy_held(ring, cur, &text))
            return put_text(text);
    fprintf(stderr, "lumo-ring: the writer was faster in %d tries, what it holds is not printed\n",
            COPY_TRIES);
    return true;
}

// Prints what arrived behind the cursor. The look for a lap comes after the copy, so that it covers the copy.
static bool print_fresh(lard_t ring, cursor *cur) {
    size_t size = ring_size(ring);
    size_t end = end_of(lard_kept(ring), size);
    std::string text = copy_bytes(ring, cur->end, (end + size - cur->end) % size);
    if (is_lapped(ring, *cur, size)) {
        fprintf(stderr, "lumo-ring: the writer was faster, records were lost\n");
        return print_held(ring, cur);
    }
    if (text.empty())
        return true;
    cur->end = end;
    cur->tail = tail_of(cur->tail + text);
    return put_text(text);
}

static bool is_alive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

// The owner's state is asked before the bytes, so that its last records are not missed.
static bool follow(lard_t ring, const char *name, cursor *cur) {
    timespec nap{0, NAP_MIN};
    for (;;) {
        size_t seen = cur->end;
        pid_t owner = lard_owner_pid(ring);
        bool has_owner = is_alive(owner);
        bool is_active = lard_is_active(ring);
        if (!print_fresh(ring, cur))
            return false;
        if (!is_active)
            return true;
        if (!has_owner) {
            fprintf(stderr, "lumo-ring: the owner of ring [%s], process %d, is gone without closing it\n",
                    name, owner);
            return true;
        }
        nap.tv_nsec = cur->end != seen ? NAP_MIN : std::min(nap.tv_nsec * 2, NAP_MAX);
        nanosleep(&nap, nullptr);
    }
}

// "never" before the first record, "unknown" when the time is none of this machine's past.
static void print_age(const timespec &at) {
    timespec now, age{-1, 0};
    set_clk_now(&now, CLOCK_MONOTONIC);
    if (at.tv_sec >= 0 && at.tv_sec <= now.tv_sec && at.tv_nsec >= 0 && at.tv_nsec < 1'000'000'000)
        calc_timespan(at, now, &age);
    if (at.tv_sec == 0 && at.tv_nsec == 0)
        printf("age: never\n");
    else if (age.tv_sec < 0)
        printf("age: unknown\n");
    else
        printf("age: %ld.%03ld\n", age.tv_sec, age.tv_nsec / 1'000'000);
}

static bool print_status(lard_t ring) {
    pid_t owner = lard_owner_pid(ring);
    timespec write_tm;
    memcpy(&write_tm, &lard_get_meta(ring)->write_tm, sizeof(write_tm));
    printf("owner: %d\n", owner);
    printf("alive: %s\n", is_alive(owner) ? "yes" : "no");
    printf("closed: %s\n", lard_is_active(ring) ? "no" : "yes");
    print_age(write_tm);
    printf("temperature: %d\n", lard_get_ctemp(ring));
    printf("kept: %zu\n", lard_kept(ring).len);
    printf("size: %zu\n", ring_size(ring));
    return put_text("");
}

// EXIT_OK to go on; anything else is the exit code, -1 after the help was printed.
static int read_options(int argc, char **argv, options *opts) {
    for (int c = 0; (c = cmd_next(GUIDE, argc, argv)) != -1;) {
        if (c == 'h') {
            cmd_print_guide(GUIDE);
            return -1;
        }
        opts->is_following |= c == 'f';
        opts->is_status |= c == 's';
        if (c == '?')
            return EXIT_USAGE;
    }
    opts->name = argv[optind];
    if (argc - optind == 1)
        return EXIT_OK;
    fprintf(stderr, "%s: wants one ring; --help tells more\n", GUIDE.program);
    return EXIT_USAGE;
}

static bool show(lard_t ring, const options &opts) {
    cursor cur{};
    if (opts.is_status && !print_status(ring))
        return false;
    if (opts.is_status && !opts.is_following)
        return true;
    return print_held(ring, &cur) && (!opts.is_following || follow(ring, opts.name, &cur));
}

int main(int argc, char **argv) {
    options opts{};
    int code = read_options(argc, argv, &opts);
    if (code < 0)
        return EXIT_OK;
    if (code != EXIT_OK)
        return code;
    lard_t ring = lard_open(opts.name);
    if (!ring) {
        fprintf(stderr, "lumo-ring: no readable ring [%s]\n", opts.name);
        return EXIT_NO_RING;
    }
    code = show(ring, opts) ? EXIT_OK : EXIT_NO_RING;
    lard_close(ring);
    return code;
}
