#ifndef TPG_MAIN_SOCKET_H
#define TPG_MAIN_SOCKET_H

/* The files of the agent's sockets: whose they are. Only one agent can have that of the cards. */

#include "tpg.h"

enum class tpg_socket : unsigned char {
    cards,
    operators,
};

/* True, and logged, when another agent answers on the cards' socket. */
bool tpg_socket_is_taken(tpg_context_t* ctx);

/* Remembers the file at the path, a constant, as this agent's own, once the socket is bound. */
void tpg_socket_note(tpg_context_t* ctx, tpg_socket which, const char* path);

/* Removes the file if it is still this agent's own; a signal handler may call it. */
void tpg_socket_remove(tpg_socket which);

#endif
