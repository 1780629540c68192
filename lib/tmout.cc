#include "lib/tmout.h"

#include "lib/check.h"
#include "lib/log.h"

LOG_UNIT(LOG_MOD_APP);

static tmout_registry g_registry;

void reg_init_timeout(tmout_registry *reg) {
    *reg = {};
    reg->min = MIN_TIMER_VAL;
}

static tmo_rec *slot(tmout_registry *reg, int index) {
    CHECK(index >= 0 && index < static_cast<int>(TMO_SLOTS));
    return &reg->rec[index];
}

void reg_set_timeout(tmout_registry *reg, int index, int64_t val) {
    CHECK(val >= MIN_TIMER_VAL);
    tmo_rec *rec = slot(reg, index);
    if (++rec->lk == 1) {
        rec->val = val;
        if (reg->min < 0 || reg->min > val)
            reg->min = val;
    }
    LOG_FN(LL_DEBUG, "timeout[%d] lk=%lu val=%ld, min_val=%ld\n", index, rec->lk, rec->val, reg->min);
}

static int64_t smallest_in_use(const tmout_registry *reg) {
    int64_t min = INT64_MAX;
    bool is_found = false;
    for (size_t i = 0; i < TMO_SLOTS; ++i) {
        const tmo_rec &rec = reg->rec[i];
        if (rec.lk > 0 && rec.val < min) {
            min = rec.val;
            is_found = true;
            LOG(LL_DEBUG, "%s: picked rec[%ld] val=%ld, lk=%lu\n", "reg_rm_timeout", static_cast<long>(i),
                rec.val, rec.lk);
        }
    }
    return is_found ? min : MIN_TIMER_VAL;
}

void reg_rm_timeout(tmout_registry *reg, int index) {
    tmo_rec *rec = slot(reg, index);
    if (rec->lk == 0)
        return;
    if (--rec->lk > 0) {
        LOG_FN(LL_DEBUG, "timeout[%d] lk=%lu\n", index, rec->lk);
        return;
    }
    int64_t old = rec->val;
    rec->val = 0;
    if (reg->min == 0 || reg->min >= old)
        reg->min = smallest_in_use(reg);
}

int64_t reg_get_timeout(const tmout_registry *reg, int index) {
    return slot(const_cast<tmout_registry *>(reg), index)->val;
}

int64_t reg_min_timeout(const tmout_registry *reg) {
    return reg->min;
}

void init_timeout_registry() {
    reg_init_timeout(&g_registry);
}

void set_timeout(int index, int64_t val) {
    reg_set_timeout(&g_registry, index, val);
}

void rm_timeout(int index) {
    reg_rm_timeout(&g_registry, index);
}

void keep_timeout(int index, int64_t val, bool is_wanted) {
    if (!is_wanted)
        rm_timeout(index);
    else if (slot(&g_registry, index)->lk == 0)
        set_timeout(index, val);
}

int64_t get_timeout(int index) {
    return reg_get_timeout(&g_registry, index);
}

int64_t get_min_timeout() {
    return reg_min_timeout(&g_registry);
}
