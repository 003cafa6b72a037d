#ifndef TPG_LOG_H
#define TPG_LOG_H

/*
 * The logging rule: a message goes to syslog and, when the context says so, to
 * standard error, if its level passes the context's threshold; or to the
 * context's taker, when a tool has one. The same place in the source does not
 * go on and on about the same slot: what is above its limit is counted, and
 * told of in one line. Programs search the log for whole texts: none is
 * corrected, whatever it looks like (doc/oddities.md).
 */

#include "tpg.h"

#include <cstddef>

/* Values are the syslog priorities. */
enum class tpg_log_level : int {
    error = 3,
    warn = 4,
    info = 6,
    debug = 7,
};

constexpr char TPG_LOG_IDENT[] = "tpg";
constexpr uint8_t TPG_LOG_LEVEL_DEFAULT = 6;
constexpr uint8_t TPG_LOG_LEVEL_DEBUG = 7;

/* The part of a source path behind its last slash. */
constexpr const char* tpg_log_basename(const char* path)
{
    const char* base = path;
    for (const char* c = path; *c != '\0'; c++) {
        if (*c == '/') {
            base = c + 1;
        }
    }
    return base;
}

/* True when a message of this level is emitted. */
inline bool tpg_log_passes(const tpg_context_t* ctx, tpg_log_level level)
{
    return ctx->log_level > static_cast<int>(level) - 1;
}

/* How the console copy of a message ends. */
enum class tpg_log_end : bool {
    line, /* with a line feed */
    open, /* without: the next message goes on in the same line */
};

/* Where in the source a message comes from. */
struct tpg_log_pos_t {
    const char* file; /* base name */
    int line;
};

/*
 * Emits one message whose level passes. Unprintable bytes of the text are
 * shown as \xNN, so that text from outside can forge no line.
 */
void tpg_log_write(tpg_context_t* ctx, tpg_log_level level, tpg_log_end end, tpg_log_pos_t pos,
                   const char* fmt, ...) __attribute__((format(printf, 5, 6)));

/* Opens syslog under the agent's ident. */
void tpg_log_open();

/* What is logged in its scope is about a slot; then about the one from before again. */
struct tpg_log_slot_t {
    tpg_context_t* ctx;
    uint32_t before;
    ~tpg_log_slot_t();
};

/* slot_no: 1 to 15; any other number stands for none. */
[[nodiscard]] tpg_log_slot_t tpg_log_serve(tpg_context_t* ctx, uint32_t slot_no);

/* To be called before every turn of the event loop: it will sum up what has been left out. */
void tpg_log_before_turn(tpg_context_t* ctx);

/* Tells of every place how many lines it has left out. */
void tpg_log_sum_up(tpg_context_t* ctx);

/* The same, and the timer goes: to be called last. */
void tpg_log_close(tpg_context_t* ctx);

#define TPG_LOG_AT(ctx, level, end, ...)                                                           \
    do {                                                                                           \
        if (tpg_log_passes(ctx, level)) {                                                          \
            tpg_log_write(ctx, level, end, {tpg_log_basename(__FILE__), __LINE__}, __VA_ARGS__);   \
        }                                                                                          \
    } while (0)

#define TPG_ERROR(ctx, ...) TPG_LOG_AT(ctx, tpg_log_level::error, tpg_log_end::line, __VA_ARGS__)
#define TPG_WARN(ctx, ...)  TPG_LOG_AT(ctx, tpg_log_level::warn, tpg_log_end::line, __VA_ARGS__)
#define TPG_INFO(ctx, ...)  TPG_LOG_AT(ctx, tpg_log_level::info, tpg_log_end::line, __VA_ARGS__)
#define TPG_DEBUG(ctx, ...) TPG_LOG_AT(ctx, tpg_log_level::debug, tpg_log_end::line, __VA_ARGS__)

/* A trace line, when the debug token (option -d) is given: at Error level, which every threshold
 * lets pass. */
#define TPG_TRACE(ctx, token, ...)                                                                 \
    do {                                                                                           \
        if (tpg_token_enabled(token)) {                                                            \
            TPG_ERROR(ctx, __VA_ARGS__);                                                           \
        }                                                                                          \
    } while (0)

extern char tpg_debug_tokens[TPG_DEBUG_TOKENS][TPG_DEBUG_TOKEN_LEN];
extern int32_t tpg_debug_tokens_total;

/* 1 when token was given with option -d, exactly as written; 0 otherwise. */
int tpg_token_enabled(const char* token);

/* Takes the comma-separated list in place of all earlier tokens; list is cut up on the way. */
void tpg_debug_tokens_set(char* list);

#endif
