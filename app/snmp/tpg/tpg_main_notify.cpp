/* What systemd is told. */

#include "tpg_main_notify.h"

#include "tpg_log.h"
#include "tpg_snmp.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef TPG_SYSTEMD
#include <systemd/sd-daemon.h>
constexpr bool HAS_SYSTEMD = true;
#else
constexpr bool HAS_SYSTEMD = false;
static int sd_notify(int /*unset*/, const char* /*state*/)
{
    return 0;
}
static int sd_watchdog_enabled(int /*unset*/, uint64_t* /*usec*/)
{
    return 0;
}
#endif

static int master_cb(int, int, void*, void*);
static void life_cb(int, short, void*);
static void status_cb(int, short, void*);
static uint32_t cards(const tpg_context_t*);
static void format_status(const tpg_notify_t*, char*, size_t);
static void tell(tpg_context_t*, const char*);

constexpr uint64_t SECOND_US = 1000000;
constexpr timeval STATUS_DELAY = {0, 200000}; /* cards often come together */

bool tpg_notify_console_wanted()
{
    const char* journal = getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe)
    struct stat st;
    if (journal == nullptr || fstat(STDERR_FILENO, &st) != 0) {
        return true;
    }
    char mine[64];
    snprintf(mine, sizeof(mine), "%" PRIuMAX ":%" PRIuMAX, uintmax_t{st.st_dev},
             uintmax_t{st.st_ino});
    return strcmp(journal, mine) != 0;
}

void tpg_notify_watch_master(tpg_context_t* ctx)
{
    for (const int change : {SNMPD_CALLBACK_INDEX_START, SNMPD_CALLBACK_INDEX_STOP}) {
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, change, master_cb, ctx);
    }
}

static int master_cb(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)server_arg;
    static_cast<tpg_context_t*>(client_arg)->notify.master = minor == SNMPD_CALLBACK_INDEX_START;
    return SNMPERR_SUCCESS;
}

void tpg_notify_start(tpg_context_t* ctx)
{
    tpg_notify_t* notify = &ctx->notify;
    if (!HAS_SYSTEMD || getenv("NOTIFY_SOCKET") == nullptr) { // NOLINT(concurrency-mt-unsafe)
        return;
    }
    notify->life = event_new(ctx->levent_base, -1, EV_PERSIST, life_cb, ctx);
    notify->status = event_new(ctx->levent_base, -1, 0, status_cb, ctx);
    uint64_t limit = 0;
    if (sd_watchdog_enabled(0, &limit) <= 0) {
        limit = 0;
    }
    const timeval half = {static_cast<time_t>(limit / 2 / SECOND_US),
                          static_cast<suseconds_t>(limit / 2 % SECOND_US)};
    if (notify->life == nullptr || notify->status == nullptr ||
        (limit > 0 && event_add(notify->life, &half) != 0)) {
        TPG_ERROR(ctx, "unable to watch the loop for the service manager");
        return;
    }
    notify->wanted = true;
    event_active(notify->life, EV_TIMEOUT, 0);
}

/*
 * Runs also while a SET waits for its card: the sign of life is only given
 * behind the turn, which a loop that is stuck in it does not reach.
 */
static void life_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    static_cast<tpg_context_t*>(arg)->notify.due = true;
}

void tpg_notify_turn(tpg_context_t* ctx)
{
    tpg_notify_t* notify = &ctx->notify;
    if (!notify->wanted) {
        return;
    }
    const uint32_t slots = cards(ctx);
    const bool changed = slots != notify->slots || notify->master != notify->told_master;
    if (!notify->ready) {
        notify->ready = true;
        tell(ctx, "READY=1");
        status_cb(-1, EV_TIMEOUT, ctx);
    } else if (changed && event_pending(notify->status, EV_TIMEOUT, nullptr) == 0) {
        event_add(notify->status, &STATUS_DELAY);
    }
    if (notify->due) {
        notify->due = false;
        tell(ctx, "WATCHDOG=1");
    }
}

static void status_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    ctx->notify.slots = cards(ctx);
    ctx->notify.told_master = ctx->notify.master;
    char text[160];
    format_status(&ctx->notify, text, sizeof(text));
    tell(ctx, text);
}

/* A bit for each slot with a registered card. */
static uint32_t cards(const tpg_context_t* ctx)
{
    uint32_t slots = 0;
    for (uint32_t i = 0; i < TPG_SLOT_MAX; i++) {
        if (ctx->jsonmib_reg_info[i].actual_reginfo != nullptr) {
            slots |= 1U << i;
        }
    }
    return slots;
}

static void format_status(const tpg_notify_t* notify, char* text, size_t size)
{
    const int count = __builtin_popcount(notify->slots);
    int length = snprintf(text, size, "STATUS=%s; %d card%s",
                          notify->master ? "master agent connected" : "no master agent", count,
                          count == 1 ? "" : "s");
    const char* before = count == 1 ? " in slot " : " in slots ";
    for (uint32_t i = 0; i < TPG_SLOT_MAX; i++) {
        if ((notify->slots >> i & 1U) != 0) {
            length +=
                snprintf(text + length, size - static_cast<size_t>(length), "%s%u", before, i + 1);
            before = ", ";
        }
    }
}

static void tell(tpg_context_t* ctx, const char* state)
{
    const int ret = sd_notify(0, state);
    if (ret < 0) {
        TPG_WARN(ctx, "unable to tell the service manager %s, %s", state, strerror(-ret));
    }
}

void tpg_notify_stop(tpg_context_t* ctx)
{
    tpg_notify_t* notify = &ctx->notify;
    if (notify->wanted) {
        notify->wanted = false;
        tell(ctx, "STOPPING=1");
    }
    for (event** ev : {&notify->life, &notify->status}) {
        if (*ev != nullptr) {
            event_free(*ev);
            *ev = nullptr;
        }
    }
}
