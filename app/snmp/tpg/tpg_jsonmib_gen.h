#ifndef TPG_JSONMIB_GEN_H
#define TPG_JSONMIB_GEN_H

/* What the columns of a generic table ask their card. */

#include "tpg_jsonmib_cell.h"

/*
 * Serves the cell if the agent has its value, and returns an SNMP error status;
 * otherwise *asks becomes true, and *ask what the card is to be asked.
 */
int jsonmib_gen_get(const jsonmib_cell_t* cell, jsonmib_ask_t* ask, bool* asks);

/* Carries out a SET that has been checked; an SNMP error status. */
int jsonmib_gen_set(const jsonmib_cell_t* cell);

#endif
