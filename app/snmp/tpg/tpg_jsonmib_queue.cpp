/* Starts exchanges with the slots' daemons, sees to their time, and ends them, for all slots. */
#include "tpg_jsonmib_queue.h"

#include "tpg_jsonmib_exchange.h"
#include "tpg_jsonmib_flight.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_log.h"

#include <algorithm>
#include <event2/event.h>
#include <poll.h>

static void timer_cb(int fd, short what, void* arg);
static void check_time(tpg_context_t*, uint32_t);

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t WALK_RETRY_US =
    SECOND_US; /* between two attempts of a walk at an unreadable slot */

bool jsonmib_queue_start(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    const uint32_t slot_no = exchange->slot_no;
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
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
        jsonmib_exchange_complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
        return true;
    }
    jsonmib_exchange_append(queue, exchange);
    if (idle) {
        void (*const later)(tpg_context_t*, jsonmib_exchange_t*) = exchange->complete;
        exchange->complete = nullptr;
        jsonmib_flight_start_next(ctx, slot_no, exchange->queued);
        if (queue->owner == exchange && queue->quick && !exchange->patient) {
            jsonmib_flight_wait_shortly(ctx, slot_no);
        }
        if (exchange->done) {
            return true;
        }
        exchange->complete = later;
    }
    /* The timer is created here, for the first exchange that waits, and serves all later ones. */
    if (queue->timer == nullptr && ctx->levent_base != nullptr) {
        queue->timer = event_new(ctx->levent_base, -1, 0, timer_cb, ctx);
    }
    jsonmib_exchange_arm(ctx, slot_no);
    return false;
}

/* ---- time ---- */

/* Looks for the timers that have run out by asking which are no longer pending: the loop's clock
 * may be a little behind the agent's, and a deadline not yet reached by the latter. */
static void timer_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
        if (queue->timer_at != 0 && event_pending(queue->timer, EV_TIMEOUT, nullptr) == 0) {
            queue->timer_at = 0;
            check_time(ctx, slot_no);
            jsonmib_exchange_arm(ctx, slot_no);
        }
    }
}

static void check_time(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    const int64_t now = jsonmib_now();
    if ((queue->in_flight || queue->got > 0) && now >= jsonmib_exchange_flight_end(queue)) {
        jsonmib_flight_timed_out(ctx, slot_no);
    } else if (queue->owner != nullptr && now >= jsonmib_exchange_limit(queue, queue->owner)) {
        jsonmib_exchange_t* owner = queue->owner;
        queue->owner = nullptr; /* its request stays out: the daemon still has time to answer it */
        jsonmib_exchange_timed_out(ctx, owner);
    }
    jsonmib_exchange_t* next = nullptr;
    for (jsonmib_exchange_t* waiting = queue->first; waiting != nullptr; waiting = next) {
        next = waiting->next;
        if (now >= jsonmib_exchange_limit(queue, waiting)) {
            jsonmib_exchange_take_out(queue, waiting);
            jsonmib_exchange_timed_out(ctx, waiting);
        }
    }
    jsonmib_flight_check_connecting(ctx, slot_no, now);
    jsonmib_flight_start_next(ctx, slot_no, now);
}

/* ---- the end of exchanges ---- */

void jsonmib_queue_abandon(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, exchange->slot_no);
    if (queue->owner == exchange) {
        queue->owner = nullptr;
    } else {
        jsonmib_exchange_take_out(queue, exchange);
    }
    jsonmib_exchange_complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

void jsonmib_queue_fail_all(tpg_context_t* ctx)
{
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        jsonmib_exchange_give_up_slot(ctx, slot_no, "tables are about to change");
    }
}

void jsonmib_queue_disconnect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_exchange_disconnect(ctx, slot_no);
}

void jsonmib_queue_release(tpg_context_t* ctx)
{
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
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
        const jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
        const jsonmib_ipc_info_t* info = &ctx->jsonmib_ipc_info[slot_no - 1];
        const bool expects = queue->in_flight || queue->replies.dead_total > 0;
        fds[slot_no - 1] = {expects && info->connected != 0 ? info->fd : -1, POLLIN, 0};
        deadline = std::min(deadline, jsonmib_exchange_next_deadline(queue));
    }
    const int64_t left = std::max<int64_t>(deadline - jsonmib_now(), 0);
    const timespec wait = {static_cast<time_t>(left / SECOND_US),
                           static_cast<long>(left % SECOND_US * 1000)};
    const int ready = ppoll(fds, TPG_SLOT_MAX, &wait, nullptr);
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        if (ready > 0 && fds[slot_no - 1].revents != 0) {
            jsonmib_flight_receive(ctx, slot_no, false);
        }
        check_time(ctx, slot_no);
        jsonmib_exchange_arm(ctx, slot_no);
    }
}

void jsonmib_queue_card_came(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
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
