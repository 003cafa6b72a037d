#ifndef TPG_MAIN_CARDMIB_H
#define TPG_MAIN_CARDMIB_H

/* A card's MIB in and out of the SNMP agent. */

#include "tpg.h"

/*
 * Finds the card's document and registers its tables; jsonmib_reginfo receives
 * them. 0, or -1 (logged; what was registered stays in the record).
 */
int tpg_snmp_register_jsonmib(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Unregisters and releases the record's tables, bindings and send-trap
 * document; identity, mask, master and counts stay.
 */
void tpg_snmp_unregister_jsonmib(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Fills the slot's send-trap switches in the fault tables of the slot's
 * master: all on, then as stored. 0, or -1 when there is nothing to fill.
 */
int tpg_preload_send_trap_storage(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

#endif
