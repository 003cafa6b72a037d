/* Both copies of a message, the budget of a connection, and debug tokens. */

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
    const std::string pid = std::to_string(getpid());
    struct {
        tpg_log_level level;
        std::string console;
    } levels[] = {
        {tpg_log_level::error, R"(\|Error \(tpg:)" + pid + R"(\)\|log_test.cpp:\d+: a b)"},
        {tpg_log_level::warn, R"(\|Warn \(tpg:)" + pid + R"(\)\|log_test.cpp:\d+: a b)"},
        {tpg_log_level::info, R"(\|Info \(tpg:)" + pid + R"(\)\|: a b)"},
        {tpg_log_level::debug, R"(\|Debug \(tpg:)" + pid + R"(\)\|: a b)"}};
    for (uint8_t threshold = 0; threshold < 9; threshold++) {
        const auto ctx = new_context(threshold);
        for (const auto& [level, console] : levels) {
            syslog_text.clear();
            const bool passes = threshold >= static_cast<int>(level);
            const std::string text = written(ctx.get(), level, "a b");
            EXPECT_TRUE(std::regex_match(text, std::regex(passes ? console + "\n" : ""))) << text;
            const std::string line = std::to_string(static_cast<int>(level)) + " log_test.cpp:";
            EXPECT_TRUE(syslog_text.starts_with(passes ? line : "")) << syslog_text;
            EXPECT_EQ(syslog_text.ends_with(": a b"), passes);
        }
    }
    const auto ctx = new_context();
    ctx->log_console = 0;
    EXPECT_EQ(written(ctx.get(), tpg_log_level::error, "x"), "");
    EXPECT_TRUE(syslog_text.ends_with(": x"));
    EXPECT_STREQ(tpg_log_basename("/a/b.c"), "b.c");
}

TEST(log, texts_from_outside)
{
    const auto ctx = new_context();
    written(ctx.get(), tpg_log_level::info, "a\nb\x1b[0m\x7f\xe4~ %s");
    EXPECT_TRUE(syslog_text.ends_with(R"(: a\x0ab\x1b[0m\x7f\xe4~ %s)")) << syslog_text;
    written(ctx.get(), tpg_log_level::info, std::string(5000, 'x'));
    EXPECT_TRUE(syslog_text.size() > 2000 && syslog_text.size() < 2100);
    written(ctx.get(), tpg_log_level::info, std::string(5000, '\n'));
    EXPECT_TRUE(syslog_text.ends_with(R"(\x0a)") && syslog_text.size() < 2100);
}

TEST(log, budget_of_a_connection)
{
    const auto ctx = new_context();
    tpg_log_budget_t budget = {};
    const auto emit = [&] { TPG_ERROR(ctx.get(), "line"); };
    bool same_second = false;
    for (int attempt = 0; attempt < 5 && !same_second; attempt++) {
        budget = {};
        budget.fd = 9;
        tpg_log_charge(ctx.get(), &budget);
        syslog_total = 0;
        log_of([&] {
            emit();
            const time_t second = budget.second;
            for (int i = 1; i < 203; i++) {
                emit();
            }
            same_second = budget.second == second;
        });
    }
    ASSERT_TRUE(same_second);
    EXPECT_EQ(syslog_total, 200);
    EXPECT_EQ(budget.dropped, 3U);
    tpg_log_charge(ctx.get(), nullptr);
    EXPECT_EQ(log_of(emit), "Error line\n");
    tpg_log_charge(ctx.get(), &budget);
    budget.second = 0;
    EXPECT_EQ(log_of(emit), "Warn 3 more lines about connection FD 9 are left out\nError line\n");
    EXPECT_EQ(budget.lines, 1U);
    EXPECT_EQ(log_of([&] { tpg_log_settle(ctx.get(), &budget); }), "");
}

TEST(log, tokens)
{
    char list[] = "a,b,,c,d,e,f,readcb,0123456789012345678901234567890123456789,i";
    tpg_debug_tokens_set(list);
    EXPECT_EQ(tpg_debug_tokens_total, 8);
    EXPECT_STREQ(tpg_debug_tokens[7], "0123456789012345678901234567890");
    EXPECT_EQ(tpg_token_enabled("readcb"), 1);
    for (const char* token : {"i", "READCB", "read", "readcbx", ""}) {
        EXPECT_EQ(tpg_token_enabled(token), 0);
    }
    const auto ctx = new_context();
    EXPECT_EQ(log_of([&] {
                  TPG_TRACE(ctx.get(), "readcb", "on");
                  TPG_TRACE(ctx.get(), "trap", "off");
              }),
              "Error on\n");
    char later[] = "trap";
    tpg_debug_tokens_set(later);
    EXPECT_EQ(tpg_token_enabled("a") + tpg_token_enabled("trap"), 1);
    tpg_debug_tokens_total = 0;
}
