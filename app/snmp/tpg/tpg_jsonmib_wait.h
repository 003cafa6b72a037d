#ifndef TPG_JSONMIB_WAIT_H
#define TPG_JSONMIB_WAIT_H

/*
 * Exchanges whose answer is waited for in place: a SET's, for the library does
 * not let its phases end before the card has answered, and reads that a SET
 * needs. The event loop goes on meanwhile.
 */

#include "tpg_jsonmib_ctrl.h"

/*
 * Asks the slot's daemon for a variable and waits for the answer; the other
 * slots are served meanwhile. data (length bytes) is zeroed, and filled only on
 * success. Returns the daemon's code (0 is success), JSONMIB_CTRL_NOMEM or
 * JSONMIB_CTRL_TRANSPORT.
 */
int jsonmib_ctrl_get(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     void* data, uint32_t length);

/* Writes length bytes of data to a variable; the rest as for jsonmib_ctrl_get. */
int jsonmib_ctrl_set(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length);

#endif
