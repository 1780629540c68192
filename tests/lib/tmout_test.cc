#include "lib/tmout.h"

#include "tests/capture.h"

#include <climits>

TEST(Tmout, FirstValueWinsAndTheMinimumFollows) {
    LogCapture log;
    init_timeout_registry();
    EXPECT_EQ(get_min_timeout(), MIN_TIMER_VAL);
    enum op { SET, RM };
    struct {
        op what;
        int index;
        int64_t val, kept, min;
    } steps[] = {{SET, URQ_TMOUT, 3000, 3000, 3000},
                 {SET, URQ_TMOUT, 10, 3000, 3000}, // only counts
                 {SET, TMO_SRC, 30000, 30000, 3000},
                 {SET, 31, 0, 0, 0},
                 {SET, 0, 5, 5, 0},
                 {RM, URQ_TMOUT, 0, 3000, 0},
                 {RM, 31, 0, 0, 5},
                 {RM, 0, 0, 0, 3000},
                 {RM, URQ_TMOUT, 0, 0, 30000},
                 {RM, URQ_TMOUT, 0, 0, 30000}, // nobody left there
                 {SET, URQ_TMOUT, 10, 10, 10}, // a first registrant again
                 {SET, 3, INT64_MAX - 1, INT64_MAX - 1, 10},
                 {RM, TMO_SRC, 0, 0, 10}, // not the smallest
                 {RM, URQ_TMOUT, 0, 0, INT64_MAX - 1},
                 {RM, 3, 0, 0, MIN_TIMER_VAL},
                 {SET, 3, MIN_TIMER_VAL, MIN_TIMER_VAL, MIN_TIMER_VAL},
                 {RM, 3, 0, 0, MIN_TIMER_VAL}};
    for (size_t i = 0; i < std::size(steps); ++i) {
        auto &s = steps[i];
        s.what == SET ? set_timeout(s.index, s.val) : rm_timeout(s.index);
        EXPECT_EQ(get_timeout(s.index), s.kept) << "step " << i;
        EXPECT_EQ(get_min_timeout(), s.min) << "step " << i;
    }
}
