#ifndef TPG_JSONMIB_FAULT_H
#define TPG_JSONMIB_FAULT_H

/* What the columns of a fault table ask their card, and the send-trap switches, which are the
 * agent's own. */

#include "tpg_jsonmib_cell.h"

/*
 * Serves the cell if the agent has its value, and returns an SNMP error status;
 * otherwise *asks becomes true, and *ask what the card is to be asked.
 */
int jsonmib_fault_get(const jsonmib_cell_t* cell, jsonmib_ask_t* ask, bool* asks);

/* Carries out a SET that has been checked; an SNMP error status. */
int jsonmib_fault_set(const jsonmib_cell_t* cell);

/* True when the send-trap switch at a flat row position of a slot's row is on (bit set). */
bool jsonmib_sendtrap_test(const uint8_t* row, uint32_t position);

/* Turns the send-trap switch at a flat row position (below 4096) on or off. */
void jsonmib_sendtrap_store(uint8_t* row, uint32_t position, bool on);

#endif
