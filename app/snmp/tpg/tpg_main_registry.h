#ifndef TPG_MAIN_REGISTRY_H
#define TPG_MAIN_REGISTRY_H

/* One record a slot, and in every product family one master whose tables serve all its cards. */

#include "tpg.h"

/*
 * 0 when the card's texts end inside their fields and may go into file names
 * and command lines; otherwise logged, and -1.
 */
int tpg_check_update(tpg_context_t* ctx, const tpg_libmib_update_t* update);

/* Takes a card in; all outcomes are logged. Slots above 15 are refused without a message. */
void tpg_proc_libmib_register(tpg_context_t* ctx, tpg_libmib_update_t* libmib_update);

/* Takes a card out, when libmib_update is to the byte what it was registered with. */
void tpg_proc_libmib_unregister(tpg_context_t* ctx, tpg_libmib_update_t* libmib_update);

/* +1, 0 or -1 as a is of a newer, the same or an older MIB version than b. */
int tpg_version_compare(const tpg_libmib_register_info_t* a, const tpg_libmib_register_info_t* b);

#endif
