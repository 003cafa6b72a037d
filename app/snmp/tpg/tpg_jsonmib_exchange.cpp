/* A slot's exchanges one by one: their order, their deadlines, and how each ends. */
#include "tpg_jsonmib_exchange.h"

#include "tpg_jsonmib_stats.h"
#include "tpg_log.h"

#include <algorithm>
#include <event2/event.h>

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t SILENT_US = SECOND_US / 5; /* how long a silent daemon has for an exchange */
constexpr int64_t CONNECT_RETRY_US = 10000;  /* between attempts at a full backlog */

jsonmib_queue_t* jsonmib_exchange_queue(tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_queue[slot_no - 1];
}

/* ---- waiting to be sent ---- */

void jsonmib_exchange_append(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange)
{
    exchange->next = nullptr;
    (queue->first == nullptr ? queue->first : queue->last->next) = exchange;
    queue->last = exchange;
}

void jsonmib_exchange_take_out(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange)
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

/* ---- time ---- */

int64_t jsonmib_exchange_limit(const jsonmib_queue_t* queue, const jsonmib_exchange_t* exchange)
{
    const int64_t limit = exchange->born + JSONMIB_CELL_US;
    return queue->silent ? std::min(limit, exchange->queued + SILENT_US) : limit;
}

int64_t jsonmib_exchange_flight_end(const jsonmib_queue_t* queue)
{
    return (queue->got > 0 ? queue->heard_at : queue->sent_at) + JSONMIB_REPLY_US;
}

int64_t jsonmib_exchange_next_deadline(const jsonmib_queue_t* queue)
{
    int64_t deadline = INT64_MAX;
    if (queue->in_flight || queue->got > 0) {
        deadline = jsonmib_exchange_flight_end(queue);
    }
    if (queue->owner != nullptr) {
        deadline = std::min(deadline, jsonmib_exchange_limit(queue, queue->owner));
    }
    for (const jsonmib_exchange_t* waiting = queue->first; waiting != nullptr;
         waiting = waiting->next) {
        deadline = std::min(deadline, jsonmib_exchange_limit(queue, waiting));
    }
    if (queue->connecting_since != 0 && queue->first != nullptr) {
        deadline = std::min(deadline, jsonmib_now() + CONNECT_RETRY_US);
    }
    return deadline;
}

void jsonmib_exchange_arm(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const int64_t deadline = jsonmib_exchange_next_deadline(queue);
    if (deadline == INT64_MAX || ctx->levent_base == nullptr ||
        (queue->timer_at != 0 && queue->timer_at <= deadline)) {
        return;
    }
    const int64_t left = std::max<int64_t>(deadline - jsonmib_now(), 0) + 1;
    const timeval delay = {static_cast<time_t>(left / SECOND_US),
                           static_cast<suseconds_t>(left % SECOND_US)};
    if (queue->timer == nullptr || event_add(queue->timer, &delay) != 0) {
        TPG_ERROR(ctx, "no memory for a timer, slot_no %u", slot_no);
        jsonmib_exchange_disconnect(ctx, slot_no);
        return;
    }
    queue->timer_at = deadline;
}

/* ---- the end ---- */

void jsonmib_exchange_complete(tpg_context_t* ctx, jsonmib_exchange_t* exchange, int result)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, exchange->slot_no);
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

void jsonmib_exchange_timed_out(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    jsonmib_stats_why(ctx, exchange->slot_no, "no answer in time");
    TPG_ERROR(ctx, "ipc timeout on slot_no %d", exchange->slot_no);
    TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
    jsonmib_exchange_complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

static void give_up(tpg_context_t* ctx, jsonmib_exchange_t* exchange, const char* why)
{
    jsonmib_stats_why(ctx, exchange->slot_no, why);
    TPG_ERROR(ctx, "gave up a request to slot_no %u: %s", exchange->slot_no, why);
    jsonmib_exchange_complete(ctx, exchange, JSONMIB_CTRL_TRANSPORT);
}

void jsonmib_exchange_give_up_slot(tpg_context_t* ctx, uint32_t slot_no, const char* why)
{
    jsonmib_queue_t* queue = jsonmib_exchange_queue(ctx, slot_no);
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot_no);
    jsonmib_exchange_t* owner = queue->owner;
    if (owner != nullptr) {
        queue->owner = nullptr;
        give_up(ctx, owner, why);
    }
    while (queue->first != nullptr) {
        jsonmib_exchange_t* waiting = queue->first;
        jsonmib_exchange_take_out(queue, waiting);
        give_up(ctx, waiting, why);
    }
}

void jsonmib_exchange_forget_connection(jsonmib_queue_t* queue)
{
    queue->in_flight = false;
    queue->owner = nullptr;
    queue->got = 0;
    queue->replies = {};
}

void jsonmib_exchange_disconnect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_exchange_give_up_slot(ctx, slot_no, "its card has gone");
    jsonmib_ipc_disconnect(ctx, slot_no);
    jsonmib_exchange_forget_connection(jsonmib_exchange_queue(ctx, slot_no));
    jsonmib_stats_look(ctx, slot_no);
}
