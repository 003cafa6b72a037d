/* The request that is out in a slot: connecting, sending, receiving, a daemon that is away. */
#include "tpg_jsonmib_flight.h"

#include "tpg_jsonmib_exchange.h"
#include "tpg_jsonmib_late.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <event2/event.h>
#include <poll.h>
#include <sched.h>
#include <utility>

static int send_first(tpg_context_t*, uint32_t);
static int connect_slot(tpg_context_t*, uint32_t);
static int watch(tpg_context_t*, uint32_t);
static ssize_t take_bytes(tpg_context_t*, uint32_t);
static const jsonmib_asked_t* being_read(const jsonmib_queue_t*);
static void reply_is_whole(tpg_context_t*, uint32_t);
static void connection_lost(tpg_context_t*, uint32_t slot_no, const char* why);
static void fail_waiting(tpg_context_t*, uint32_t);

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t QUICK_US = 500;   /* the longest answer time of a quick daemon */
constexpr long SHORT_WAIT_US = 100; /* how long the answer of a quick daemon is waited for */
static_assert(sizeof(jsonmib_queue_t::head) == UEVGEND_DATA_OFS);

static const jsonmib_ipc_info_t* ipc_of(const tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_ipc_info[slot_no - 1];
}

/* ---- the daemon ---- */

/* The daemon has given no answer since that time. Logged once, however many requests fail. */
static void daemon_went(tpg_context_t* ctx, uint32_t slot_no, int64_t since, const char* why)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    if (queue->away_since == 0) {
        queue->away_since = since;
        queue->away_failed = 0;
        TPG_WARN(ctx, "the daemon of slot_no %u is away: %s", slot_no, why);
    }
}

/* The daemon has given an answer. */
static void daemon_came(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    if (queue->away_since != 0) {
        const double seconds = static_cast<double>(jsonmib_now() - queue->away_since) / SECOND_US;
        queue->away_since = 0;
        TPG_INFO(ctx, "the daemon of slot_no %u is back after %.1f s, requests failed: %u", slot_no,
                 seconds, queue->away_failed);
    }
}

/* What waits behind a request that got no answer would get none either. */
static void became_silent(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    queue->silent = true;
    queue->walked_at = jsonmib_now();
    fail_waiting(ctx, slot_no);
    jsonmib_stats_look(ctx, slot_no);
}

static void fail_waiting(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    while (queue->first != nullptr) {
        jsonmib_exchange_t* waiting = queue->first;
        jsonmib_exchange_take_out(queue, waiting);
        jsonmib_exchange_timed_out(ctx, waiting);
    }
}

/* ---- sending ---- */

void jsonmib_flight_start_next(tpg_context_t* ctx, uint32_t slot_no, int64_t now)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    while (!queue->in_flight && queue->first != nullptr) {
        jsonmib_exchange_t* exchange = queue->first;
        const int result = send_first(ctx, slot_no);
        if (result == JSONMIB_IPC_BUSY) {
            return;
        }
        jsonmib_exchange_take_out(queue, exchange);
        if (result != 0) {
            jsonmib_exchange_complete(ctx, exchange, result);
            continue;
        }
        queue->in_flight = true;
        queue->flight = exchange->asked;
        queue->owner = exchange;
        queue->sent_at = now;
        exchange->queued = now;
        queue->heard = false;
        queue->ate_dead = false;
    }
}

/* Sends the first exchange that waits. 0, JSONMIB_IPC_BUSY (to be tried again), or the result with
 * which the exchange fails. */
static int send_first(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const jsonmib_exchange_t* exchange = queue->first;
    if (jsonmib_late_confusable(&queue->replies, &exchange->asked)) {
        jsonmib_ipc_disconnect(ctx, slot_no);
        jsonmib_exchange_forget_connection(queue);
    }
    int result = connect_slot(ctx, slot_no);
    if (result == 0) {
        jsonmib_stats_why(ctx, slot_no, "the request could not be sent");
        result = jsonmib_ctrl_send(ctx, exchange);
        if (ipc_of(ctx, slot_no)->connected == 0) {
            daemon_went(ctx, slot_no, jsonmib_now(), "it takes no request");
            jsonmib_exchange_forget_connection(queue);
            jsonmib_stats_connected(ctx, slot_no, false);
        }
    }
    return result;
}

/* Connects the slot and watches the connection. Results as of send_first. */
static int connect_slot(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const jsonmib_ipc_info_t* info = ipc_of(ctx, slot_no);
    if (info->connected != 0 && (info->watch != nullptr || ctx->levent_base == nullptr)) {
        return 0;
    }
    const int64_t now = jsonmib_now();
    int result = info->connected != 0 ? 0 : jsonmib_ipc_try_connect(ctx, slot_no);
    if (result == JSONMIB_IPC_BUSY) {
        queue->connecting_since = queue->connecting_since == 0 ? now : queue->connecting_since;
        return result;
    }
    queue->connecting_since = 0;
    queue->quick = true; /* as most daemons are, until this one is seen to be slow */
    queue->down = result != 0;
    queue->walked_at = now;
    if (queue->down) {
        daemon_went(ctx, slot_no, now, "it cannot be connected");
    }
    result = result == 0 ? watch(ctx, slot_no) : result;
    jsonmib_stats_connected(ctx, slot_no, result == 0);
    if (result != 0) {
        jsonmib_ipc_not_available(ctx, slot_no);
        jsonmib_stats_why(ctx, slot_no, "there is no daemon");
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    return 0;
}

/* ---- receiving ---- */

static void readable_cb(int fd, short what, void* arg)
{
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        if (ipc_of(ctx, slot_no)->fd == fd) {
            jsonmib_flight_receive(ctx, slot_no, false);
            jsonmib_exchange_arm(ctx, slot_no);
            return;
        }
    }
}

/*
 * Has the event loop report what comes on the connection. Each arrival is
 * reported once (EV_ET): bytes that no request waits for are left for the next
 * exchange, and must not wake the loop again and again. Returns -1,
 * disconnected, when the connection cannot be watched.
 */
static int watch(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = &ctx->jsonmib_ipc_info[slot_no - 1];
    if (ctx->levent_base == nullptr) {
        return 0;
    }
    info->watch =
        event_new(ctx->levent_base, info->fd, EV_READ | EV_PERSIST | EV_ET, readable_cb, ctx);
    if (info->watch == nullptr || event_add(info->watch, nullptr) != 0) {
        TPG_ERROR(ctx, "cannot watch the connection to slot_no %u", slot_no);
        jsonmib_ipc_disconnect(ctx, slot_no);
        return -1;
    }
    return 0;
}

void jsonmib_flight_wait_shortly(tpg_context_t* ctx, uint32_t slot_no)
{
    constexpr timespec SHORT_WAIT = {0, SHORT_WAIT_US * 1000};
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    jsonmib_flight_receive(ctx, slot_no, true);
    if (queue->in_flight) {
        sched_yield();
        jsonmib_flight_receive(ctx, slot_no, false);
    }
    pollfd reply = {ipc_of(ctx, slot_no)->fd, POLLIN, 0};
    if (queue->in_flight && ppoll(&reply, 1, &SHORT_WAIT, nullptr) == 1) {
        jsonmib_flight_receive(ctx, slot_no, false);
    }
    queue->quick = queue->quick && !queue->in_flight;
}

void jsonmib_flight_receive(tpg_context_t* ctx, uint32_t slot_no, bool at_once)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    while (ipc_of(ctx, slot_no)->connected != 0 &&
           (queue->in_flight || queue->replies.dead_total > 0)) {
        if (queue->got == 0) {
            queue->reading =
                queue->replies.dead_total == 0 ? JSONMIB_READS_FLIGHT : JSONMIB_READS_UNKNOWN;
        }
        const ssize_t n = take_bytes(ctx, slot_no);
        if (n < 0) {
            connection_lost(ctx, slot_no, "it has closed the connection");
            return;
        }
        if (n == 0) {
            return;
        }
        queue->got += static_cast<uint32_t>(n);
        queue->heard_at = at_once ? queue->sent_at : jsonmib_now();
        queue->heard = true;
        queue->silent = false;
        if (queue->reading == JSONMIB_READS_UNKNOWN && queue->got == UEVGEND_DATA_OFS) {
            queue->reading = jsonmib_late_whose(
                &queue->replies, queue->in_flight ? &queue->flight : nullptr, queue->head);
        }
        const jsonmib_asked_t* asked = being_read(queue);
        if (asked != nullptr && queue->got == asked->reply_len) {
            reply_is_whole(ctx, slot_no);
        }
    }
}

/* The request whose reply is being read; null until the reply's head has told which. */
static const jsonmib_asked_t* being_read(const jsonmib_queue_t* queue)
{
    if (queue->reading == JSONMIB_READS_UNKNOWN) {
        return nullptr;
    }
    return queue->reading == JSONMIB_READS_FLIGHT
               ? &queue->flight
               : &queue->replies.dead[queue->reading - JSONMIB_READS_DEAD];
}

/*
 * Receives more of the reply that is being read: its head first, then its
 * data. Data that nobody waits for is thrown away. Results as of
 * jsonmib_ipc_take.
 */
static ssize_t take_bytes(tpg_context_t* ctx, uint32_t slot_no)
{
    static uint8_t waste[1024];
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const jsonmib_asked_t* asked = being_read(queue);
    const auto head_len = static_cast<uint32_t>(UEVGEND_DATA_OFS);
    const uint32_t length = asked == nullptr ? head_len : asked->reply_len;
    const uint32_t data_got = queue->got > head_len ? queue->got - head_len : 0;
    const uint32_t data_left = length - head_len - data_got;
    iovec parts[2];
    size_t total = 0;
    if (queue->got < head_len) {
        parts[total++] = {queue->head + queue->got, head_len - queue->got};
    }
    if (data_left > 0) {
        const bool wanted = queue->reading == JSONMIB_READS_FLIGHT && queue->owner != nullptr &&
                            queue->owner->value != nullptr;
        parts[total++] = wanted ? iovec{queue->owner->value + data_got, data_left}
                                : iovec{waste, std::min<size_t>(data_left, sizeof(waste))};
    }
    return jsonmib_ipc_take(ctx, slot_no, parts, total, length, queue->got);
}

static void reply_is_whole(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    queue->got = 0;
    daemon_came(ctx, slot_no);
    if (queue->reading != JSONMIB_READS_FLIGHT) {
        jsonmib_late_remove(&queue->replies,
                            static_cast<uint32_t>(queue->reading - JSONMIB_READS_DEAD));
        queue->ate_dead = true;
        return;
    }
    if (queue->replies.dead_total == 0) {
        jsonmib_late_learn(&queue->replies, &queue->flight, queue->head);
    }
    jsonmib_exchange_t* owner = queue->owner;
    queue->in_flight = false;
    queue->owner = nullptr;
    queue->quick = queue->heard_at - queue->sent_at <= QUICK_US;
    const int result = jsonmib_ctrl_result(ctx, &queue->flight, queue->head);
    jsonmib_stats_answered(ctx, slot_no, queue->sent_at, jsonmib_now());
    if (owner != nullptr) {
        jsonmib_exchange_complete(ctx, owner, result);
    }
    if (queue->first != nullptr) {
        jsonmib_flight_start_next(ctx, slot_no, jsonmib_now());
    }
}

/* Fails the request that was out; those that wait go out on the next connection. */
static void connection_lost(tpg_context_t* ctx, uint32_t slot_no, const char* why)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    jsonmib_exchange_t* owner = queue->owner;
    jsonmib_exchange_forget_connection(queue);
    jsonmib_stats_why(ctx, slot_no, why);
    jsonmib_stats_connected(ctx, slot_no, false);
    if (owner != nullptr) {
        daemon_went(ctx, slot_no, jsonmib_now(), why);
        TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
        jsonmib_exchange_complete(ctx, owner, JSONMIB_CTRL_TRANSPORT);
    }
    jsonmib_flight_start_next(ctx, slot_no, jsonmib_now());
}

/* ---- time ---- */

void jsonmib_flight_timed_out(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    jsonmib_exchange_t* owner = queue->owner;
    if (queue->got > 0) {
        const jsonmib_asked_t* asked = being_read(queue);
        jsonmib_ipc_stuck(ctx, slot_no,
                          asked == nullptr ? static_cast<uint32_t>(UEVGEND_DATA_OFS)
                                           : asked->reply_len,
                          queue->got);
        connection_lost(ctx, slot_no, "the rest of an answer does not come");
        return;
    }
    const bool silent = !queue->heard;
    queue->in_flight = false;
    queue->owner = nullptr;
    queue->replies.astray = queue->replies.astray || queue->ate_dead;
    if (jsonmib_late_add(&queue->replies, &queue->flight) != 0) {
        TPG_ERROR(ctx, "slot_no %u owes %u replies, disconnecting", slot_no, JSONMIB_DEAD_MAX);
        jsonmib_ipc_disconnect(ctx, slot_no);
        jsonmib_exchange_forget_connection(queue);
    }
    if (silent) {
        daemon_went(ctx, slot_no, queue->sent_at, "it is silent");
    }
    if (owner != nullptr) {
        jsonmib_exchange_timed_out(ctx, owner);
    }
    if (silent && !queue->silent) {
        became_silent(ctx, slot_no);
    }
}

void jsonmib_flight_check_connecting(tpg_context_t* ctx, uint32_t slot_no, int64_t now)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    if (queue->first == nullptr) {
        queue->connecting_since = 0;
    } else if (queue->connecting_since != 0 && now >= queue->connecting_since + JSONMIB_REPLY_US) {
        const int64_t since = std::exchange(queue->connecting_since, 0);
        if (jsonmib_ipc_connect(ctx, slot_no) != 0) {
            daemon_went(ctx, slot_no, since, "it accepts no connection");
            became_silent(ctx, slot_no);
        }
    }
}
