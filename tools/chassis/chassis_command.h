#ifndef CHASSIS_COMMAND_H
#define CHASSIS_COMMAND_H

/* The operator's commands on standard input and their answers on standard output. */

#include "chassis.h"

/*
 * Announces the chassis with a "ready" line as soon as every plugged client is
 * settled; after that takes commands until "quit" or the end of the input, which
 * end the loop. 0, or -1 when out of memory.
 */
int chassis_command_start(chassis_t* chassis);

/* Prints one line a command, each behind indent. */
void chassis_command_help(const char* indent);

#endif
