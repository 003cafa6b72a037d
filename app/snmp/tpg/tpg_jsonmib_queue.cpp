/* One exchange with a slot's daemon at a time: sending, receiving, time, the end. */
#include "tpg_jsonmib_queue.h"

#include "tpg_file.h"
#include "tpg_jsonmib_late.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <event2/event.h>
#include <poll.h>
#include <sched.h>
#include <utility>

static jsonmib_queue_t* queue_of(tpg_context_t*, uint32_t);
static void start_next(tpg_context_t*, uint32_t slot_no, int64_t now);
static int connect_slot(tpg_context_t*, uint32_t);
static int send_first(tpg_context_t*, uint32_t);
static int watch(tpg_context_t*, uint32_t);
static void wait_shortly(tpg_context_t*, uint32_t);
static void receive(tpg_context_t*, uint32_t slot_no, bool at_once);
static ssize_t take_bytes(tpg_context_t*, uint32_t);
static const jsonmib_asked_t* being_read(const jsonmib_queue_t*);
static void reply_is_whole(tpg_context_t*, uint32_t);
static void connection_lost(tpg_context_t*, uint32_t slot_no, const char* why);
static void forget_connection(jsonmib_queue_t*);
static void check_time(tpg_context_t*, uint32_t);
static void check_connecting(tpg_context_t*, uint32_t slot_no, int64_t now);
static void flight_ended(tpg_context_t*, uint32_t);
static void became_silent(tpg_context_t*, uint32_t);
static void daemon_went(tpg_context_t*, uint32_t slot_no, int64_t since, const char* why);
static void daemon_came(tpg_context_t*, uint32_t);
static void fail_waiting(tpg_context_t*, uint32_t);
static void timed_out(tpg_context_t*, jsonmib_exchange_t*);
static void complete(tpg_context_t*, jsonmib_exchange_t*, int result);
static int64_t limit_of(const jsonmib_queue_t*, const jsonmib_exchange_t*);
static int64_t flight_end(const jsonmib_queue_t*);
static int64_t next_deadline(const jsonmib_queue_t*);
static void arm(tpg_context_t*, uint32_t);

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t REPLY_US = 5 * SECOND_US;  /* a daemon has for its reply, or for more of it */
constexpr int64_t SILENT_US = SECOND_US / 5; /* an exchange has with a daemon that is silent */
constexpr int64_t QUICK_US = 500;            /* a reply that is worth waiting for in place */
constexpr long SHORT_WAIT_US = 100;          /* for such a reply */
constexpr int64_t CONNECT_RETRY_US = 10000;  /* between attempts while the backlog is full */
constexpr int64_t WALK_RETRY_US = SECOND_US; /* between a walk's attempts at an unreadable slot */
constexpr int64_t NEVER = INT64_MAX;
static_assert(sizeof(jsonmib_queue_t::head) == UEVGEND_DATA_OFS);

int64_t jsonmib_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * SECOND_US + now.tv_nsec / 1000;
}

static jsonmib_queue_t* queue_of(tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_queue[slot_no - 1];
}

static const jsonmib_ipc_info_t* ipc_of(const tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_ipc_info[slot_no - 1];
}

/* ---- waiting to be sent ---- */

static void append(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange)
{
    exchange->next = nullptr;
    (queue->first == nullptr ? queue->first : queue->last->next) = exchange;
    queue->last = exchange;
}

static void take_out(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange)
{
    jsonmib_exchange_t* before = nullptr;
    for (jsonmib_exchange_t* other = queue->first; other != exchange; other = other->next) {
        before = other;
    }
    (before == nullptr ? queue->first : before->next) = exchange->next;
    if (queue->last == exchange) {
        queue->last = before;
    }
    exchange->next = nullptr;
}

/* ---- sending ---- */

bool jsonmib_queue_start(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    const uint32_t slot_no = exchange->slot_no;
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    const bool idle = !queue->in_flight && queue->first == nullptr;
    exchange->queued = jsonmib_now();
    exchange->born = exchange->born == 0 ? exchange->queued : exchange->born;
    exchange->done = false;
    jsonmib_stats_asked(ctx, slot_no);
    if (exchange->walk && (queue->silent || queue->down)) {
        queue->walked_at = exchange->queued;
    }
    if (ctx->jsonmib_later.closed || (exchange->walk && queue->silent && queue->in_flight)) {
        exchange->complete = nullptr;
        jsonmib_stats_why(ctx, slot_no, "it was not asked");
        complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
        return true;
    }
    append(queue, exchange);
    if (idle) {
        void (*const later)(tpg_context_t*, jsonmib_exchange_t*) = exchange->complete;
        exchange->complete = nullptr;
        start_next(ctx, slot_no, exchange->queued);
        if (queue->owner == exchange && queue->quick && !exchange->patient) {
            wait_shortly(ctx, slot_no);
        }
        if (exchange->done) {
            return true;
        }
        exchange->complete = later;
    }
    arm(ctx, slot_no);
    return false;
}

/* Sends what waits first, as long as nothing is out. */
static void start_next(tpg_context_t* ctx, uint32_t slot_no, int64_t now)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    while (!queue->in_flight && queue->first != nullptr) {
        jsonmib_exchange_t* exchange = queue->first;
        const int result = send_first(ctx, slot_no);
        if (result == JSONMIB_IPC_BUSY) {
            return;
        }
        take_out(queue, exchange);
        if (result != 0) {
            complete(ctx, exchange, result);
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

/* 0 when it is sent, JSONMIB_IPC_BUSY when it is to be tried again, or the exchange's result. */
static int send_first(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    const jsonmib_exchange_t* exchange = queue->first;
    if (jsonmib_late_confusable(&queue->replies, &exchange->asked)) {
        jsonmib_ipc_disconnect(ctx, slot_no);
        forget_connection(queue);
    }
    int result = connect_slot(ctx, slot_no);
    if (result == 0) {
        jsonmib_stats_why(ctx, slot_no, "the request could not be sent");
        result = jsonmib_ctrl_send(ctx, exchange);
        if (ipc_of(ctx, slot_no)->connected == 0) {
            daemon_went(ctx, slot_no, jsonmib_now(), "it takes no request");
            forget_connection(queue);
            jsonmib_stats_connected(ctx, slot_no, false);
        }
    }
    return result;
}

/* 0, JSONMIB_IPC_BUSY, or the exchange's result. */
static int connect_slot(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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
    queue->quick = true; /* most are */
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
            receive(ctx, slot_no, false);
            arm(ctx, slot_no);
            return;
        }
    }
}

/*
 * Reported once, when it comes: a reply that is there at once needs no report,
 * and what a daemon does unasked is left for the next exchange to find. Of a
 * connection that cannot be watched, nothing would be heard; -1, disconnected.
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

/* A daemon that runs on the agent's processor has often answered before the request's send
 * returns, and mostly does when it is let to. */
static void wait_shortly(tpg_context_t* ctx, uint32_t slot_no)
{
    constexpr timespec SHORT_WAIT = {0, SHORT_WAIT_US * 1000};
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    receive(ctx, slot_no, true);
    if (queue->in_flight) {
        sched_yield();
        receive(ctx, slot_no, false);
    }
    pollfd reply = {ipc_of(ctx, slot_no)->fd, POLLIN, 0};
    if (queue->in_flight && ppoll(&reply, 1, &SHORT_WAIT, nullptr) == 1) {
        receive(ctx, slot_no, false);
    }
    queue->quick = queue->quick && !queue->in_flight;
}

/* Takes what has come, as long as some request has yet to be answered; at_once: right behind the
 * request. */
static void receive(tpg_context_t* ctx, uint32_t slot_no, bool at_once)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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

/* What the reply that is being read answers; null: its head has yet to tell. */
static const jsonmib_asked_t* being_read(const jsonmib_queue_t* queue)
{
    if (queue->reading == JSONMIB_READS_UNKNOWN) {
        return nullptr;
    }
    return queue->reading == JSONMIB_READS_FLIGHT
               ? &queue->flight
               : &queue->replies.dead[queue->reading - JSONMIB_READS_DEAD];
}

/* Of the reply that is being read: the head, and as much of the data as is known to be its. */
static ssize_t take_bytes(tpg_context_t* ctx, uint32_t slot_no)
{
    static uint8_t waste[1024];
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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
        complete(ctx, owner, result);
    }
    if (queue->first != nullptr) {
        start_next(ctx, slot_no, jsonmib_now());
    }
}

/* The one request that was out fails, the others go out on the next connection. */
static void connection_lost(tpg_context_t* ctx, uint32_t slot_no, const char* why)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    jsonmib_exchange_t* owner = queue->owner;
    forget_connection(queue);
    jsonmib_stats_why(ctx, slot_no, why);
    jsonmib_stats_connected(ctx, slot_no, false);
    if (owner != nullptr) {
        daemon_went(ctx, slot_no, jsonmib_now(), why);
        TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
        complete(ctx, owner, JSONMIB_CTRL_TRANSPORT);
    }
    start_next(ctx, slot_no, jsonmib_now());
}

/* What is known of a connection ends with it; silence does not. */
static void forget_connection(jsonmib_queue_t* queue)
{
    queue->in_flight = false;
    queue->owner = nullptr;
    queue->got = 0;
    queue->replies = {};
}

/* ---- time ---- */

/* When an exchange is given up, wherever it stands. */
static int64_t limit_of(const jsonmib_queue_t* queue, const jsonmib_exchange_t* exchange)
{
    const int64_t limit = exchange->born + JSONMIB_CELL_US;
    return queue->silent ? std::min(limit, exchange->queued + SILENT_US) : limit;
}

/* When the request that is out is no longer waited for. */
static int64_t flight_end(const jsonmib_queue_t* queue)
{
    return (queue->got > 0 ? queue->heard_at : queue->sent_at) + REPLY_US;
}

static int64_t next_deadline(const jsonmib_queue_t* queue)
{
    int64_t deadline = NEVER;
    if (queue->in_flight || queue->got > 0) {
        deadline = flight_end(queue);
    }
    if (queue->owner != nullptr) {
        deadline = std::min(deadline, limit_of(queue, queue->owner));
    }
    for (const jsonmib_exchange_t* waiting = queue->first; waiting != nullptr;
         waiting = waiting->next) {
        deadline = std::min(deadline, limit_of(queue, waiting));
    }
    if (queue->connecting_since != 0 && queue->first != nullptr) {
        deadline = std::min(deadline, jsonmib_now() + CONNECT_RETRY_US);
    }
    return deadline;
}

/* The loop's clock may stand a little behind: what has run out is what is not pending any more. */
static void timer_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        jsonmib_queue_t* queue = queue_of(ctx, slot_no);
        if (queue->timer_at != 0 && event_pending(queue->timer, EV_TIMEOUT, nullptr) == 0) {
            queue->timer_at = 0;
            check_time(ctx, slot_no);
            arm(ctx, slot_no);
        }
    }
}

/* A timer that runs out too early is no harm: it is set again then. */
static void arm(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    const int64_t deadline = next_deadline(queue);
    if (deadline == NEVER || ctx->levent_base == nullptr ||
        (queue->timer_at != 0 && queue->timer_at <= deadline)) {
        return;
    }
    if (queue->timer == nullptr) {
        queue->timer = event_new(ctx->levent_base, -1, 0, timer_cb, ctx);
    }
    const int64_t left = std::max<int64_t>(deadline - jsonmib_now(), 0) + 1;
    const timeval delay = {static_cast<time_t>(left / SECOND_US),
                           static_cast<suseconds_t>(left % SECOND_US)};
    if (queue->timer == nullptr || event_add(queue->timer, &delay) != 0) {
        TPG_ERROR(ctx, "no memory for a timer, slot_no %u", slot_no);
        jsonmib_queue_disconnect(ctx, slot_no);
        return;
    }
    queue->timer_at = deadline;
}

static void check_time(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    const int64_t now = jsonmib_now();
    if ((queue->in_flight || queue->got > 0) && now >= flight_end(queue)) {
        flight_ended(ctx, slot_no);
    } else if (queue->owner != nullptr && now >= limit_of(queue, queue->owner)) {
        jsonmib_exchange_t* owner = queue->owner;
        queue->owner = nullptr; /* its request stays out: the daemon has not had its time */
        timed_out(ctx, owner);
    }
    jsonmib_exchange_t* next = nullptr;
    for (jsonmib_exchange_t* waiting = queue->first; waiting != nullptr; waiting = next) {
        next = waiting->next;
        if (now >= limit_of(queue, waiting)) {
            take_out(queue, waiting);
            timed_out(ctx, waiting);
        }
    }
    check_connecting(ctx, slot_no, now);
    start_next(ctx, slot_no, now);
}

/* A daemon that accepts nobody for as long as it has for a reply is as good as silent. */
static void check_connecting(tpg_context_t* ctx, uint32_t slot_no, int64_t now)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    if (queue->first == nullptr) {
        queue->connecting_since = 0;
    } else if (queue->connecting_since != 0 && now >= queue->connecting_since + REPLY_US) {
        const int64_t since = std::exchange(queue->connecting_since, 0);
        if (jsonmib_ipc_connect(ctx, slot_no) != 0) {
            daemon_went(ctx, slot_no, since, "it accepts no connection");
            became_silent(ctx, slot_no);
        }
    }
}

/* No reply came, or no more of it. */
static void flight_ended(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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
        forget_connection(queue);
    }
    if (silent) {
        daemon_went(ctx, slot_no, queue->sent_at, "it is silent");
    }
    if (owner != nullptr) {
        timed_out(ctx, owner);
    }
    if (silent && !queue->silent) {
        became_silent(ctx, slot_no);
    }
}

/* Since a time. Said once, however many requests meet it. */
static void daemon_went(tpg_context_t* ctx, uint32_t slot_no, int64_t since, const char* why)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    if (queue->away_since == 0) {
        queue->away_since = since;
        queue->away_failed = 0;
        TPG_WARN(ctx, "the daemon of slot_no %u is away: %s", slot_no, why);
    }
}

/* It has given an answer. */
static void daemon_came(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
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
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    queue->silent = true;
    queue->walked_at = jsonmib_now();
    fail_waiting(ctx, slot_no);
    jsonmib_stats_look(ctx, slot_no);
}

static void fail_waiting(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    while (queue->first != nullptr) {
        jsonmib_exchange_t* waiting = queue->first;
        take_out(queue, waiting);
        timed_out(ctx, waiting);
    }
}

/* ---- the end of an exchange ---- */

static void timed_out(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    jsonmib_stats_why(ctx, exchange->slot_no, "no answer in time");
    TPG_ERROR(ctx, "ipc timeout on slot_no %d", exchange->slot_no);
    TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
    complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

static void complete(tpg_context_t* ctx, jsonmib_exchange_t* exchange, int result)
{
    jsonmib_queue_t* queue = queue_of(ctx, exchange->slot_no);
    if (result == JSONMIB_CTRL_TRANSPORT && queue->away_since != 0) {
        queue->away_failed++;
    }
    exchange->result = result;
    exchange->done = true;
    jsonmib_stats_ended(ctx, exchange->slot_no, result);
    if (exchange->complete != nullptr) {
        exchange->complete(ctx, exchange);
    }
}

static void give_up(tpg_context_t* ctx, jsonmib_exchange_t* exchange, const char* why)
{
    jsonmib_stats_why(ctx, exchange->slot_no, why);
    TPG_ERROR(ctx, "gave up a request to slot_no %u: %s", exchange->slot_no, why);
    complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

static void give_up_slot(tpg_context_t* ctx, uint32_t slot_no, const char* why)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    jsonmib_exchange_t* owner = queue->owner;
    if (owner != nullptr) {
        queue->owner = nullptr;
        give_up(ctx, owner, why);
    }
    while (queue->first != nullptr) {
        jsonmib_exchange_t* waiting = queue->first;
        take_out(queue, waiting);
        give_up(ctx, waiting, why);
    }
}

void jsonmib_queue_abandon(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    jsonmib_queue_t* queue = queue_of(ctx, exchange->slot_no);
    if (queue->owner == exchange) {
        queue->owner = nullptr;
    } else {
        take_out(queue, exchange);
    }
    complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

void jsonmib_queue_fail_all(tpg_context_t* ctx)
{
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        give_up_slot(ctx, slot_no, "tables are about to change");
    }
}

void jsonmib_queue_disconnect(tpg_context_t* ctx, uint32_t slot_no)
{
    give_up_slot(ctx, slot_no, "its card has gone");
    jsonmib_ipc_disconnect(ctx, slot_no);
    forget_connection(queue_of(ctx, slot_no));
    jsonmib_stats_look(ctx, slot_no);
}

void jsonmib_queue_release(tpg_context_t* ctx)
{
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        jsonmib_queue_t* queue = queue_of(ctx, slot_no);
        jsonmib_queue_disconnect(ctx, slot_no);
        if (queue->timer != nullptr) {
            event_free(queue->timer);
        }
        *queue = {};
    }
}

/* ---- as a whole ---- */

bool jsonmib_queue_busy(const tpg_context_t* ctx)
{
    for (const jsonmib_queue_t& queue : ctx->jsonmib_queue) {
        if (queue.owner != nullptr || queue.first != nullptr) {
            return true;
        }
    }
    return false;
}

void jsonmib_queue_drive(tpg_context_t* ctx, int64_t until)
{
    pollfd fds[TPG_SLOT_MAX];
    int64_t deadline = until;
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        const jsonmib_queue_t* queue = queue_of(ctx, slot_no);
        const jsonmib_ipc_info_t* info = ipc_of(ctx, slot_no);
        const bool expects = queue->in_flight || queue->replies.dead_total > 0;
        fds[slot_no - 1] = {expects && info->connected != 0 ? info->fd : -1, POLLIN, 0};
        deadline = std::min(deadline, next_deadline(queue));
    }
    const int64_t left = std::max<int64_t>(deadline - jsonmib_now(), 0);
    const timespec wait = {static_cast<time_t>(left / SECOND_US),
                           static_cast<long>(left % SECOND_US * 1000)};
    const int ready = ppoll(fds, TPG_SLOT_MAX, &wait, nullptr);
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        if (ready > 0 && fds[slot_no - 1].revents != 0) {
            receive(ctx, slot_no, false);
        }
        check_time(ctx, slot_no);
        arm(ctx, slot_no);
    }
}

void jsonmib_queue_card_came(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = queue_of(ctx, slot_no);
    queue->silent = false;
    queue->down = false;
    jsonmib_stats_look(ctx, slot_no);
}

uint32_t jsonmib_queue_waiting(const tpg_context_t* ctx, uint32_t slot_no)
{
    const jsonmib_queue_t* queue = &ctx->jsonmib_queue[slot_no - 1];
    uint32_t total = queue->owner == nullptr ? 0 : 1;
    for (const jsonmib_exchange_t* waiting = queue->first; waiting != nullptr;
         waiting = waiting->next) {
        total++;
    }
    return total;
}

uint32_t jsonmib_queue_unreadable(const tpg_context_t* ctx)
{
    uint32_t slots = 0;
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        const jsonmib_queue_t* queue = &ctx->jsonmib_queue[slot_no - 1];
        if ((queue->silent || queue->down) && (jsonmib_now() < queue->walked_at + WALK_RETRY_US ||
                                               (queue->silent && queue->in_flight))) {
            slots |= 1U << slot_no;
        }
    }
    return slots;
}
