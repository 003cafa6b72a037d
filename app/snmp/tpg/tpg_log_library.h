#ifndef TPG_LOG_LIBRARY_H
#define TPG_LOG_LIBRARY_H

/*
 * The SNMP library's own messages, as lines of the agent's log: with a level,
 * and to where everything else goes.
 */

#include "tpg.h"

/*
 * From now on they are logged, unless option -L gave them another place. That
 * there is no master is said once, not at each attempt, until there was one.
 */
void tpg_log_library_take(tpg_context_t* ctx);

#endif
