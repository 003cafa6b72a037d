#ifndef TPG_JSONMIB_CTRL_H
#define TPG_JSONMIB_CTRL_H

/*
 * The control channel: one stream connection a slot to the daemon that holds
 * the slot's values, opened on demand. Every exchange is synchronous. Slots
 * are 1 to 15; callers see to that.
 */

#include "tpg.h"

/* Results of jsonmib_ctrl_get and jsonmib_ctrl_set beside the daemon's own codes. */
constexpr int JSONMIB_CTRL_NOMEM = -2;
constexpr int JSONMIB_CTRL_TRANSPORT = -4;

/* Connects the slot; 0, or -1 when the daemon is not there (logged). */
int jsonmib_ipc_connect(tpg_context_t* ctx, uint32_t slot_no);

/* Closes the slot's connection, if it has one. */
void jsonmib_ipc_disconnect(tpg_context_t* ctx, uint32_t slot_no);

/* Sends length bytes, connecting first if need be; 0, or -1 (logged, disconnected). */
int jsonmib_ipc_send(tpg_context_t* ctx, uint32_t slot_no, const void* buf, uint32_t length);

/*
 * Receives exactly length bytes; 0, or -1 (logged). The first byte may take
 * 5 s; after that time-out the connection is kept, after any other failure it
 * is closed.
 */
int jsonmib_ipc_recv(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length);

/*
 * Asks the slot's daemon for a variable. data (length bytes) is zeroed, and
 * filled only on success. Returns the daemon's code (0 is success),
 * JSONMIB_CTRL_NOMEM or JSONMIB_CTRL_TRANSPORT.
 */
int jsonmib_ctrl_get(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     void* data, uint32_t length);

/* Writes length bytes of data to a variable; results as for jsonmib_ctrl_get. */
int jsonmib_ctrl_set(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length);

#endif
