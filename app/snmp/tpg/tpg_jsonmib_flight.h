#ifndef TPG_JSONMIB_FLIGHT_H
#define TPG_JSONMIB_FLIGHT_H

/*
 * The one request that is out in a slot: it is sent, connecting first if need
 * be, and its reply is received. Also what is known of the slot's daemon: that
 * it is away, or silent. Nothing here waits, but for the 100 us that a quick
 * daemon is given. For the queue, which sees to the time. Slots are 1 to 15.
 */

#include "tpg.h"

/* Sends what waits first, as long as nothing is out; now is the time of sending. */
void jsonmib_flight_start_next(tpg_context_t* ctx, uint32_t slot_no, int64_t now);

/*
 * Gives a quick daemon a moment to answer what has just been sent. One that
 * runs on the agent's processor has often answered before the send returns,
 * and mostly does so when it is given the processor.
 */
void jsonmib_flight_wait_shortly(tpg_context_t* ctx, uint32_t slot_no);

/*
 * Receives what has come, as long as some request has yet to be answered, and
 * sends the next one. at_once: the request was sent just now, and the time it
 * was sent counts as the time of the answer.
 */
void jsonmib_flight_receive(tpg_context_t* ctx, uint32_t slot_no, bool at_once);

/* The time of the request that is out has come to its end: no reply came, or no more of it. */
void jsonmib_flight_timed_out(tpg_context_t* ctx, uint32_t slot_no);

/*
 * Looks after a daemon whose backlog is full: one that has accepted nobody for
 * as long as it has for a reply counts as silent.
 */
void jsonmib_flight_check_connecting(tpg_context_t* ctx, uint32_t slot_no, int64_t now);

#endif
