#ifndef TPG_MAIN_STATUS_H
#define TPG_MAIN_STATUS_H

/* The agent's state as operators see it, in JSON. */

#include "tpg.h"
#include "tpg_json.h"

/* To be called before the library is started: from then on it is known since when there has been
 * a master. */
void tpg_status_begin(tpg_context_t* ctx);

/* The whole state. */
tpg_json_t tpg_status_document(tpg_context_t* ctx);

/* One slot's, null when there is no card in it. */
tpg_json_t tpg_status_slot(tpg_context_t* ctx, uint32_t slot_no);

#endif
