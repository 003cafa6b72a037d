#ifndef CHASSIS_CLIENT_H
#define CHASSIS_CLIENT_H

/* The client of a slot: it registers the card with the agent and reports its faults. */

#include "chassis.h"

/*
 * Plugs the slot in: connects to the agent, now or as soon as it is there, and
 * registers the slot's card, if any, on every new connection. Once plugged in,
 * it only registers again.
 */
void chassis_client_plug(chassis_slot_t* slot);

/* Closes the connection and stays away. */
void chassis_client_unplug(chassis_slot_t* slot);

/* Withdraws the card and keeps the connection; 0, or -1 when there is none. */
int chassis_client_unregister(chassis_slot_t* slot);

/*
 * Reports a fault: a variable's index, and what the message carries behind
 * them (at most TPG_TRAP_DATA_MAX bytes). 0, or -1 when there is no connection.
 */
int chassis_client_fault(chassis_slot_t* slot, uint32_t var, uint32_t index, std::string_view data);

/* True when nothing is outstanding: acknowledged, plugged out, or no agent to talk to. */
bool chassis_client_settled(const chassis_slot_t* slot);

/* One word for where the client stands. */
const char* chassis_client_state(const chassis_slot_t* slot);

#endif
