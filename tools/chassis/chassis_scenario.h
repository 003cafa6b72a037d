#ifndef CHASSIS_SCENARIO_H
#define CHASSIS_SCENARIO_H

/* The scenario file: what is in the chassis at start. */

#include "chassis.h"

/* Fills the slots of chassis from the file; 0, or -1 with *error naming the place and reason. */
int chassis_scenario_load(chassis_t* chassis, const std::string& path, std::string* error);

#endif
