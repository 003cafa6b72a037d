#ifndef TPG_JSONMIB_QUEUE_H
#define TPG_JSONMIB_QUEUE_H

/*
 * Exchanges with the slots' daemons: per slot one is out and the others wait,
 * all slots side by side. Nothing here waits for a daemon but
 * jsonmib_queue_drive.
 */

#include "tpg_jsonmib_ctrl.h"

/*
 * Starts an exchange, or queues it. True when it is complete already, its
 * complete function not called; false when that will be called later. The
 * record, and what it points to, stay in place until then.
 */
bool jsonmib_queue_start(tpg_context_t* ctx, jsonmib_exchange_t* exchange);

/* Completes an exchange that was started as failed: nobody waits for it any more. */
void jsonmib_queue_abandon(tpg_context_t* ctx, jsonmib_exchange_t* exchange);

/* True while some exchange's owner waits for it. */
bool jsonmib_queue_busy(const tpg_context_t* ctx);

/* Serves the daemons of all slots until then (a time) or until something was complete. */
void jsonmib_queue_drive(tpg_context_t* ctx, int64_t until);

/* Completes every exchange as failed. */
void jsonmib_queue_fail_all(tpg_context_t* ctx);

/* Fails what waits in the slot and closes its connection. */
void jsonmib_queue_disconnect(tpg_context_t* ctx, uint32_t slot_no);

/* The slot has a new card: its daemon gets the full time again. */
void jsonmib_queue_card_came(tpg_context_t* ctx, uint32_t slot_no);

/* How many exchanges of the slot somebody waits for. */
uint32_t jsonmib_queue_waiting(const tpg_context_t* ctx, uint32_t slot_no);

/* The slots (bit n for slot n) whose cells a walk now goes past: nobody would answer. */
uint32_t jsonmib_queue_unreadable(const tpg_context_t* ctx);

/* Fails what waits, and lets go of all connections and timers. */
void jsonmib_queue_release(tpg_context_t* ctx);

#endif
