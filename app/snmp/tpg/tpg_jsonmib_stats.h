#ifndef TPG_JSONMIB_STATS_H
#define TPG_JSONMIB_STATS_H

/*
 * What operators are told of a slot: what came of the exchanges with its
 * daemon, how long they took, its traps, its document. Memory is fixed, and
 * nothing here does more than count. A slot that is none is passed over.
 */

#include "tpg.h"

/* The daemon is asked for something; jsonmib_stats_ended follows once for each. */
void jsonmib_stats_asked(tpg_context_t* ctx, uint32_t slot_no);

/* What is to be told (a constant) if the next exchange that ends has failed without an answer. */
void jsonmib_stats_why(tpg_context_t* ctx, uint32_t slot_no, const char* why);

/* An exchange came to this result; the daemon's state is looked at. */
void jsonmib_stats_ended(tpg_context_t* ctx, uint32_t slot_no, int result);

/* The daemon has answered what was sent at that time (both in microseconds). */
void jsonmib_stats_answered(tpg_context_t* ctx, uint32_t slot_no, int64_t sent_at, int64_t now);

/* Notes since when the daemon has been in its state. */
void jsonmib_stats_look(tpg_context_t* ctx, uint32_t slot_no);

/* There is a connection, or the daemon has ended it: then it counts as down until the next one. */
void jsonmib_stats_connected(tpg_context_t* ctx, uint32_t slot_no, bool connected);

/* A fault's trap was sent, or kept back by its switch. */
void jsonmib_stats_trap(tpg_context_t* ctx, uint32_t slot_no, bool sent);

/* Where the slot's document comes from. */
void jsonmib_stats_source(tpg_context_t* ctx, uint32_t slot_no, jsonmib_source_t source);

/* Answer times in microseconds; none: both -1. */
struct jsonmib_stats_times_t {
    int64_t median; /* to some 6 % */
    int64_t largest;
};

/* Those of the last minute before now, which begins with a full 10 s. */
jsonmib_stats_times_t jsonmib_stats_times(const tpg_context_t* ctx, uint32_t slot_no, int64_t now);

#endif
