// The time-out registry: each kind of record that must be looked at for expiry registers its time-out under
// a fixed index, and the event loop sleeps no longer than the smallest registered value.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t TMO_SLOTS = 32;
inline constexpr int64_t MIN_TIMER_VAL = -9999; // no timer: the loop waits without limit

// Indexes in use; the others are free.
enum tmout_index : int {
    URQ_TMOUT = 1,
    TMO_SRC = 2,
    TMO_CONFIG = 3,
    TMO_SWEEP = 4,
    TMO_STATUS = 5,
    TMO_REWRITE = 6,
    TMO_FILES = 7
};

struct tmo_rec {
    int64_t val; // milliseconds
    uint64_t lk; // registrants
};

struct tmout_registry {
    tmo_rec rec[TMO_SLOTS];
    int64_t min; // milliseconds, the smallest `val` in use, or MIN_TIMER_VAL
};

// Each works on an explicit registry. An index outside the table and a value below MIN_TIMER_VAL are
// assertion failures. The first registrant of an index sets its value, later ones only count.
void reg_init_timeout(tmout_registry *reg);
void reg_set_timeout(tmout_registry *reg, int index, int64_t val);
void reg_rm_timeout(tmout_registry *reg, int index);
int64_t reg_get_timeout(const tmout_registry *reg, int index);
int64_t reg_min_timeout(const tmout_registry *reg);

// The same on the process-wide registry.
void init_timeout_registry();
void set_timeout(int index, int64_t val);
void rm_timeout(int index);
int64_t get_timeout(int index);
// For an index with one registrant, which has its time-out as long as `is_wanted`.
void keep_timeout(int index, int64_t val, bool is_wanted);
int64_t get_min_timeout();
