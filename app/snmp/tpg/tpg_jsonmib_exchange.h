#ifndef TPG_JSONMIB_EXCHANGE_H
#define TPG_JSONMIB_EXCHANGE_H

/*
 * A slot's exchanges one by one: the order in which they wait, their deadlines,
 * and how each ends. For the queue and its flight, which start them.
 *
 * Times are microseconds of the monotonic clock. Slots are 1 to 15.
 */

#include "tpg_jsonmib_ctrl.h"

/* The slot's queue, which belongs to the context. */
jsonmib_queue_t* jsonmib_exchange_queue(tpg_context_t* ctx, uint32_t slot_no);

/* ---- waiting to be sent ---- */

/* Puts an exchange behind those that wait. It stays its owner's. */
void jsonmib_exchange_append(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange);

/* Takes out an exchange that waits in the queue, wherever it stands there. */
void jsonmib_exchange_take_out(jsonmib_queue_t* queue, jsonmib_exchange_t* exchange);

/* ---- time ---- */

/* When an exchange is given up, whether it waits or has been sent. */
int64_t jsonmib_exchange_limit(const jsonmib_queue_t* queue, const jsonmib_exchange_t* exchange);

/* When the answer to the request that is out, or the rest of it, is no longer waited for. */
int64_t jsonmib_exchange_flight_end(const jsonmib_queue_t* queue);

/* The earliest time at which something in the slot is due; INT64_MAX for none. */
int64_t jsonmib_exchange_next_deadline(const jsonmib_queue_t* queue);

/*
 * Sets the slot's timer to the next deadline. One that is set to an earlier
 * time stays: it is set again when it has run out. A slot whose timer cannot
 * be set is disconnected (logged).
 */
void jsonmib_exchange_arm(tpg_context_t* ctx, uint32_t slot_no);

/* ---- the end ---- */

/* Ends an exchange that is in the queue no more. Its owner may have freed it on return. */
void jsonmib_exchange_complete(tpg_context_t* ctx, jsonmib_exchange_t* exchange, int result);

/* The same, as failed and logged: no answer has come in time. */
void jsonmib_exchange_timed_out(tpg_context_t* ctx, jsonmib_exchange_t* exchange);

/* Fails all exchanges of the slot, each logged with the reason. */
void jsonmib_exchange_give_up_slot(tpg_context_t* ctx, uint32_t slot_no, const char* why);

/* Drops what is known of a connection that has ended. That its daemon is silent stays known. */
void jsonmib_exchange_forget_connection(jsonmib_queue_t* queue);

/* Fails all exchanges of the slot and closes its connection. */
void jsonmib_exchange_disconnect(tpg_context_t* ctx, uint32_t slot_no);

#endif
