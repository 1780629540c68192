#include "lib/lard.h"

#include "lib/check.h"
#include "lib/timeop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <type_traits>
#include <unistd.h>

static constexpr ssize_t NOTHING_WRITTEN = -7;
static constexpr size_t LINE_SIZE = 2048; // holds nearly every formatted record
static constexpr int OPEN_TRIES = 20;     // of a reader, while an owner starts anew
static constexpr timespec OPEN_PAUSE = {0, 1'000'000};
static constexpr int TEMP_MAX = INT_MAX / static_cast<int>(LARD_TEMP_SLOTS);

static_assert(std::is_trivially_copyable_v<lard_meta> && std::is_standard_layout_v<lard_meta>);

// The buffer, the same pages a second time right behind it, and an inaccessible page behind those: a record
// that starts anywhere in the buffer is never split.
struct lard_dbuf {
    bool is_reader;
    int dfd;
    char *data;
    char *overlay;
    char *ddz;
    size_t dlen;
    size_t olen;
    size_t zlen;
};

struct lard_ctx {
    char name[LARD_NAME_MAX + 1];
    int mfd;
    lard_meta *meta;
    size_t buflen;
    lard_dbuf dbuf;
};

struct object_name {
    char text[LARD_NAME_MAX + sizeof("/.meta")];
};

// The ring cannot report through the log that feeds it.
__attribute__((format(printf, 1, 2))) static void complain(const char *format, ...) {
    int err = errno;
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    errno = err;
}

static object_name object_of(const lard_ctx *ring, const char *suffix) {
    object_name object;
    snprintf(object.text, sizeof(object.text), "/%s.%s", ring->name, suffix);
    return object;
}

static size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// --- construction ---

static bool name_allowed(const char *name) {
    size_t len = strlen(name);
    bool allowed = len > 0 && len <= LARD_NAME_MAX && !strchr(name, '/');
    if (!allowed) {
        errno = EINVAL;
        complain("%s: ring name [%.*s] of %zu bytes refused: 1 to %zu bytes without '/'\n", __func__,
                 static_cast<int>(LARD_NAME_MAX), name, len, LARD_NAME_MAX);
    }
    return allowed;
}

// The bound keeps the sums of lengths and offsets far from wrapping.
static bool pages_allowed(const char *name, size_t npages) {
    size_t max = SIZE_MAX / 8 / page_size();
    bool allowed = npages > 0 && npages <= max;
    if (!allowed) {
        errno = EINVAL;
        complain("%s: ring [%s]: page count %zu refused: 1 to %zu\n", __func__, name, npages, max);
    }
    return allowed;
}

static lard_ctx *new_handle(const char *name, bool is_reader) {
    auto *ring = static_cast<lard_ctx *>(calloc(1, sizeof(lard_ctx)));
    if (!ring) {
        complain("%s: calloc(%zu) ERROR(%d): %s\n", __func__, sizeof(lard_ctx), errno, strerror(errno));
        return nullptr;
    }
    memcpy(ring->name, name, strlen(name));
    ring->mfd = ring->dbuf.dfd = -1;
    ring->dbuf.is_reader = is_reader;
    return ring;
}

// Memory that is only promised would end the writer with SIGBUS once the file system is full.
static int reserve(int fd, size_t size) {
    int err;
    do {
        err = posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (err == EINTR);
    return err;
}

// `*fd` is set as soon as the object exists, so that a failure can be undone by it.
static bool make_object(const char *object, size_t size, int *fd) {
    if (shm_unlink(object) != 0 && errno != ENOENT) {
        complain("%s: shm_unlink(%s) ERROR(%d): %s\n", __func__, object, errno, strerror(errno));
        return false;
    }
    *fd = shm_open(object, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (*fd < 0) {
        complain("%s: shm_open(%s) ERROR(%d): %s\n", __func__, object, errno, strerror(errno));
        return false;
    }
    if (ftruncate(*fd, static_cast<off_t>(size)) != 0) {
        complain("%s: ftruncate(fd%d/%s, %lu) ERROR(%d): %s\n", __func__, *fd, object, size, errno,
                 strerror(errno));
        return false;
    }
    if (int err = reserve(*fd, size)) {
        errno = err;
        complain("%s: posix_fallocate(fd%d/%s, %lu) ERROR(%d): %s\n", __func__, *fd, object, size, err,
                 strerror(err));
        return false;
    }
    return true;
}

// `*size` becomes the object's size. Opening never waits: a FIFO may stand where the object should be.
static bool open_object(const char *object, int *fd, size_t *size) {
    struct stat st;

    *fd = shm_open(object, O_RDONLY | O_NONBLOCK, 0);
    if (*fd < 0) {
        complain("%s: shm_open(%s) ERROR(%d): %s\n", __func__, object, errno, strerror(errno));
        return false;
    }
    if (fstat(*fd, &st) != 0) {
        complain("%s: fstat(fd%d/%s) ERROR(%d): %s\n", __func__, *fd, object, errno, strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        complain("%s: %s is no shared-memory object\n", __func__, object);
        return false;
    }
    *size = static_cast<size_t>(st.st_size);
    return true;
}

static bool map_meta(lard_ctx *ring, int prot) {
    void *at = mmap(nullptr, sizeof(lard_meta), prot, MAP_SHARED, ring->mfd, 0);
    if (at == MAP_FAILED) {
        complain("%s: mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", __func__, sizeof(lard_meta), ring->mfd,
                 errno, strerror(errno));
        return false;
    }
    ring->meta = static_cast<lard_meta *>(at);
    return true;
}

// The first mapping spans all three areas, so that the two that are put over its end hit nothing else.
static bool map_data(lard_ctx *ring, size_t npages, int prot) {
    CHECK(npages > 0);
    lard_dbuf *buf = &ring->dbuf;
    int flags = MAP_SHARED | ((prot & PROT_WRITE) ? MAP_POPULATE : 0);
    buf->zlen = page_size();
    ring->buflen = buf->dlen = buf->olen = npages * buf->zlen;
    size_t all = buf->dlen + buf->olen + buf->zlen;

    void *at = mmap(nullptr, all, prot, flags, buf->dfd, 0);
    if (at == MAP_FAILED) {
        complain("%s: BUF mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", __func__, all, buf->dfd, errno,
                 strerror(errno));
        return false;
    }
    buf->data = static_cast<char *>(at);
    at = mmap(buf->data + buf->dlen, buf->olen, prot, flags | MAP_FIXED, buf->dfd, 0);
    if (at == MAP_FAILED) {
        complain("%s: EXT mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", __func__, buf->olen, buf->dfd, errno,
                 strerror(errno));
        return false;
    }
    buf->overlay = static_cast<char *>(at);
    char *guard = buf->overlay + buf->olen;
    at = mmap(guard, buf->zlen, PROT_NONE, MAP_SHARED | MAP_FIXED, buf->dfd, 0);
    if (at == MAP_FAILED) {
        complain("%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", __func__, static_cast<void *>(guard),
                 buf->zlen, buf->dfd, errno, strerror(errno));
        return false;
    }
    buf->ddz = guard;
    return true;
}

static bool make_meta(lard_ctx *ring) {
    if (!make_object(object_of(ring, "meta").text, sizeof(lard_meta), &ring->mfd) ||
        !map_meta(ring, PROT_READ | PROT_WRITE))
        return false;
    memset(ring->meta, 0, sizeof(lard_meta));
    ring->meta->owner_pid = getpid();
    ring->meta->is_closed = false;
    return true;
}

static bool make_data(lard_ctx *ring, size_t npages) {
    return make_object(object_of(ring, "dat").text, npages * page_size(), &ring->dbuf.dfd) &&
           map_data(ring, npages, PROT_READ | PROT_WRITE);
}

static bool open_meta(lard_ctx *ring) {
    size_t size;
    object_name object = object_of(ring, "meta");
    if (!open_object(object.text, &ring->mfd, &size))
        return false;
    if (size != sizeof(lard_meta)) {
        errno = EINVAL;
        complain("%s: %s has %zu bytes where a ring has %zu\n", __func__, object.text, size,
                 sizeof(lard_meta));
        return false;
    }
    return map_meta(ring, PROT_READ);
}

// Whether the name still leads to the object that was opened: an owner that starts anew replaces both
// objects, the meta object first.
static bool is_current(const lard_ctx *ring) {
    struct stat opened, named;
    int fd = shm_open(object_of(ring, "meta").text, O_RDONLY | O_NONBLOCK, 0);
    bool is_same = fd >= 0 && fstat(fd, &named) == 0 && fstat(ring->mfd, &opened) == 0 &&
                   named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
    if (fd >= 0)
        close(fd);
    return is_same;
}

static bool open_data(lard_ctx *ring, size_t npages) {
    size_t size;
    object_name object = object_of(ring, "dat");
    if (!open_object(object.text, &ring->dbuf.dfd, &size))
        return false;
    if (size / page_size() < npages) {
        errno = EINVAL;
        complain("%s: %s has %zu bytes, too few for %zu pages\n", __func__, object.text, size, npages);
        return false;
    }
    return map_data(ring, npages, PROT_READ);
}

// Undoes a construction that failed half-way, with errno kept.
static void abandon(lard_ctx *ring) {
    int err = errno;
    if (!ring->dbuf.is_reader) {
        if (ring->mfd >= 0)
            shm_unlink(object_of(ring, "meta").text);
        if (ring->dbuf.dfd >= 0)
            shm_unlink(object_of(ring, "dat").text);
    }
    lard_close(ring);
    errno = err;
}

lard_t lard_create(const char *name, size_t npages) {
    CHECK(((void *)0) != name);
    if (!name_allowed(name) || !pages_allowed(name, npages))
        return nullptr;
    lard_ctx *ring = new_handle(name, false);
    if (!ring)
        return nullptr;
    if (!make_meta(ring) || !make_data(ring, npages)) {
        abandon(ring);
        return nullptr;
    }
    // Told last: a reader that comes before the data object is there meets a page count of 0.
    __atomic_store_n(&ring->meta->seg_pages, npages, __ATOMIC_RELEASE);
    return ring;
}

// One try to open both objects; `is_restarting` tells that they may be those of two owners, or the second not
// there yet.
static lard_t open_both(const char *name, bool *is_restarting) {
    lard_ctx *ring = new_handle(name, true);
    *is_restarting = false;
    if (!ring)
        return nullptr;
    if (open_meta(ring)) {
        size_t npages = __atomic_load_n(&ring->meta->seg_pages, __ATOMIC_ACQUIRE);
        bool is_open = npages > 0 && pages_allowed(name, npages) && open_data(ring, npages);
        *is_restarting = npages == 0 || !is_current(ring);
        if (is_open && !*is_restarting)
            return ring;
    }
    abandon(ring);
    return nullptr;
}

lard_t lard_open(const char *name) {
    if (!name_allowed(name ? name : ""))
        return nullptr;
    bool is_restarting = true;
    lard_t ring = nullptr;
    for (int i = 0; is_restarting && i < OPEN_TRIES; ++i) {
        if (i > 0)
            nanosleep(&OPEN_PAUSE, nullptr);
        ring = open_both(name, &is_restarting);
    }
    if (is_restarting) {
        errno = EAGAIN;
        complain("%s: ring [%s] is not complete\n", __func__, name);
    }
    return ring;
}

static void unmap(void *at, size_t len, const char *what) {
    if (!at)
        return;
    bool is_unmapped = munmap(at, len) == 0;
    if (!is_unmapped)
        perror(what);
    CHECK(is_unmapped);
}

void lard_close(lard_t ring) {
    if (!ring)
        return;
    lard_dbuf *buf = &ring->dbuf;
    if (ring->meta && !buf->is_reader && ring->meta->owner_pid == getpid())
        __atomic_store_n(&ring->meta->is_closed, true, __ATOMIC_RELEASE);
    unmap(ring->meta, sizeof(lard_meta), "munmap(META)");
    unmap(buf->ddz, buf->zlen, "munmap(DZ)");
    unmap(buf->overlay, buf->olen, "munmap(OVL)");
    unmap(buf->data, buf->dlen + buf->olen + buf->zlen, "munmap(ALL)");
    for (int fd : {ring->mfd, buf->dfd})
        if (fd >= 0)
            close(fd);
    free(ring);
}

void lard_destroy(lard_t ring) {
    lard_close(ring);
}

// --- appending ---

static void set_temp(temp_sensors *sns, int value) {
    size_t idx = sns->idx % LARD_TEMP_SLOTS;
    sns->sum += value - sns->val[idx];
    sns->val[idx] = value;
    sns->idx = (idx + 1) % LARD_TEMP_SLOTS;
}

static char *write_place(const lard_ctx *ring) {
    return ring->dbuf.data + (ring->meta->pld_start + ring->meta->pld_len) % ring->buflen;
}

// Counts the `n` bytes just written at the write place. The start is stored before the length, which
// lard_kept relies on while the ring fills up.
static void note_append(lard_ctx *ring, size_t n) {
    lard_meta *meta = ring->meta;
    size_t start = meta->pld_start;
    size_t len = meta->pld_len;
    if (len < ring->buflen)
        len += n;
    else
        start += n;
    if (len > ring->buflen) {
        start += (len - ring->buflen) % ring->buflen;
        len = ring->buflen;
    }
    __atomic_store_n(&meta->pld_start, start % ring->buflen, __ATOMIC_RELEASE);
    __atomic_store_n(&meta->pld_len, len, __ATOMIC_RELEASE);
    set_clk_now(&meta->write_tm, CLOCK_MONOTONIC);
    set_temp(&meta->sns, 0);
}

// Marks the end of what is about to be overwritten: a reader that meets half a record, also one whose writer
// was killed, finds the zero byte behind it.
static char *begin_write(const lard_ctx *ring, size_t len) {
    char *place = write_place(ring);
    __atomic_store_n(&place[len], '\0', __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    return place;
}

ssize_t lard_write(lard_t ring, const char *text, size_t len) {
    if (len == 0 || ring->dbuf.is_reader)
        return NOTHING_WRITTEN;
    len = std::min(len, ring->buflen - 1);
    memcpy(begin_write(ring, len), text, len);
    note_append(ring, len);
    return static_cast<ssize_t>(len);
}

ssize_t lard_puts(lard_t ring, const char *text) {
    return lard_write(ring, text, strnlen(text, ring->buflen - 1));
}

// A text that is too long must be known as such before it has overwritten what is kept.
ssize_t lard_printf(lard_t ring, const char *format, ...) {
    char line[LINE_SIZE];
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int n = vsnprintf(line, sizeof(line), format, args);
    size_t len = n > 0 ? static_cast<size_t>(n) : 0;
    ssize_t result = NOTHING_WRITTEN;
    if (len < sizeof(line)) {
        result = lard_write(ring, line, len);
    } else if (len < ring->buflen && !ring->dbuf.is_reader) {
        vsnprintf(begin_write(ring, len), ring->buflen, format, again);
        note_append(ring, len);
        result = n;
    }
    va_end(again);
    va_end(args);
    return result;
}

// --- reading ---

// While the ring fills up the oldest byte is the buffer's first; a start beyond it with the length still
// short of the buffer's is a moment of the wrap, when the bytes before the start are already overwritten.
lard_span lard_kept(lard_t ring) {
    size_t len = std::min(__atomic_load_n(&ring->meta->pld_len, __ATOMIC_ACQUIRE), ring->buflen);
    size_t start = __atomic_load_n(&ring->meta->pld_start, __ATOMIC_ACQUIRE) % ring->buflen;
    if (len == ring->buflen)
        return {start, len};
    start = std::min(start, len);
    return {start, len - start};
}

ssize_t lard_snapshot(lard_t ring, int fd) {
    lard_span kept = lard_kept(ring);
    char *data = ring->dbuf.data;
    if (kept.len == ring->buflen && data[kept.start] == '\0') {
        kept.start++;
        kept.len--;
    }
    size_t older = std::min(kept.len, ring->buflen - kept.start);
    iovec parts[] = {{data + kept.start, older}, {data, kept.len - older}};
    return writev(fd, parts, 2);
}

void lard_set_temp(lard_t ring, int value) {
    if (!ring->dbuf.is_reader)
        set_temp(&ring->meta->sns, std::clamp(value, 0, TEMP_MAX));
}

int lard_get_ctemp(lard_t ring) {
    return __atomic_load_n(&ring->meta->sns.sum, __ATOMIC_RELAXED);
}

pid_t lard_owner_pid(lard_t ring) {
    return __atomic_load_n(&ring->meta->owner_pid, __ATOMIC_RELAXED);
}

// Read as a byte: what a foreign object holds there need not be a truth value.
bool lard_is_active(lard_t ring) {
    auto *flag = reinterpret_cast<const unsigned char *>(&ring->meta->is_closed);
    return __atomic_load_n(flag, __ATOMIC_ACQUIRE) == 0;
}

const lard_meta *lard_get_meta(lard_t ring) {
    return ring->meta;
}

const char *lard_get_data(lard_t ring, size_t *len) {
    *len = ring->buflen;
    return ring->dbuf.data;
}
