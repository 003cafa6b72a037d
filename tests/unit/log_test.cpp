/* How many messages a place may write. */

#include "tpg_log_library.h"
#include "unit.h"

#include <cstdarg>
#include <event2/event.h>
#include <syslog.h>

/* The last message to syslog, and how many there were. */
static std::string syslog_text;
static int syslog_total;

static void record(int priority, const char* format, va_list args)
{
    char text[4096];
    vsnprintf(text, sizeof(text), format, args); // NOLINT(clang-analyzer-valist.Uninitialized)
    syslog_text = std::to_string(priority) + " " + text;
    syslog_total++;
}

/* In place of the C library's, which is called by either name. */
extern "C" {
void syslog(int __pri, const char* __fmt, ...)
{
    va_list args;
    va_start(args, __fmt);
    record(__pri, __fmt, args);
    va_end(args);
}
void __syslog_chk(int __pri, int, const char* __fmt, ...)
{
    va_list args;
    va_start(args, __fmt);
    record(__pri, __fmt, args);
    va_end(args);
}
}

/* How many lines come of count of them from one place about a slot. */
static int lines_of(tpg_context_t* ctx, uint32_t slot, int count, int line = 7)
{
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot);
    syslog_total = 0;
    for (int i = 0; i < count; i++) {
        tpg_log_write(ctx, tpg_log_level::warn, tpg_log_end::line, {"log.cpp", line}, "text %d", i);
    }
    return syslog_total;
}

static std::string sum_of(tpg_context_t* ctx)
{
    return log_of([ctx] { tpg_log_sum_up(ctx); });
}

/* Forgets what it stands for, or lets the places make up for so many lines. */
static void time_passes(tpg_context_t* ctx, int64_t lines)
{
    for (auto& set : ctx->log_limit.places) {
        for (tpg_log_place_t& place : set) {
            place.paid_until -= lines * TPG_LOG_LINE_MS;
        }
    }
}

struct log_limit : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();

    void SetUp() override
    {
        ctx->log_console = 0;
    }
    std::string sum()
    {
        ctx->log_console = 1;
        const std::string text = sum_of(ctx.get());
        ctx->log_console = 0;
        return text;
    }
};

TEST_F(log_limit, is_a_places_and_a_slots_own)
{
    EXPECT_EQ(lines_of(ctx.get(), 5, 5000), TPG_LOG_BURST);
    EXPECT_EQ(lines_of(ctx.get(), 4, 1) + lines_of(ctx.get(), 5, 1, 8), 2);
    EXPECT_EQ(lines_of(ctx.get(), 99, 600), TPG_LOG_BURST); /* of no slot */
    EXPECT_EQ(lines_of(ctx.get(), 0, 1), 0);
    std::string sums = sum();
    EXPECT_TRUE(has(sums, "Warn 4488 more like this (log.cpp:7, slot 5), the last: text 4999\n"));
    EXPECT_TRUE(has(sums, "Warn 89 more like this (log.cpp:7), the last: text 0\n")) << sums;
    EXPECT_EQ(sum(), "");
    time_passes(ctx.get(), 5);
    EXPECT_EQ(lines_of(ctx.get(), 5, 100), 5); /* as many as a second brings */
    for (const bool token : {false, true}) {
        ctx->log_level = token ? TPG_LOG_LEVEL_DEFAULT : TPG_LOG_LEVEL_DEBUG;
        tpg_debug_tokens_total = token ? 1 : 0;
        EXPECT_EQ(lines_of(ctx.get(), 5, 5000), 5000);
    }
    tpg_debug_tokens_total = 0;
    EXPECT_TRUE(has(sum(), "Warn 95 more like this (log.cpp:7, slot 5), the last: text 99\n"));
}

/* The sum comes whether or not anybody speaks, and at once when the loop is late. */
TEST_F(log_limit, is_summed_up_in_time)
{
    ctx->levent_base = event_base_new();
    for (int round = 0; round < 2; round++) {
        lines_of(ctx.get(), 5, 600);
        syslog_text.clear();
        tpg_log_before_turn(ctx.get());
        EXPECT_EQ(event_base_loop(ctx->levent_base, EVLOOP_ONCE), 0);
        EXPECT_TRUE(has(syslog_text, " more like this")) << syslog_text;
    }
    lines_of(ctx.get(), 5, 600);
    ctx->log_limit.sum_at -= 1000;
    EXPECT_EQ(lines_of(ctx.get(), 6, 1), 2);
    lines_of(ctx.get(), 5, 600);
    tpg_log_before_turn(ctx.get());
    tpg_log_close(ctx.get());
    EXPECT_TRUE(has(syslog_text, " more like this")) << syslog_text;
    EXPECT_EQ(event_base_loop(ctx->levent_base, EVLOOP_ONCE), 1); /* no timer is left */
    event_base_free(ctx->levent_base);
}

TEST(log_library, lines_keep_their_levels)
{
    const auto ctx = new_context();
    tpg_log_library_take(ctx.get());
    EXPECT_EQ(log_of([] {
                  snmp_log(LOG_ERR, "one\n\ntwo\n");
                  snmp_log(LOG_WARNING, "three\n");
                  snmp_log(LOG_NOTICE, "four\n");
              }),
              "Error one\nError two\nWarn three\nInfo four\n");
}
