#ifndef TPG_JSONMIB_CTRL_H
#define TPG_JSONMIB_CTRL_H

/*
 * The control channel: one stream connection a slot to the daemon that holds
 * the slot's values, opened on demand, and the messages on it. Slots are 1 to
 * 15; callers see to that. Who asks when is the queue's matter.
 */

#include "tpg.h"

#include <sys/types.h>
#include <sys/uio.h>

/* Results of an exchange beside the daemon's own codes. */
constexpr int JSONMIB_CTRL_NOMEM = -2;
constexpr int JSONMIB_CTRL_TRANSPORT = -4;

/* One request to a slot's daemon; its owner's until it is complete. */
struct jsonmib_exchange_t {
    jsonmib_exchange_t* next; /* in the slot's queue */
    uint32_t slot_no;
    jsonmib_asked_t asked;
    uint32_t length;     /* data bytes asked for or written */
    const void* written; /* a SET's data */
    uint8_t* value;      /* where a reply's data goes: as long as the reply behind its head; null:
                            nobody wants it */
    int64_t born;        /* when the manager's request for it came, in microseconds; 0: now */
    int64_t queued;      /* when it was put in the queue, and then when it was sent */
    bool walk;           /* it serves a GETNEXT */
    bool patient;        /* it is not served at once even if the daemon is quick */
    bool done;
    int result; /* of a whole exchange: the daemon's code, or one of the above */
    /* Called once when the exchange is complete; null: somebody waits for done. */
    void (*complete)(tpg_context_t* ctx, jsonmib_exchange_t* exchange);
};

/* The time that exchanges are measured by: microseconds of the monotonic clock. */
int64_t jsonmib_now();

/* Connects the slot; 0, or -1 when the daemon is not there or not ready (logged). */
int jsonmib_ipc_connect(tpg_context_t* ctx, uint32_t slot_no);

/* The same, but JSONMIB_IPC_BUSY, not logged, when the daemon has yet to accept others. */
constexpr int JSONMIB_IPC_BUSY = 1;
int jsonmib_ipc_try_connect(tpg_context_t* ctx, uint32_t slot_no);

/* Logs that a request finds no connection. */
void jsonmib_ipc_not_available(tpg_context_t* ctx, uint32_t slot_no);

/* Closes the slot's connection, if it has one. */
void jsonmib_ipc_disconnect(tpg_context_t* ctx, uint32_t slot_no);

/* Sends length bytes without waiting, connecting first if need be; 0, or -1 (logged,
 * disconnected). */
int jsonmib_ipc_send(tpg_context_t* ctx, uint32_t slot_no, const void* buf, uint32_t length);

/*
 * Receives exactly length bytes; 0, or -1 (logged). The first byte may take
 * 5 s; after that time-out the connection is kept, after any other failure it
 * is closed. It waits, and so the agent's own requests go through the queue:
 * this is for whoever talks to a daemon without an event loop.
 */
int jsonmib_ipc_recv(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length);

/*
 * Receives into parts what has come, without waiting; the number of bytes, 0
 * when there are none, or -1 (logged, disconnected). length and received are
 * the reply's, for the log.
 */
ssize_t jsonmib_ipc_take(tpg_context_t* ctx, uint32_t slot_no, const iovec* parts, size_t total,
                         uint32_t length, uint32_t received);

/* Gives up a connection on which the rest of a reply does not come. */
void jsonmib_ipc_stuck(tpg_context_t* ctx, uint32_t slot_no, uint32_t length, uint32_t received);

/* Bytes of the reply to a GET of length data bytes. */
uint32_t jsonmib_ctrl_get_reply_len(uint32_t length);

/* Sends an exchange's request without waiting; 0, or the result that it comes to (logged). */
int jsonmib_ctrl_send(tpg_context_t* ctx, const jsonmib_exchange_t* exchange);

/* The daemon's code in the head of the reply to what was asked. */
int jsonmib_ctrl_result(tpg_context_t* ctx, const jsonmib_asked_t* asked, const uint8_t* head);

#endif
