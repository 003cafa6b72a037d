/* Lines to syslog and console; how many of them. */

#include "tpg_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <event2/event.h>
#include <syslog.h>
#include <unistd.h>

static void tpg_log_emit(const tpg_context_t*, tpg_log_level, tpg_log_end, tpg_log_pos_t,
                         const char*);
static size_t tpg_log_escape(char*, size_t, const char*);
static tpg_log_place_t* tpg_log_leave_out(tpg_context_t*, tpg_log_level, tpg_log_pos_t);
static bool tpg_log_is_limited(const tpg_context_t*);
static int64_t tpg_log_now();
static tpg_log_place_t* tpg_log_find_place(tpg_log_limit_t*, tpg_log_pos_t, int64_t);
static bool tpg_log_take_line(tpg_log_place_t*, int64_t);
static void tpg_log_tell_sum(tpg_context_t*, const tpg_log_place_t*);
static void tpg_log_timer_cb(int, short, void*);
static const char* tpg_log_tag(tpg_log_level);

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
    tpg_log_place_t* place = tpg_log_leave_out(ctx, level, pos);
    char raw[TPG_LOG_TEXT_MAX];
    va_list args;
    va_start(args, fmt);
    vsnprintf(place == nullptr ? raw : place->last,
              place == nullptr ? sizeof(raw) : sizeof(place->last), fmt, args);
    va_end(args);
    if (place == nullptr) {
        char text[TPG_LOG_TEXT_MAX];
        tpg_log_escape(text, sizeof(text), raw);
        tpg_log_emit(ctx, level, end, pos, text);
    }
}

static void tpg_log_emit(const tpg_context_t* ctx, tpg_log_level level, tpg_log_end end,
                         tpg_log_pos_t pos, const char* text)
{
    if (ctx->log_taker != nullptr) {
        ctx->log_taker(ctx->log_taker_arg, level, text);
        return;
    }
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

/* ---- limit ---- */

/* Null when the line may be written; otherwise its place, where it has been counted as left out. */
static tpg_log_place_t* tpg_log_leave_out(tpg_context_t* ctx, tpg_log_level level,
                                          tpg_log_pos_t pos)
{
    tpg_log_limit_t* limit = &ctx->log_limit;
    if (!tpg_log_is_limited(ctx)) {
        return nullptr;
    }
    const int64_t now = tpg_log_now();
    if (limit->sum_at != 0 && now >= limit->sum_at) {
        tpg_log_sum_up(ctx); /* the event loop is late */
    }
    tpg_log_place_t* place = tpg_log_find_place(limit, pos, now);
    if (tpg_log_take_line(place, now)) {
        return nullptr;
    }
    place->left_out++;
    place->level = static_cast<uint8_t>(level);
    limit->sum_at = limit->sum_at == 0 ? now + TPG_LOG_SUM_MS : limit->sum_at;
    return place;
}

/* Whoever debugs gets every line, and whoever takes them. */
static bool tpg_log_is_limited(const tpg_context_t* ctx)
{
    return ctx->log_taker == nullptr && ctx->log_level <= TPG_LOG_LEVEL_DEFAULT &&
           tpg_debug_tokens_total == 0;
}

/* Milliseconds of the monotonic clock. */
static int64_t tpg_log_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/*
 * The place's record. If it has none yet it takes one whose lines are all paid
 * for, as that is as good as new. If there is none such in the set, it shares
 * the one that is nearest to it.
 */
static tpg_log_place_t* tpg_log_find_place(tpg_log_limit_t* limit, tpg_log_pos_t pos, int64_t now)
{
    constexpr uint32_t SCATTER = 2654435761;
    const auto file = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pos.file));
    const uint32_t number = file + static_cast<uint32_t>(pos.line) * 16 + limit->slot;
    tpg_log_place_t* set = limit->places[(number * SCATTER >> 16U) % TPG_LOG_SETS];
    tpg_log_place_t* end = set + TPG_LOG_WAYS;
    tpg_log_place_t* found = std::find_if(set, end, [&](const tpg_log_place_t& place) {
        return place.file == pos.file && place.line == pos.line && place.slot == limit->slot;
    });
    if (found != end) {
        return found;
    }
    found = std::min_element(set, end, [](const tpg_log_place_t& a, const tpg_log_place_t& b) {
        return a.paid_until < b.paid_until;
    });
    if (found->paid_until > now || found->left_out > 0) {
        found->shared = true;
        return found;
    }
    found->file = pos.file;
    found->line = pos.line;
    found->slot = static_cast<uint8_t>(limit->slot);
    found->shared = false;
    return found;
}

/* False when the place has written as much as it may. */
static bool tpg_log_take_line(tpg_log_place_t* place, int64_t now)
{
    const int64_t from = std::max(place->paid_until, now);
    if (from - now > (TPG_LOG_BURST - 1) * TPG_LOG_LINE_MS) {
        return false;
    }
    place->paid_until = from + TPG_LOG_LINE_MS;
    return true;
}

tpg_log_slot_t tpg_log_serve(tpg_context_t* ctx, uint32_t slot_no)
{
    const uint32_t before = ctx->log_limit.slot;
    ctx->log_limit.slot = slot_no <= TPG_SLOT_MAX ? slot_no : 0;
    return {ctx, before};
}

tpg_log_slot_t::~tpg_log_slot_t()
{
    ctx->log_limit.slot = before;
}

/* ---- sums ---- */

void tpg_log_sum_up(tpg_context_t* ctx)
{
    tpg_log_limit_t* limit = &ctx->log_limit;
    if (limit->sum_at == 0) {
        return;
    }
    limit->sum_at = 0;
    for (auto& set : limit->places) {
        for (tpg_log_place_t& place : set) {
            if (place.left_out > 0) {
                tpg_log_tell_sum(ctx, &place);
                place.left_out = 0;
            }
        }
    }
}

static void tpg_log_tell_sum(tpg_context_t* ctx, const tpg_log_place_t* place)
{
    const char* others = place->shared ? " and others" : "";
    char slot[sizeof(", slot 15")] = "";
    if (place->slot != 0) {
        snprintf(slot, sizeof(slot), ", slot %u", place->slot % 100U);
    }
    char raw[TPG_LOG_TEXT_MAX];
    snprintf(raw, sizeof(raw), "%u more like this%s (%s:%d%s), the last: %s", place->left_out,
             others, place->file, place->line, slot, place->last);
    char text[TPG_LOG_TEXT_MAX];
    tpg_log_escape(text, sizeof(text), raw);
    tpg_log_emit(ctx, static_cast<tpg_log_level>(place->level), tpg_log_end::line,
                 {place->file, place->line}, text);
}

/* Not done where a line is left out, for logging must not need memory. */
void tpg_log_before_turn(tpg_context_t* ctx)
{
    tpg_log_limit_t* limit = &ctx->log_limit;
    if (limit->sum_at == 0 || limit->timer_runs) {
        return;
    }
    if (limit->timer == nullptr) {
        limit->timer = event_new(ctx->levent_base, -1, 0, tpg_log_timer_cb, ctx);
    }
    const int64_t left = std::clamp<int64_t>(limit->sum_at - tpg_log_now(), 0, TPG_LOG_SUM_MS);
    const timeval delay = {static_cast<time_t>(left / 1000),
                           static_cast<suseconds_t>(left % 1000 * 1000)};
    limit->timer_runs = limit->timer != nullptr && event_add(limit->timer, &delay) == 0;
}

static void tpg_log_timer_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    ctx->log_limit.timer_runs = false;
    tpg_log_sum_up(ctx);
}

void tpg_log_close(tpg_context_t* ctx)
{
    tpg_log_sum_up(ctx);
    if (ctx->log_limit.timer != nullptr) {
        event_free(ctx->log_limit.timer);
        ctx->log_limit.timer = nullptr;
    }
}

/* ---- debug tokens ---- */

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
