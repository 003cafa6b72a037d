#ifndef TPG_MAIN_CONTROL_H
#define TPG_MAIN_CONTROL_H

/*
 * The operators' socket (tpg_ctl_i.h): the state, the log level and trace
 * tokens, a card read anew. Root and the agent's own user are served.
 */

#include "tpg.h"
#include "tpg_json.h"

#include <string_view>
#include <sys/types.h>

/* Listens; without the socket (logged) the agent is as good. */
void tpg_control_open(tpg_context_t* ctx);

/* Ends all connections and removes the socket; nothing when not listening. */
void tpg_control_close(tpg_context_t* ctx);

/* True when a peer of that user is served by an agent of user own. */
bool tpg_control_serves(uid_t peer, uid_t own);

/* Carries out the request in a line: the answer, or null when the line is no request at all. */
tpg_json_t tpg_control_answer(tpg_context_t* ctx, std::string_view line);

#endif
