/* An exchange in place: the event loop goes on until it is complete. */
#include "tpg_jsonmib_wait.h"

#include "tpg_file.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>

static int run_in_place(tpg_context_t* ctx, jsonmib_exchange_t* exchange);
static bool loop_goes_on(tpg_context_t* ctx);

/* An exchange has so long, in microseconds, where the event loop stands still meanwhile. */
constexpr int64_t IN_CALLBACK_US = 250000;

int jsonmib_ctrl_get(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     void* data, uint32_t length)
{
    uint8_t fixed[UEVGEND_DATA_FIXED];
    tpg_heap_bytes large;
    uint8_t* value = fixed;
    if (length > UEVGEND_DATA_FIXED) {
        large.reset(static_cast<uint8_t*>(calloc(1, length)));
        if (large == nullptr) {
            TPG_ERROR(ctx, "jsonmib_ctrl_get calloc failed, %s", strerror(errno));
            return JSONMIB_CTRL_NOMEM;
        }
        value = large.get();
    }
    jsonmib_exchange_t exchange = {};
    exchange.slot_no = slot_no;
    exchange.asked = {UEVGEND_MSG_GET, var_id, index, jsonmib_ctrl_get_reply_len(length)};
    exchange.length = length;
    exchange.value = value;
    memset(data, 0, length);
    const int result = run_in_place(ctx, &exchange);
    if (result == 0) {
        memcpy(data, value, length);
    }
    return result;
}

int jsonmib_ctrl_set(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length)
{
    jsonmib_exchange_t exchange = {};
    exchange.slot_no = slot_no;
    exchange.asked = {UEVGEND_MSG_SET, var_id, index, sizeof(uevgend_set_reply_msg_t)};
    exchange.length = length;
    exchange.written = data;
    return run_in_place(ctx, &exchange);
}

/* One turn of the event loop; false when it is to end, and that it must not forget. */
static bool loop_goes_on(tpg_context_t* ctx)
{
    if (event_base_got_break(ctx->levent_base) != 0) {
        return false;
    }
    const tpg_log_slot_t served = tpg_log_serve(ctx, 0); /* whoever comes */
    tpg_log_before_turn(ctx);
    ctx->jsonmib_later.loop_busy = true;
    const int ended = event_base_loop(ctx->levent_base, EVLOOP_ONCE);
    ctx->jsonmib_later.loop_busy = false;
    return ended == 0 && event_base_got_break(ctx->levent_base) == 0;
}

/*
 * The event loop goes on, but for requests of the master and changes of the
 * registry, which wait. Where it cannot, in a callback of its own, only the
 * daemons are served, and not for long.
 */
static int run_in_place(tpg_context_t* ctx, jsonmib_exchange_t* exchange)
{
    jsonmib_later_t* later = &ctx->jsonmib_later;
    exchange->born = jsonmib_now() - (later->loop_busy ? JSONMIB_CELL_US - IN_CALLBACK_US : 0);
    jsonmib_queue_start(ctx, exchange);
    later->waiting++;
    while (!exchange->done) {
        if (ctx->levent_base == nullptr || later->loop_busy) {
            jsonmib_queue_drive(ctx, INT64_MAX);
        } else if (!loop_goes_on(ctx) && !exchange->done) {
            jsonmib_queue_abandon(ctx, exchange);
        }
    }
    later->waiting--;
    return exchange->result;
}
