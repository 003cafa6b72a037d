#ifndef TPG_JSONMIB_QUEUE_H
#define TPG_JSONMIB_QUEUE_H

/*
 * Exchanges with the slots' daemons. In each slot one exchange is out and the
 * others wait; the slots do not wait for each other. The only function that
 * waits for daemons is jsonmib_queue_drive.
 */

#include "tpg_jsonmib_ctrl.h"

/*
 * Sends an exchange's request, or queues the exchange. Returns true when it is
 * complete already; its complete function is not called then. Returns false
 * when it will be completed later by that function; until then the caller
 * leaves the record, and what it points to, in place.
 */
bool jsonmib_queue_start(tpg_context_t* ctx, jsonmib_exchange_t* exchange);

/* Gives up an exchange that has been started and is not complete: it is completed as failed. */
void jsonmib_queue_abandon(tpg_context_t* ctx, jsonmib_exchange_t* exchange);

/* True while anybody waits for an exchange, in any slot. */
bool jsonmib_queue_busy(const tpg_context_t* ctx);

/* Waits until a daemon sends something, a deadline passes, or the time until (of jsonmib_now)
 * comes; then serves all slots once. */
void jsonmib_queue_drive(tpg_context_t* ctx, int64_t until);

/* Completes the exchanges of all slots as failed. */
void jsonmib_queue_fail_all(tpg_context_t* ctx);

/* Completes the slot's exchanges as failed and closes its connection. */
void jsonmib_queue_disconnect(tpg_context_t* ctx, uint32_t slot_no);

/* The slot has a new card: its daemon is taken for one that answers again. */
void jsonmib_queue_card_came(tpg_context_t* ctx, uint32_t slot_no);

/* How many exchanges of the slot somebody waits for. */
uint32_t jsonmib_queue_waiting(const tpg_context_t* ctx, uint32_t slot_no);

/* The slots (bit n for slot n) that a walk leaves out for now, as nobody there would answer. */
uint32_t jsonmib_queue_unreadable(const tpg_context_t* ctx);

/* Completes all exchanges as failed, and frees all connections and timers. */
void jsonmib_queue_release(tpg_context_t* ctx);

#endif
