#ifndef TPG_MAIN_SOCKET_H
#define TPG_MAIN_SOCKET_H

/* The file of the client socket: whose it is. Only one agent can have it. */

#include "tpg.h"

/* True, and logged, when another agent answers on the socket. */
bool tpg_socket_is_taken(tpg_context_t* ctx);

/* Remembers the file at the socket's path as this agent's own, once it is bound. */
void tpg_socket_note(tpg_context_t* ctx);

/* Removes the file if it is still this agent's own; a signal handler may call it. */
void tpg_socket_remove();

#endif
