#ifndef TPG_MAIN_NOTIFY_H
#define TPG_MAIN_NOTIFY_H

/*
 * What the service manager is told: that the agent is ready, that its loop
 * turns, and what it serves. Nothing where nobody asked for it, or in a build
 * without systemd's library.
 */

#include "tpg.h"

/* False where standard error is the journal, which has each line from syslog already. */
bool tpg_notify_console_wanted();

/* Sees from now on whether there is a master: before the first connection to it. */
void tpg_notify_watch_master(tpg_context_t* ctx);

/* The loop is about to run: has its first turn come at once. */
void tpg_notify_start(tpg_context_t* ctx);

/* Behind each turn of the loop: tells what has to be told. */
void tpg_notify_turn(tpg_context_t* ctx);

/* The agent is about to end. */
void tpg_notify_stop(tpg_context_t* ctx);

#endif
