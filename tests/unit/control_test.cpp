/* Whom the operators' socket serves, and how answer times are summed up. */

#include "tpg_jsonmib_stats.h"
#include "tpg_main_control.h"
#include "unit.h"

TEST(Control, ServesRootAndTheAgentsOwnUser)
{
    EXPECT_TRUE(tpg_control_serves(0, 0) && tpg_control_serves(0, 77) &&
                tpg_control_serves(77, 77));
    EXPECT_FALSE(tpg_control_serves(77, 0) || tpg_control_serves(78, 77));
}

TEST(Stats, KeepAMinuteOfAnswerTimes)
{
    constexpr int64_t SECOND = 1000000, START = 1000 * SECOND;
    const auto ctx = new_context();
    const auto times = [&](int64_t now) {
        const auto sums = jsonmib_stats_times(ctx.get(), 3, now);
        return std::pair(sums.median, sums.largest);
    };
    const std::pair<int64_t, int64_t> none = {-1, -1};
    EXPECT_EQ(times(START), none);
    for (const int64_t took : {int64_t{5}, int64_t{700}, 9 * SECOND}) {
        jsonmib_stats_answered(ctx.get(), 3, START - took, START);
    }
    EXPECT_NEAR(static_cast<double>(times(START).first), 700, 700 * 0.07);
    EXPECT_EQ(times(START + 59 * SECOND).second, 9 * SECOND);
    EXPECT_EQ(times(START + 60 * SECOND), none);
    jsonmib_stats_answered(ctx.get(), 3, START, START + 60 * SECOND + 7); /* in the first's place */
    EXPECT_EQ(times(START + 61 * SECOND).second, 60 * SECOND + 7);
    jsonmib_stats_answered(ctx.get(), 3, START + 61 * SECOND, START + 61 * SECOND); /* 0 us */
    EXPECT_EQ(times(START + 61 * SECOND).first, 0);
    for (uint32_t took = 1; took < 16 * SECOND; took = took * 5 / 4 + 1) { /* each by itself */
        const int64_t now = START + 100 * SECOND * took;
        jsonmib_stats_answered(ctx.get(), 4, now - took, now);
        const auto sums = jsonmib_stats_times(ctx.get(), 4, now);
        EXPECT_NEAR(static_cast<double>(sums.median), took, took * 0.07);
    }
}
