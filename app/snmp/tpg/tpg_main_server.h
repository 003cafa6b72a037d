#ifndef TPG_MAIN_SERVER_H
#define TPG_MAIN_SERVER_H

/* The socket on which card clients connect: accept, frame, dispatch. */

#include "tpg.h"

struct sockaddr;

/* Listens on the client socket, in place of a file that nobody listens on; failure aborts. */
void tpg_create_svr_listener(tpg_context_t* ctx);

/* Stops listening and removes the agent's socket file; nothing when not listening. */
void tpg_free_svr_listener(tpg_context_t* ctx);

/* Ends and releases every connection; nothing is unregistered. */
void tpg_free_clients(tpg_context_t* ctx);

/* Callbacks: a connection was made; it has something to read, now or by its timer; it ended. */
void tpg_svr_accept_cb(evconnlistener* listener, int fd, sockaddr* address, int address_length,
                       void* arg);
void tpg_svr_conn_readcb(bufferevent* bev, void* arg);
void tpg_readcb_timeout_cb(int fd, short what, void* arg);
void tpg_svr_conn_eventcb(bufferevent* bev, short events, void* arg);

/* Carries out what was held back: registrations, withdrawals. To be called behind each turn of the
 * loop. */
void tpg_svr_serve_held(tpg_context_t* ctx);

/* Acknowledges a register or unregister message and carries it out, or holds it back while a SET
 * waits for its card or an earlier connection of the slot is being ended. */
void tpg_msg_libmib_update(tpg_context_t* ctx, tpg_msg_libmib_update_t* message,
                           tpg_ipc_clnt_t* client);

#endif
