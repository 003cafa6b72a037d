#ifndef CHASSIS_DAEMON_H
#define CHASSIS_DAEMON_H

/* The control daemon of a slot: it answers get and set requests for the slot's variables. */

#include "chassis.h"

/*
 * Listens on the slot's socket; a stale socket file there is replaced. 0, or
 * -1 with *error set, also when somebody else serves the socket.
 */
int chassis_daemon_up(chassis_slot_t* slot, std::string* error);

/* Closes the slot's connections and listener and removes the socket file. */
void chassis_daemon_down(chassis_slot_t* slot);

/*
 * From now on requests are treated so; arg as described at chassis_mode. Going
 * into and out of chassis_mode::down takes the daemon down and up. 0, or -1
 * with *error set.
 */
int chassis_daemon_mode(chassis_slot_t* slot, chassis_mode mode, int arg, std::string* error);

#endif
