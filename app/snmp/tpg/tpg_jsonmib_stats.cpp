/* Counters and answer times of a slot. */
#include "tpg_jsonmib_stats.h"

#include <algorithm>
#include <bit>

static jsonmib_stats_t* stats_of(tpg_context_t*, uint32_t);
static uint32_t step_of(uint32_t);
static int64_t middle_of(uint32_t);

constexpr int64_t STRETCH_US = 10000000;
/* Times below this many microseconds have a step each, and each doubling above has as many. */
constexpr uint32_t STEPS = 8;
constexpr uint32_t STEPS_LOG = 3;

/* Null for slot 0, the built-in tables. */
static jsonmib_stats_t* stats_of(tpg_context_t* ctx, uint32_t slot_no)
{
    return slot_no < 1 || slot_no > TPG_SLOT_MAX ? nullptr : &ctx->jsonmib_stats[slot_no - 1];
}

/* ---- exchanges ---- */

void jsonmib_stats_asked(tpg_context_t* ctx, uint32_t slot_no)
{
    stats_of(ctx, slot_no)->asked++;
}

void jsonmib_stats_why(tpg_context_t* ctx, uint32_t slot_no, const char* why)
{
    stats_of(ctx, slot_no)->why = why;
}

void jsonmib_stats_ended(tpg_context_t* ctx, uint32_t slot_no, int result)
{
    jsonmib_stats_t* stats = stats_of(ctx, slot_no);
    if (result != 0) {
        stats->failed++;
        stats->failed_why = stats->why;
        stats->failed_result = result;
        stats->failed_at = time(nullptr);
    }
    jsonmib_stats_look(ctx, slot_no);
}

void jsonmib_stats_look(tpg_context_t* ctx, uint32_t slot_no)
{
    const jsonmib_queue_t* queue = &ctx->jsonmib_queue[slot_no - 1];
    jsonmib_stats_t* stats = stats_of(ctx, slot_no);
    jsonmib_daemon_t state = jsonmib_daemon_t::idle;
    if (queue->silent) {
        state = jsonmib_daemon_t::silent;
    } else if (queue->down || stats->hung_up) {
        state = jsonmib_daemon_t::down;
    } else if (ctx->jsonmib_ipc_info[slot_no - 1].connected != 0) {
        state = jsonmib_daemon_t::connected;
    }
    if (state != stats->daemon) {
        stats->daemon = state;
        stats->daemon_since = time(nullptr);
    }
}

void jsonmib_stats_connected(tpg_context_t* ctx, uint32_t slot_no, bool connected)
{
    stats_of(ctx, slot_no)->hung_up = !connected;
    jsonmib_stats_look(ctx, slot_no);
}

/* ---- answer times ---- */

static uint32_t step_of(uint32_t time_us)
{
    if (time_us < STEPS) {
        return time_us;
    }
    const auto doubling = static_cast<uint32_t>(std::bit_width(time_us)) - 1;
    const uint32_t within = (time_us >> (doubling - STEPS_LOG)) % STEPS;
    return std::min((doubling - STEPS_LOG + 1) * STEPS + within, JSONMIB_TIMES_STEPS - 1);
}

/* The time in the middle of a step. */
static int64_t middle_of(uint32_t step)
{
    if (step < STEPS) {
        return step;
    }
    const uint32_t shift = step / STEPS - 1;
    return (int64_t{STEPS + step % STEPS} << shift) + (int64_t{1} << shift) / 2;
}

void jsonmib_stats_answered(tpg_context_t* ctx, uint32_t slot_no, int64_t sent_at, int64_t now)
{
    const int64_t stretch = now / STRETCH_US;
    jsonmib_times_t* times =
        &stats_of(ctx, slot_no)->times[static_cast<uint64_t>(stretch) % JSONMIB_TIMES_COLUMNS];
    if (times->stretch != stretch) {
        *times = {};
        times->stretch = stretch;
    }
    const auto took = static_cast<uint32_t>(std::clamp<int64_t>(now - sent_at, 0, UINT32_MAX));
    times->largest = std::max(times->largest, took);
    times->count[step_of(took)]++;
}

jsonmib_stats_times_t jsonmib_stats_times(const tpg_context_t* ctx, uint32_t slot_no, int64_t now)
{
    uint64_t count[JSONMIB_TIMES_STEPS] = {};
    uint64_t total = 0;
    jsonmib_stats_times_t result = {-1, -1};
    for (const jsonmib_times_t& times : ctx->jsonmib_stats[slot_no - 1].times) {
        if (times.stretch <= now / STRETCH_US - int64_t{JSONMIB_TIMES_COLUMNS}) {
            continue;
        }
        for (uint32_t step = 0; step < JSONMIB_TIMES_STEPS; step++) {
            count[step] += times.count[step];
            total += times.count[step];
        }
        result.largest = std::max<int64_t>(result.largest, times.largest);
    }
    if (total == 0) {
        return {-1, -1};
    }
    uint32_t step = 0;
    for (uint64_t below = count[0]; below * 2 < total; below += count[step]) {
        step++;
    }
    result.median = std::min(middle_of(step), result.largest);
    return result;
}

/* ---- traps, document ---- */

void jsonmib_stats_trap(tpg_context_t* ctx, uint32_t slot_no, bool sent)
{
    jsonmib_stats_t* stats = stats_of(ctx, slot_no);
    if (stats != nullptr) {
        (sent ? stats->traps_sent : stats->traps_kept_back)++;
    }
}

void jsonmib_stats_source(tpg_context_t* ctx, uint32_t slot_no, jsonmib_source_t source)
{
    jsonmib_stats_t* stats = stats_of(ctx, slot_no);
    if (stats != nullptr) {
        stats->source = source;
    }
}
