#ifndef TPG_MAIN_LEVENT_H
#define TPG_MAIN_LEVENT_H

/* The SNMP library's descriptors and timer on the agent's event loop. */

#include "tpg.h"

/* Brings the watched descriptors and the SNMP timer into line with what the library wants. */
void levent_snmp_update(tpg_context_t* ctx);

/*
 * To be called after work that has talked to the master, or has set the SNMP
 * library an alarm, outside of the callbacks below: the update, and the
 * master's last answer acknowledged, so that its next request need not wait.
 */
void levent_snmp_settle(tpg_context_t* ctx);

/*
 * To be called behind every turn of the event loop: reads what has come for the
 * library, runs its timers, and answers the requests whose cards have answered.
 */
void levent_snmp_serve(tpg_context_t* ctx);

/* A descriptor has something to read; the timer has run out. arg is the context. */
void levent_snmp_read(int fd, short what, void* arg);
void levent_snmp_timeout(int fd, short what, void* arg);

/* Event callback of the timer: its work is done behind the loop's turn. */
void levent_snmp_timer_ran_out(int fd, short what, void* arg);

/*
 * To be called once, when the list of descriptors is set up: from then on a
 * new AgentX session has every descriptor watched anew, also one whose number
 * the old session had.
 */
void levent_snmp_watch_sessions(tpg_context_t* ctx);

/* Stops watching and releases every descriptor's entry. */
void levent_snmp_free_list(tpg_context_t* ctx);

#endif
