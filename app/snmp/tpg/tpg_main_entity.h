#ifndef TPG_MAIN_ENTITY_H
#define TPG_MAIN_ENTITY_H

/*
 * The standard inventory, ENTITY-MIB (RFC 6933): the chassis, its slots and
 * the cards in them, for management systems that know nothing of cards' tables.
 */

#include "tpg.h"

/* Has the directive "entityMib yes" understood in the sub-agent's configuration file, name and
 * ".conf". To be called before the file is read. */
void tpg_entity_read_config(const char* name);

/* Registers the inventory if the configuration asks for it; without memory it is absent (logged). */
void tpg_entity_init(tpg_context_t* ctx);

/* To be called when cards have come or gone: brings the inventory up to date, and has managers told
 * of it, at most every 5 s. */
void tpg_entity_update(tpg_context_t* ctx);

#endif
