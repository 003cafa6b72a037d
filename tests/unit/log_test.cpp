/* Both copies of a message, and the budget of a connection. */

#include "unit.h"

#include <cstdarg>
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

static std::string written(tpg_context_t* ctx, tpg_log_level level, const std::string& text)
{
    testing::internal::CaptureStderr();
    TPG_LOG_AT(ctx, level, tpg_log_end::line, "%s", text.c_str());
    return testing::internal::GetCapturedStderr();
}

TEST(log, copies_and_thresholds)
{
    const std::pair<tpg_log_level, const char*> levels[] = {
        {tpg_log_level::error, R"(\|Error \(tpg:\d+\)\|log_test.cpp:\d+: a b\n)"},
        {tpg_log_level::warn, R"(\|Warn \(tpg:\d+\)\|log_test.cpp:\d+: a b\n)"},
        {tpg_log_level::info, R"(\|Info \(tpg:\d+\)\|: a b\n)"},
        {tpg_log_level::debug, R"(\|Debug \(tpg:\d+\)\|: a b\n)"}};
    for (uint8_t threshold = 0; threshold < 9; threshold++) {
        const auto ctx = new_context(threshold);
        for (const auto& [level, line] : levels) {
            syslog_text.clear();
            const bool passes = threshold >= static_cast<int>(level);
            const std::string text = written(ctx.get(), level, "a b");
            EXPECT_TRUE(std::regex_match(text, std::regex(passes ? line : ""))) << text;
            const std::string start = std::to_string(static_cast<int>(level)) + " log_test.cpp:";
            EXPECT_TRUE(syslog_text.starts_with(passes ? start : "")) << syslog_text;
            EXPECT_EQ(syslog_text.ends_with(": a b"), passes);
        }
    }
    const auto ctx = new_context();
    ctx->log_console = 0;
    EXPECT_EQ(written(ctx.get(), tpg_log_level::error, "x"), "");
    EXPECT_TRUE(syslog_text.ends_with(": x"));
}

TEST(log, texts_from_outside)
{
    const auto ctx = new_context();
    for (const auto& [text, end] :
         {std::pair<std::string, const char*>{"a\nb\x1b[0m\x7f\xe4~ %s",
                                              R"(: a\x0ab\x1b[0m\x7f\xe4~ %s)"},
          {std::string(5000, 'x'), "xxx"},
          {std::string(5000, '\n'), R"(\x0a)"}}) {
        written(ctx.get(), tpg_log_level::info, text);
        EXPECT_TRUE(syslog_text.ends_with(end)) << syslog_text;
        EXPECT_TRUE(text.size() < 5000 || (syslog_text.size() > 2000 && syslog_text.size() < 2100));
    }
}

TEST(log, budget_of_a_connection)
{
    const auto ctx = new_context();
    tpg_log_budget_t budget = {};
    const auto emit = [&] { TPG_ERROR(ctx.get(), "line"); };
    time_t begin = 0;
    const auto emit_many = [&] {
        budget = {};
        budget.fd = 9;
        tpg_log_charge(ctx.get(), &budget);
        syslog_total = 0;
        for (int i = 0; i < 160; i++) {
            TPG_WARN(ctx.get(), "detail");
        }
        for (int i = 0; i < 53; i++) {
            emit();
        }
    };
    for (int i = 0; time(nullptr) != begin && i < 60; i++) { /* until all are of one second */
        begin = time(nullptr);
        log_of(emit_many);
    }
    EXPECT_EQ(syslog_total, 200);
    EXPECT_EQ(budget.dropped, 13U); /* 10 warnings for the sake of the others, and 3 */
    tpg_log_charge(ctx.get(), nullptr);
    EXPECT_EQ(log_of(emit), "Error line\n");
    tpg_log_charge(ctx.get(), &budget);
    budget.second = 0;
    EXPECT_EQ(log_of(emit), "Warn 13 more lines about connection FD 9 are left out\nError line\n");
}
