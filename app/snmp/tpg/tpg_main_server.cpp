#include "tpg_main_server.h"

#include "tpg_jsonmib_queue.h"
#include "tpg_log.h"
#include "tpg_main_levent.h"
#include "tpg_main_registry.h"
#include "tpg_main_trap.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static void listener_error_cb(evconnlistener*, void*);
static void listener_retry_cb(int, short, void*);
static bool has_room(tpg_context_t*, int);
static tpg_ipc_clnt_t* new_client(tpg_context_t*, int, bufferevent*);
static void free_client(tpg_ipc_clnt_t*);
static bool read_message(tpg_context_t*, tpg_ipc_clnt_t*, bufferevent*);
static int read_header(tpg_context_t*, bufferevent*, int);
static bool header_accepted(tpg_read_st*);
static int read_payload(tpg_context_t*, tpg_ipc_clnt_t*, bufferevent*, int);
static void note_first_message(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static void dispatch(tpg_context_t*, tpg_ipc_clnt_t*);
static void dispatch_libmib_update(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static void dispatch_trap_notify(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static int send_update_ack(tpg_context_t*, tpg_ipc_clnt_t*);
static void carry_out_update(tpg_context_t*, tpg_msg_libmib_update_t*, tpg_ipc_clnt_t*);
static void withdraw_slot(tpg_context_t*, uint32_t);
static void end_connection(tpg_ipc_clnt_t*, short, int);
static bool must_hold(const tpg_context_t*);
static void hold(tpg_ipc_clnt_t*);
static void serve_held(tpg_ipc_clnt_t*);
static void watch_again(tpg_ipc_clnt_t*);

constexpr int32_t HEAD_LEN = sizeof(com_msg_head_t);
constexpr timeval REREAD_DELAY = {0, 5000};
constexpr timeval LISTEN_RETRY_DELAY = {1, 0};
constexpr mode_t SOCKET_MODE = 0777; /* processes of any user may connect */
/* What a client may have waiting in the agent, in bytes; the rest waits in its socket. */
constexpr size_t INPUT_MAX = size_t{64} * 1024;
constexpr size_t OUTPUT_MAX = size_t{16} * 1024;
/* Descriptors that clients leave to the SNMP library, the control channels and files. */
constexpr rlim_t RESERVED_FDS = 64;
constexpr char TRACE_READCB[] = "readcb";
constexpr char READCB_NAME[] = "tpg_svr_conn_readcb";

/* What one step of the reader came to. */
constexpr int READ_AGAIN = 0;
constexpr int READ_DONE = 1;
constexpr int READ_NOTHING = -1;

/* ---- listener ---- */

void tpg_create_svr_listener(tpg_context_t* ctx)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, TPG_SVR_PATH, sizeof(TPG_SVR_PATH));
    unlink(TPG_SVR_PATH);
    ctx->svr_listener =
        evconnlistener_new_bind(ctx->levent_base, tpg_svr_accept_cb, ctx,
                                LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE | LEV_OPT_CLOSE_ON_EXEC,
                                -1, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    assert((ctx->svr_listener));
    evconnlistener_set_error_cb(ctx->svr_listener, listener_error_cb);
    ctx->svr_retry_timer = event_new(ctx->levent_base, -1, 0, listener_retry_cb, ctx);
    assert((ctx->svr_retry_timer));
    if (chmod(TPG_SVR_PATH, SOCKET_MODE) != 0) {
        TPG_ERROR(ctx, "chmod failed, %s", strerror(errno));
    }
}

void tpg_free_svr_listener(tpg_context_t* ctx)
{
    if (ctx->svr_listener == nullptr) {
        return;
    }
    evconnlistener_free(ctx->svr_listener);
    event_free(ctx->svr_retry_timer);
    unlink(TPG_SVR_PATH);
    ctx->svr_listener = nullptr;
    ctx->svr_retry_timer = nullptr;
}

/* Out of descriptors the listener would be called again and again: it pauses. */
static void listener_error_cb(evconnlistener* listener, void* arg)
{
    auto* ctx = static_cast<tpg_context_t*>(arg);
    TPG_WARN(ctx, "cannot accept a connection, %s", strerror(errno));
    if (event_add(ctx->svr_retry_timer, &LISTEN_RETRY_DELAY) == 0) {
        evconnlistener_disable(listener); /* the timer brings it back */
    }
}

static void listener_retry_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    if (ctx->svr_listener != nullptr) {
        evconnlistener_enable(ctx->svr_listener);
    }
}

/* ---- connections ---- */

/* False when one more client would be too many for the agent or for its descriptors. */
static bool has_room(tpg_context_t* ctx, int fd)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        limit.rlim_cur = FD_SETSIZE;
    }
    const rlim_t fds = std::min<rlim_t>(limit.rlim_cur, FD_SETSIZE);
    if (ctx->ipc_clnt_total >= TPG_CLIENTS_MAX) {
        TPG_WARN(ctx, "refused connection FD %d: %u clients are connected", fd,
                 ctx->ipc_clnt_total);
        return false;
    }
    if (static_cast<rlim_t>(fd) + RESERVED_FDS >= fds) {
        TPG_WARN(ctx, "refused connection FD %d: descriptors are running out", fd);
        return false;
    }
    return true;
}

/* A client record on the list, or null (logged). */
static tpg_ipc_clnt_t* new_client(tpg_context_t* ctx, int fd, bufferevent* bev)
{
    auto* client = static_cast<tpg_ipc_clnt_t*>(calloc(1, sizeof(tpg_ipc_clnt_t)));
    event* timer = client == nullptr
                       ? nullptr
                       : event_new(ctx->levent_base, -1, 0, tpg_readcb_timeout_cb, client);
    if (timer == nullptr) {
        TPG_ERROR(ctx, "calloc failed, %s", strerror(errno));
        free(client);
        return nullptr;
    }
    client->acc_fd = fd;
    client->clnt_pid = 0;
    client->bev = bev;
    client->ctx = ctx;
    client->rdcb_timer = timer;
    return client;
}

void tpg_svr_accept_cb(evconnlistener* listener, int fd, sockaddr* address, int address_length,
                       void* arg)
{
    (void)listener;
    (void)address;
    (void)address_length;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    if (!has_room(ctx, fd)) {
        close(fd);
        return;
    }
    evutil_make_socket_closeonexec(fd);
    bufferevent* bev = bufferevent_socket_new(ctx->levent_base, fd, BEV_OPT_CLOSE_ON_FREE);
    assert((bev));
    tpg_ipc_clnt_t* client = new_client(ctx, fd, bev);
    if (client == nullptr) {
        bufferevent_free(bev);
        return;
    }
    ctx->read_proc = {};
    list_add_tail(&client->node, &ctx->ipc_clnt_list);
    ctx->ipc_clnt_total++;
    bufferevent_setcb(bev, tpg_svr_conn_readcb, nullptr, tpg_svr_conn_eventcb, client);
    bufferevent_setwatermark(bev, EV_READ, 0, INPUT_MAX);
    if (bufferevent_enable(bev, EV_READ | EV_WRITE) != 0) {
        TPG_ERROR(ctx, "cannot watch connection FD %d", fd);
        free_client(client);
        return;
    }
    TPG_INFO(ctx, "Accepted Connection FD %d", fd);
}

static bool is_held(const tpg_ipc_clnt_t* client)
{
    return client->held.message || client->held.events != 0;
}

static void free_client(tpg_ipc_clnt_t* client)
{
    tpg_context_t* ctx = client->ctx;
    ctx->ipc_clnt_held -= is_held(client) ? 1 : 0;
    bufferevent_free(client->bev);
    client->bev = nullptr;
    client->acc_fd = -1;
    client->clnt_pid = 0;
    client->ctx = nullptr;
    event_free(client->rdcb_timer);
    client->rdcb_timer = nullptr;
    list_del_init(&client->node);
    ctx->ipc_clnt_total--;
    free(client);
}

void tpg_free_clients(tpg_context_t* ctx)
{
    list_head* next = nullptr;
    for (list_head* node = ctx->ipc_clnt_list.next; node != &ctx->ipc_clnt_list; node = next) {
        next = node->next;
        free_client(list_entry(node, tpg_ipc_clnt_t, node));
    }
}

/* Takes out what is registered in the slot, and its control connection. */
static void withdraw_slot(tpg_context_t* ctx, uint32_t slot)
{
    if (slot < 1 || slot > TPG_SLOT_MAX) {
        return;
    }
    tpg_proc_libmib_unregister(ctx, &ctx->jsonmib_reg_info[slot - 1].libmib_reginfo);
    jsonmib_queue_disconnect(ctx, slot);
    levent_snmp_settle(ctx);
}

void tpg_svr_conn_eventcb(bufferevent* bev, short events, void* arg)
{
    (void)bev;
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    const int error = errno;
    const tpg_log_slot_t served = tpg_log_serve(client->ctx, client->libmib_reg_slot);
    TPG_ERROR(client->ctx, "got event 0x%x", static_cast<unsigned>(events));
    if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0) {
        return;
    }
    if (must_hold(client->ctx)) {
        hold(client);
        client->held.events = events;
        client->held.error = error;
        return;
    }
    end_connection(client, events, error);
}

static void end_connection(tpg_ipc_clnt_t* client, short events, int error)
{
    tpg_context_t* ctx = client->ctx;
    if ((events & BEV_EVENT_EOF) != 0) {
        TPG_INFO(ctx, "Connection FD %d to client PID %d closed", client->acc_fd, client->clnt_pid);
    } else {
        TPG_ERROR(ctx, "Got an error on the connection: %s", strerror(error));
    }
    withdraw_slot(ctx, client->libmib_reg_slot);
    free_client(client);
}

/* ---- held back ---- */

/* While a SET is being carried out its table must not go, and no other come. */
static bool must_hold(const tpg_context_t* ctx)
{
    return ctx->jsonmib_later.waiting > 0;
}

/* Nothing more is read of the client until what it did has been seen to. */
static void hold(tpg_ipc_clnt_t* client)
{
    if (!is_held(client)) {
        client->ctx->ipc_clnt_held++;
        bufferevent_disable(client->bev, EV_READ);
        event_del(client->rdcb_timer);
    }
}

void tpg_svr_serve_held(tpg_context_t* ctx)
{
    list_head* next = nullptr;
    ctx->jsonmib_later.loop_busy = true;
    for (list_head* node = ctx->ipc_clnt_list.next;
         ctx->ipc_clnt_held > 0 && node != &ctx->ipc_clnt_list; node = next) {
        next = node->next;
        tpg_ipc_clnt_t* client = list_entry(node, tpg_ipc_clnt_t, node);
        if (is_held(client)) {
            serve_held(client);
        }
    }
    ctx->jsonmib_later.loop_busy = false;
}

static void serve_held(tpg_ipc_clnt_t* client)
{
    tpg_context_t* ctx = client->ctx;
    const tpg_held_t held = client->held;
    const tpg_log_slot_t served = tpg_log_serve(ctx, client->libmib_reg_slot);
    client->held = {};
    ctx->ipc_clnt_held--;
    if (held.message) {
        tpg_msg_libmib_update_t update = held.update;
        carry_out_update(ctx, &update, client);
        levent_snmp_settle(ctx);
    }
    if (held.events != 0) {
        end_connection(client, held.events, held.error);
    } else {
        watch_again(client);
    }
}

static void watch_again(tpg_ipc_clnt_t* client)
{
    if (bufferevent_enable(client->bev, EV_READ) != 0 ||
        event_add(client->rdcb_timer, &REREAD_DELAY) != 0) {
        TPG_ERROR(client->ctx, "cannot watch connection FD %d", client->acc_fd);
    }
}

/* ---- reader ---- */

/*
 * At most one message a call; the timer calls again, so that a busy client
 * cannot hold the loop.
 */
void tpg_svr_conn_readcb(bufferevent* bev, void* arg)
{
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    tpg_context_t* ctx = client->ctx;
    const tpg_log_slot_t served = tpg_log_serve(ctx, client->libmib_reg_slot);
    TPG_TRACE(ctx, TRACE_READCB, "%s(): enter, state=%d", READCB_NAME, ctx->read_proc.state);
    const bool whole = !is_held(client) && read_message(ctx, client, bev);
    if (whole && !is_held(client) && event_add(client->rdcb_timer, &REREAD_DELAY) != 0) {
        TPG_WARN(ctx, "FD %d: what else it has sent waits for its next message", client->acc_fd);
    }
}

void tpg_readcb_timeout_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    TPG_TRACE(client->ctx, TRACE_READCB, "%s(): entering", __func__);
    tpg_svr_conn_readcb(client->bev, client);
}

/* True when a whole message was read and dispatched. */
static bool read_message(tpg_context_t* ctx, tpg_ipc_clnt_t* client, bufferevent* bev)
{
    tpg_read_st* reader = &ctx->read_proc;
    const int processed = 0; /* a message ends the loop */
    for (;;) {
        int step = READ_DONE;
        if (reader->state != TPG_READ_PAYLOAD) {
            if (reader->state != TPG_READ_HEADER) {
                reader->state = TPG_READ_HEADER;
                reader->rd_idx = 0;
                reader->wr_idx = 0;
                TPG_TRACE(ctx, TRACE_READCB, "%s(): Invalid state, search for new header",
                          READCB_NAME);
            }
            step = read_header(ctx, bev, processed);
        }
        if (step == READ_DONE) {
            step = read_payload(ctx, client, bev, processed);
        }
        if (step == READ_NOTHING) {
            return false;
        }
        if (step == READ_DONE) {
            return true;
        }
    }
}

static int read_header(tpg_context_t* ctx, bufferevent* bev, int processed)
{
    tpg_read_st* reader = &ctx->read_proc;
    const int32_t missing = HEAD_LEN - reader->wr_idx;
    TPG_TRACE(ctx, TRACE_READCB, "%s(): to read %d bytes at maximum", READCB_NAME, missing);
    const auto count = static_cast<int32_t>(
        bufferevent_read(bev, reader->buf + reader->wr_idx, static_cast<size_t>(missing)));
    if (count < 1) {
        TPG_TRACE(ctx, TRACE_READCB, "%s(): bufferevent_read error, processed=%d, state=%d, wr=%d",
                  READCB_NAME, processed, reader->state, reader->wr_idx);
        return READ_NOTHING;
    }
    reader->wr_idx += count;
    TPG_TRACE(ctx, TRACE_READCB, "%s(): read %d bytes, wr_idx=%d", READCB_NAME, count,
              reader->wr_idx);
    if (reader->wr_idx < HEAD_LEN) {
        TPG_TRACE(ctx, TRACE_READCB, "not enough for header, go back");
        return READ_AGAIN;
    }
    TPG_TRACE(ctx, TRACE_READCB, "%s(): to check header state=%d", READCB_NAME, reader->state);
    if (!header_accepted(reader)) {
        TPG_ERROR(ctx, "%s(): Invalid header", READCB_NAME);
        reader->wr_idx = 0;
        reader->state = TPG_READ_HEADER;
        return READ_AGAIN;
    }
    reader->state = TPG_READ_PAYLOAD;
    return READ_DONE;
}

static com_msg_head_t header_of(const tpg_read_st* reader)
{
    com_msg_head_t head;
    memcpy(&head, reader->buf, sizeof(head));
    return head;
}

static bool header_accepted(tpg_read_st* reader)
{
    const com_msg_head_t head = header_of(reader);
    return head.ulPid != 0 && head.usMsgType >= TPG_MSG_LIBMIB_REGISTER &&
           head.usMsgType <= TPG_MSG_TRAP_NOTIFY && head.usMsgLen >= sizeof(head) &&
           head.usMsgLen <= TPG_MSG_MAX && tpg_check_parity(&head, TPG_PARITY_KEY) == 0;
}

/* The payload is taken whole or, what has come of it, lost: clients write a message in one piece.
 */
static int read_payload(tpg_context_t* ctx, tpg_ipc_clnt_t* client, bufferevent* bev, int processed)
{
    tpg_read_st* reader = &ctx->read_proc;
    const com_msg_head_t head = header_of(reader);
    note_first_message(ctx, client, &head);
    const int32_t wanted = head.usMsgLen - HEAD_LEN;
    const auto count = static_cast<int32_t>(
        bufferevent_read(bev, reader->buf + reader->wr_idx, static_cast<size_t>(wanted)));
    if (count < 1) {
        TPG_TRACE(ctx, TRACE_READCB,
                  "%s(): Cannot read payload data, exit  processed=%d, state=%d, wr=%d",
                  READCB_NAME, processed, reader->state, reader->wr_idx);
        return READ_NOTHING;
    }
    if (count < wanted) {
        TPG_TRACE(ctx, TRACE_READCB, "%s(): Not enough payload, break", READCB_NAME);
        return READ_AGAIN;
    }
    TPG_TRACE(ctx, TRACE_READCB, "%s(): Received a full packet( type=%d, len=%d, rd_idx=%d",
              READCB_NAME, head.usMsgType, head.usMsgLen, reader->rd_idx);
    dispatch(ctx, client);
    reader->state = TPG_READ_HEADER;
    reader->wr_idx = 0;
    reader->rd_idx = 0;
    return READ_DONE;
}

/* What the client says of itself, and what the kernel knows of it. */
static void note_first_message(tpg_context_t* ctx, tpg_ipc_clnt_t* client,
                               const com_msg_head_t* head)
{
    if (client->clnt_pid != 0) {
        return;
    }
    client->clnt_pid = head->ulPid;
    TPG_INFO(ctx, "First message from FD %d, PID %d", client->acc_fd, client->clnt_pid);
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(client->acc_fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        TPG_WARN(ctx, "FD %d: no peer credentials, %s", client->acc_fd, strerror(errno));
        return;
    }
    TPG_INFO(ctx, "FD %d is process %d of user %u, group %u", client->acc_fd, peer.pid, peer.uid,
             peer.gid);
}

/* ---- dispatch ---- */

static void dispatch(tpg_context_t* ctx, tpg_ipc_clnt_t* client)
{
    const com_msg_head_t head = header_of(&ctx->read_proc);
    switch (head.usMsgType) {
    case TPG_MSG_LIBMIB_REGISTER:
    case TPG_MSG_LIBMIB_UNREGISTER:
        dispatch_libmib_update(ctx, client, &head);
        break;
    case TPG_MSG_TRAP_NOTIFY:
        dispatch_trap_notify(ctx, client, &head);
        break;
    default:
        TPG_WARN(ctx, "getset: invalid msg_type %d", head.usMsgType);
        break;
    }
}

static void dispatch_libmib_update(tpg_context_t* ctx, tpg_ipc_clnt_t* client,
                                   const com_msg_head_t* head)
{
    tpg_msg_libmib_update_t message;
    if (head->usMsgLen < sizeof(message)) {
        TPG_ERROR(ctx, "refused a libmib update of %u bytes, expected %zu", head->usMsgLen,
                  sizeof(message));
        return;
    }
    memcpy(&message, ctx->read_proc.buf, sizeof(message));
    tpg_msg_libmib_update(ctx, &message, client);
    if (!is_held(client)) {
        levent_snmp_settle(ctx);
    }
}

/* Only what the client sent in this message is handed on. */
static void dispatch_trap_notify(tpg_context_t* ctx, tpg_ipc_clnt_t* client,
                                 const com_msg_head_t* head)
{
    tpg_msg_trap_notify_t message = {};
    memcpy(&message, ctx->read_proc.buf, head->usMsgLen);
    const tpg_trap_notify_t* notify = &message.trap_notify;
    if (head->usMsgLen < TPG_TRAP_HEAD_LEN ||
        TPG_TRAP_HEAD_LEN + notify->data_len > head->usMsgLen) {
        TPG_ERROR(ctx, "refused a trap notify of %u bytes with %u bytes of data", head->usMsgLen,
                  notify->data_len);
        return;
    }
    TPG_TRACE(ctx, TRACE_READCB, "%s(): TRAP before calling notify (slot=%d, varid=%d, index=%d)",
              READCB_NAME, notify->slot_no, notify->var_id, notify->index);
    tpg_msg_trap_notify(ctx, &message, client);
    TPG_TRACE(ctx, TRACE_READCB, "%s(): TRAP: slot=%d varid=%d, index=%d", READCB_NAME,
              notify->slot_no, notify->var_id, notify->index);
}

/* A client that never reads its acknowledgements cannot pile them up here. */
static int send_update_ack(tpg_context_t* ctx, tpg_ipc_clnt_t* client)
{
    tpg_msg_libmib_update_ack_t ack = {};
    ack.head.usMsgType = TPG_MSG_LIBMIB_REGISTER;
    ack.head.usMsgLen = sizeof(ack);
    ack.head.usFlags = 1;
    ack.head.ulPid = static_cast<uint32_t>(getpid());
    int ret = -1;
    if (evbuffer_get_length(bufferevent_get_output(client->bev)) > OUTPUT_MAX) {
        errno = ENOBUFS;
    } else {
        ret = bufferevent_write(client->bev, &ack, sizeof(ack));
    }
    if (ret < 0) {
        TPG_ERROR(ctx, "tpg_libmib_update: send update_ack failed, %s", strerror(errno));
    }
    return ret;
}

void tpg_msg_libmib_update(tpg_context_t* ctx, tpg_msg_libmib_update_t* message,
                           tpg_ipc_clnt_t* client)
{
    if (send_update_ack(ctx, client) < 0) {
        return;
    }
    if (must_hold(ctx)) {
        hold(client);
        client->held.message = true;
        client->held.update = *message;
        return;
    }
    carry_out_update(ctx, message, client);
}

static void carry_out_update(tpg_context_t* ctx, tpg_msg_libmib_update_t* message,
                             tpg_ipc_clnt_t* client)
{
    const uint32_t slot = message->libmib_update.slot_no;
    switch (message->head.usMsgType) {
    case TPG_MSG_LIBMIB_REGISTER:
        tpg_proc_libmib_register(ctx, &message->libmib_update);
        if (slot >= 1 && slot <= TPG_SLOT_MAX) {
            jsonmib_queue_card_came(ctx, slot);
        }
        if (client->libmib_reg_slot == 0) {
            client->libmib_reg_slot = slot;
        }
        break;
    case TPG_MSG_LIBMIB_UNREGISTER:
        tpg_proc_libmib_unregister(ctx, &message->libmib_update);
        if (slot >= 1 && slot <= TPG_SLOT_MAX) {
            jsonmib_queue_disconnect(ctx, slot);
        }
        break;
    default:
        TPG_WARN(ctx, "invalid msg type %d", message->head.usMsgType);
        break;
    }
}
