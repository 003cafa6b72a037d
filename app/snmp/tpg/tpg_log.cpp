#include "tpg_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

static void tpg_log_emit(const tpg_context_t*, tpg_log_level, tpg_log_end, tpg_log_pos_t,
                         const char*);
static size_t tpg_log_escape(char*, size_t, const char*);
static bool tpg_log_within_budget(tpg_context_t*, tpg_log_level);
static const char* tpg_log_tag(tpg_log_level);

constexpr size_t LOG_TEXT_MAX = 2048; /* longer texts are cut */

tpg_context_t ctx_local;
char tpg_debug_tokens[TPG_DEBUG_TOKENS][TPG_DEBUG_TOKEN_LEN];
int32_t tpg_debug_tokens_total;

void tpg_log_open()
{
    openlog(TPG_LOG_IDENT, LOG_PID | LOG_NDELAY, LOG_USER);
}

void tpg_log_write(tpg_context_t* ctx, tpg_log_level level, tpg_log_end end, tpg_log_pos_t pos,
                   const char* fmt, ...)
{
    if (!tpg_log_within_budget(ctx, level)) {
        return;
    }
    char raw[LOG_TEXT_MAX];
    va_list args;
    va_start(args, fmt);
    vsnprintf(raw, sizeof(raw), fmt, args);
    va_end(args);

    char text[LOG_TEXT_MAX];
    tpg_log_escape(text, sizeof(text), raw);
    tpg_log_emit(ctx, level, end, pos, text);
}

static void tpg_log_emit(const tpg_context_t* ctx, tpg_log_level level, tpg_log_end end,
                         tpg_log_pos_t pos, const char* text)
{
    syslog(static_cast<int>(level), "%s:%d: %s", pos.file, pos.line, text);
    if (ctx->log_console == 0) {
        return;
    }
    const char* eol = end == tpg_log_end::line ? "\n" : "";
    if (level == tpg_log_level::error || level == tpg_log_level::warn) {
        fprintf(stderr, "|%s (%s:%d)|%s:%d: %s%s", tpg_log_tag(level), TPG_LOG_IDENT, getpid(),
                pos.file, pos.line, text, eol);
    } else {
        fprintf(stderr, "|%s (%s:%d)|: %s%s", tpg_log_tag(level), TPG_LOG_IDENT, getpid(), text,
                eol);
    }
}

static const char* tpg_log_tag(tpg_log_level level)
{
    switch (level) {
    case tpg_log_level::error:
        return "Error";
    case tpg_log_level::warn:
        return "Warn";
    case tpg_log_level::info:
        return "Info";
    case tpg_log_level::debug:
        break;
    }
    return "Debug";
}

/* Returns the length of the escaped text in out. */
static size_t tpg_log_escape(char* out, size_t size, const char* text)
{
    constexpr size_t ESCAPED_LEN = 4; /* \xNN */
    size_t len = 0;
    for (const char* c = text; *c != '\0' && len + ESCAPED_LEN < size; c++) {
        const auto byte = static_cast<unsigned char>(*c);
        if (byte >= ' ' && byte < 0x7f) {
            out[len++] = *c;
        } else {
            len += static_cast<size_t>(snprintf(out + len, size - len, "\\x%02x", byte));
        }
    }
    out[len] = '\0';
    return len;
}

void tpg_log_charge(tpg_context_t* ctx, tpg_log_budget_t* budget)
{
    ctx->log_budget = budget;
}

void tpg_log_settle(tpg_context_t* ctx, tpg_log_budget_t* budget)
{
    const uint32_t dropped = budget->dropped;
    budget->lines = 0;
    budget->dropped = 0;
    if (dropped == 0) {
        return;
    }
    tpg_log_budget_t* charged = ctx->log_budget;
    ctx->log_budget = nullptr;
    TPG_WARN(ctx, "%u more lines about connection FD %d are left out", dropped, budget->fd);
    ctx->log_budget = charged;
}

/*
 * False when the connection being served has used up its lines of this
 * second. Whoever debugs gets every line.
 */
static bool tpg_log_within_budget(tpg_context_t* ctx, tpg_log_level level)
{
    tpg_log_budget_t* budget = ctx->log_budget;
    if (budget == nullptr || ctx->log_level > TPG_LOG_LEVEL_DEFAULT || tpg_debug_tokens_total > 0) {
        return true;
    }
    const time_t now = time(nullptr);
    if (now != budget->second) {
        budget->second = now;
        tpg_log_settle(ctx, budget);
    }
    const bool warning = level == tpg_log_level::warn;
    if (budget->lines >= (warning ? TPG_LOG_BUDGET_WARNINGS : TPG_LOG_BUDGET_LINES)) {
        budget->dropped++;
        return false;
    }
    budget->lines++;
    return true;
}

int tpg_token_enabled(const char* token)
{
    for (int i = 0; i < tpg_debug_tokens_total; i++) {
        if (strcmp(tpg_debug_tokens[i], token) == 0) {
            return 1;
        }
    }
    return 0;
}

void tpg_debug_tokens_set(char* list)
{
    int total = 0;
    char* rest = nullptr;
    for (char* piece = strtok_r(list, ",", &rest); piece != nullptr && total < TPG_DEBUG_TOKENS;
         piece = strtok_r(nullptr, ",", &rest)) {
        snprintf(tpg_debug_tokens[total], TPG_DEBUG_TOKEN_LEN, "%s", piece);
        total++;
    }
    tpg_debug_tokens_total = total;
}
