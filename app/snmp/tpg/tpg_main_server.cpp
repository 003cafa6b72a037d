/* The clients' socket: connections, framing, dispatch, and what has to wait for its turn. */

#include "tpg_main_server.h"

#include "tpg_jsonmib_queue.h"
#include "tpg_log.h"
#include "tpg_main_entity.h"
#include "tpg_main_levent.h"
#include "tpg_main_registry.h"
#include "tpg_main_socket.h"
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
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/* A message that clients send. */
struct message_t {
    tpg_msg_type type;
    const char* name;
    size_t least; /* bytes with the header; a shorter one is refused */
    void (*dispatch)(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
};

/* What one step of the reader came to. */
enum class step_t : uint8_t {
    again,   /* the next piece is to be read */
    done,    /* the header, or the whole message, is there */
    nothing, /* there is no more to read */
};

static void listener_error_cb(evconnlistener*, void*);
static void listener_retry_cb(int, short, void*);
static bool has_room(tpg_context_t*, int);
static tpg_ipc_clnt_t* new_client(tpg_context_t*, int, bufferevent*);
static void free_client(tpg_ipc_clnt_t*);
static bool serve_message(tpg_ipc_clnt_t*);
static bool read_message(tpg_context_t*, tpg_ipc_clnt_t*);
static step_t read_header(tpg_context_t*, bufferevent*);
static bool header_accepted(const com_msg_head_t*);
static step_t read_payload(tpg_context_t*, tpg_ipc_clnt_t*);
static void note_first_message(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static const message_t* message_of(uint16_t);
static void dispatch(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static void dispatch_libmib_update(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static void dispatch_trap_notify(tpg_context_t*, tpg_ipc_clnt_t*, const com_msg_head_t*);
static int send_update_ack(tpg_context_t*, tpg_ipc_clnt_t*);
static void flush_output(const tpg_ipc_clnt_t*);
static void carry_out_update(tpg_context_t*, tpg_msg_libmib_update_t*, tpg_ipc_clnt_t*);
static void withdraw_slot(tpg_context_t*, uint32_t);
static void begin_end(tpg_ipc_clnt_t*, short, int);
static void take_rest(bufferevent*);
static void serve_rest(tpg_ipc_clnt_t*);
static void end_connection(tpg_ipc_clnt_t*);
static bool has_ended(tpg_ipc_clnt_t*);
static bool is_leaving(const tpg_ipc_clnt_t*, uint32_t);
static bool must_hold(const tpg_context_t*);
static bool must_wait(const tpg_ipc_clnt_t*, uint32_t);
static void hold(tpg_ipc_clnt_t*);
static void serve_held(tpg_ipc_clnt_t*);
static void watch_again(tpg_ipc_clnt_t*);

constexpr int32_t HEAD_LEN = sizeof(com_msg_head_t);
constexpr timeval REREAD_DELAY = {0, 5000};
constexpr timeval LISTEN_RETRY_DELAY = {1, 0};
constexpr mode_t SOCKET_MODE = 0777; /* processes of any user may connect */
constexpr char TRACE_READCB[] = "readcb";
constexpr char READCB_NAME[] = "tpg_svr_conn_readcb";
/* The reader's traces tell how many messages it has read in this call. A message ends the call, so
 * that it is always this many when there is something to tell. */
constexpr int PROCESSED = 0;

/* A new message has its type and layout in tpg_msg_i.h, and here its row and its function. */
constexpr message_t MESSAGES[] = {
    {TPG_MSG_LIBMIB_REGISTER, "libmib update", sizeof(tpg_msg_libmib_update_t),
     dispatch_libmib_update},
    {TPG_MSG_LIBMIB_UNREGISTER, "libmib update", sizeof(tpg_msg_libmib_update_t),
     dispatch_libmib_update},
    /* How long it has to be depends on its data. */
    {TPG_MSG_TRAP_NOTIFY, "trap notify", sizeof(com_msg_head_t), dispatch_trap_notify},
};

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
    tpg_socket_note(ctx, tpg_socket::cards, TPG_SVR_PATH);
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
    tpg_socket_remove(tpg_socket::cards); /* closed, it would lose its number to another file */
    evconnlistener_free(ctx->svr_listener);
    event_free(ctx->svr_retry_timer);
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
        TPG_WARN(ctx, "refused connection FD %d: %u clients are connected, the limit is %u", fd,
                 ctx->ipc_clnt_total, TPG_CLIENTS_MAX);
        return false;
    }
    if (static_cast<rlim_t>(fd) + TPG_RESERVED_FDS >= fds) {
        TPG_WARN(ctx, "refused connection FD %d: descriptors are running out, clients have %llu",
                 fd,
                 static_cast<unsigned long long>(fds - std::min<rlim_t>(fds, TPG_RESERVED_FDS)));
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
    ctx->read_proc = {}; /* a payload that never came would keep all others waiting */
    list_add_tail(&client->node, &ctx->ipc_clnt_list);
    ctx->ipc_clnt_total++;
    bufferevent_setcb(bev, tpg_svr_conn_readcb, nullptr, tpg_svr_conn_eventcb, client);
    bufferevent_setwatermark(bev, EV_READ, 0, TPG_CLIENT_INPUT_MAX);
    if (bufferevent_enable(bev, EV_READ | EV_WRITE) != 0) {
        TPG_ERROR(ctx, "cannot watch connection FD %d", fd);
        free_client(client);
        return;
    }
    TPG_INFO(ctx, "Accepted Connection FD %d", fd);
}

static bool is_held(const tpg_ipc_clnt_t* client)
{
    return client->held.message || client->held.end;
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
    tpg_entity_update(ctx);
    levent_snmp_settle(ctx);
}

/* ---- the end of a connection ---- */

void tpg_svr_conn_eventcb(bufferevent* bev, short events, void* arg)
{
    (void)bev;
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    const int error = errno;
    const tpg_log_slot_t served = tpg_log_serve(client->ctx, client->libmib_reg_slot);
    /* Every end is an Error line: those who watch the log learn from it that a card has gone. */
    TPG_ERROR(client->ctx, "got event 0x%x", static_cast<unsigned>(events));
    if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0 || client->end_events != 0) {
        return;
    }
    begin_end(client, events, error);
    serve_rest(client);
}

/* Takes in what the client has sent by now; nothing more is read from it. */
static void begin_end(tpg_ipc_clnt_t* client, short events, int error)
{
    client->end_events = events;
    client->end_error = error;
    bufferevent_disable(client->bev, EV_READ);
    take_rest(client->bev);
}

/* A connection whose acknowledgement cannot be written ends with messages still in its socket: they
 * are read here. */
static void take_rest(bufferevent* bev)
{
    evbuffer* input = bufferevent_get_input(bev);
    const int fd = bufferevent_getfd(bev);
    int unread = 0;
    if (ioctl(fd, FIONREAD, &unread) != 0) {
        return;
    }
    evbuffer_unfreeze(input, 0);
    for (int count = 1; unread > 0 && count > 0; unread -= count) {
        count = evbuffer_read(input, fd, unread);
    }
    evbuffer_freeze(input, 0);
}

/*
 * Serves the messages that came before the end, then withdraws the slot. Many
 * take several turns of the loop: traps that came without a pause would be too
 * fast for their receivers.
 */
static void serve_rest(tpg_ipc_clnt_t* client)
{
    const int64_t turn_ends = jsonmib_now() + TPG_CLIENT_REST_US;
    while (!is_held(client) && serve_message(client)) {
        if (jsonmib_now() >= turn_ends && event_add(client->rdcb_timer, &REREAD_DELAY) == 0) {
            return;
        }
    }
    if (is_held(client)) {
        return;
    }
    if (must_hold(client->ctx)) {
        hold(client);
        client->held.end = true;
        return;
    }
    end_connection(client);
}

static void end_connection(tpg_ipc_clnt_t* client)
{
    tpg_context_t* ctx = client->ctx;
    if ((client->end_events & BEV_EVENT_EOF) != 0) {
        TPG_INFO(ctx, "Connection FD %d to client PID %d closed", client->acc_fd, client->clnt_pid);
    } else {
        TPG_ERROR(ctx, "Got an error on the connection: %s", strerror(client->end_error));
    }
    withdraw_slot(ctx, client->libmib_reg_slot);
    free_client(client);
}

/* True when the peer has closed the connection, even if what it sent before is still to be read. */
static bool has_ended(tpg_ipc_clnt_t* client)
{
    if (client->end_events != 0) {
        return true;
    }
    pollfd peer = {client->acc_fd, POLLRDHUP, 0};
    if (poll(&peer, 1, 0) != 1 || event_add(client->rdcb_timer, &REREAD_DELAY) != 0) {
        return false;
    }
    begin_end(client, BEV_EVENT_READING | BEV_EVENT_EOF, 0);
    return true;
}

/* True while another connection of the slot has ended, but the slot has not been withdrawn yet. */
static bool is_leaving(const tpg_ipc_clnt_t* client, uint32_t slot)
{
    const list_head* all = &client->ctx->ipc_clnt_list;
    for (list_head* node = all->next; node != all; node = node->next) {
        tpg_ipc_clnt_t* other = list_entry(node, tpg_ipc_clnt_t, node);
        if (other != client && other->libmib_reg_slot == slot && has_ended(other)) {
            return true;
        }
    }
    return false;
}

/* ---- held back ---- */

/* True while a SET waits for its card: until it is done no table may come or go. */
static bool must_hold(const tpg_context_t* ctx)
{
    return ctx->jsonmib_later.waiting > 0;
}

/*
 * A card that comes back waits until the end of its last connection has been
 * carried out, for that withdraws the slot whoever is in it. A client that has
 * ended itself need not wait for another.
 */
static bool must_wait(const tpg_ipc_clnt_t* client, uint32_t slot)
{
    return must_hold(client->ctx) ||
           (client->end_events == 0 && slot != 0 && is_leaving(client, slot));
}

/* Nothing more is read from the client until what is held back has been carried out. */
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
    uint32_t before = UINT32_MAX;
    ctx->jsonmib_later.loop_busy = true;
    while (ctx->ipc_clnt_held > 0 && ctx->ipc_clnt_held < before) { /* one may wait for another */
        before = ctx->ipc_clnt_held;
        list_head* next = nullptr;
        for (list_head* node = ctx->ipc_clnt_list.next; node != &ctx->ipc_clnt_list; node = next) {
            next = node->next;
            tpg_ipc_clnt_t* client = list_entry(node, tpg_ipc_clnt_t, node);
            if (is_held(client)) {
                serve_held(client);
            }
        }
    }
    ctx->jsonmib_later.loop_busy = false;
}

static void serve_held(tpg_ipc_clnt_t* client)
{
    tpg_context_t* ctx = client->ctx;
    tpg_msg_libmib_update_t update = client->held.update;
    const bool message = client->held.message;
    if (message && must_wait(client, update.libmib_update.slot_no)) {
        return;
    }
    const tpg_log_slot_t served = tpg_log_serve(ctx, client->libmib_reg_slot);
    client->held = {};
    ctx->ipc_clnt_held--;
    if (message) {
        carry_out_update(ctx, &update, client);
        levent_snmp_settle(ctx);
    }
    if (client->end_events != 0) {
        serve_rest(client);
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
    (void)bev;
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    const tpg_log_slot_t served = tpg_log_serve(client->ctx, client->libmib_reg_slot);
    if (!is_held(client) && serve_message(client) && !is_held(client) &&
        event_add(client->rdcb_timer, &REREAD_DELAY) != 0) {
        TPG_WARN(client->ctx, "FD %d: what else it has sent waits for its next message",
                 client->acc_fd);
    }
}

void tpg_readcb_timeout_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* client = static_cast<tpg_ipc_clnt_t*>(arg);
    TPG_TRACE(client->ctx, TRACE_READCB, "%s(): entering", __func__);
    if (client->end_events != 0) {
        serve_rest(client);
    } else {
        tpg_svr_conn_readcb(client->bev, client);
    }
}

/* Reads and dispatches one message; false when there is no whole one. */
static bool serve_message(tpg_ipc_clnt_t* client)
{
    tpg_context_t* ctx = client->ctx;
    TPG_TRACE(ctx, TRACE_READCB, "%s(): enter, state=%d", READCB_NAME, ctx->read_proc.state);
    return read_message(ctx, client);
}

/* True when a whole message was read and dispatched. */
static bool read_message(tpg_context_t* ctx, tpg_ipc_clnt_t* client)
{
    tpg_read_st* reader = &ctx->read_proc;
    step_t step = step_t::again;
    while (step == step_t::again) {
        if (reader->state != TPG_READ_HEADER && reader->state != TPG_READ_PAYLOAD) {
            /* Nothing sets another state; if memory is damaged, framing begins anew. */
            reader->state = TPG_READ_HEADER;
            reader->rd_idx = 0;
            reader->wr_idx = 0;
            TPG_TRACE(ctx, TRACE_READCB, "%s(): Invalid state, search for new header", READCB_NAME);
        }
        step = reader->state == TPG_READ_HEADER ? read_header(ctx, client->bev) : step_t::done;
        if (step == step_t::done) {
            step = read_payload(ctx, client);
        }
    }
    return step == step_t::done;
}

static com_msg_head_t header_of(const tpg_read_st* reader)
{
    com_msg_head_t head;
    memcpy(&head, reader->buf, sizeof(head));
    return head;
}

static step_t read_header(tpg_context_t* ctx, bufferevent* bev)
{
    tpg_read_st* reader = &ctx->read_proc;
    const int32_t missing = HEAD_LEN - reader->wr_idx;
    TPG_TRACE(ctx, TRACE_READCB, "%s(): to read %d bytes at maximum", READCB_NAME, missing);
    const auto count = static_cast<int32_t>(
        bufferevent_read(bev, reader->buf + reader->wr_idx, static_cast<size_t>(missing)));
    if (count < 1) {
        TPG_TRACE(ctx, TRACE_READCB, "%s(): bufferevent_read error, processed=%d, state=%d, wr=%d",
                  READCB_NAME, PROCESSED, reader->state, reader->wr_idx);
        return step_t::nothing;
    }
    reader->wr_idx += count;
    TPG_TRACE(ctx, TRACE_READCB, "%s(): read %d bytes, wr_idx=%d", READCB_NAME, count,
              reader->wr_idx);
    if (reader->wr_idx < HEAD_LEN) {
        TPG_TRACE(ctx, TRACE_READCB, "not enough for header, go back");
        return step_t::again;
    }
    TPG_TRACE(ctx, TRACE_READCB, "%s(): to check header state=%d", READCB_NAME, reader->state);
    const com_msg_head_t head = header_of(reader);
    if (!header_accepted(&head)) {
        TPG_ERROR(ctx, "%s(): Invalid header", READCB_NAME);
        reader->wr_idx = 0;
        reader->state = TPG_READ_HEADER;
        return step_t::again;
    }
    reader->state = TPG_READ_PAYLOAD;
    return step_t::done;
}

static bool header_accepted(const com_msg_head_t* head)
{
    return head->ulPid != 0 && message_of(head->usMsgType) != nullptr &&
           head->usMsgLen >= sizeof(*head) && head->usMsgLen <= TPG_MSG_MAX &&
           tpg_check_parity(head, TPG_PARITY_KEY) == 0;
}

/*
 * Reads the payload whole or not at all. Bytes of an incomplete one are thrown away, and what comes
 * next is read as its beginning: cards write each message in one piece.
 */
static step_t read_payload(tpg_context_t* ctx, tpg_ipc_clnt_t* client)
{
    tpg_read_st* reader = &ctx->read_proc;
    const com_msg_head_t head = header_of(reader);
    note_first_message(ctx, client, &head);
    const int32_t wanted = head.usMsgLen - HEAD_LEN;
    const auto count = static_cast<int32_t>(
        bufferevent_read(client->bev, reader->buf + reader->wr_idx, static_cast<size_t>(wanted)));
    if (count < 1) {
        TPG_TRACE(ctx, TRACE_READCB,
                  "%s(): Cannot read payload data, exit  processed=%d, state=%d, wr=%d",
                  READCB_NAME, PROCESSED, reader->state, reader->wr_idx);
        return step_t::nothing;
    }
    if (count < wanted) {
        TPG_TRACE(ctx, TRACE_READCB, "%s(): Not enough payload, break", READCB_NAME);
        return step_t::again;
    }
    TPG_TRACE(ctx, TRACE_READCB, "%s(): Received a full packet( type=%d, len=%d, rd_idx=%d",
              READCB_NAME, head.usMsgType, head.usMsgLen, reader->rd_idx);
    dispatch(ctx, client, &head);
    reader->state = TPG_READ_HEADER;
    reader->wr_idx = 0;
    reader->rd_idx = 0;
    return step_t::done;
}

/* Logs the process id in the client's first message, and what the kernel knows of the process. */
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

/* The message of this type, or null. */
static const message_t* message_of(uint16_t type)
{
    const message_t* found = std::ranges::find(MESSAGES, type, &message_t::type);
    return found != std::end(MESSAGES) ? found : nullptr;
}

static void dispatch(tpg_context_t* ctx, tpg_ipc_clnt_t* client, const com_msg_head_t* head)
{
    const message_t* message = message_of(head->usMsgType);
    if (message == nullptr) { /* a safety net: the header has been checked */
        TPG_WARN(ctx, "getset: invalid msg_type %d", head->usMsgType);
    } else if (head->usMsgLen < message->least) {
        TPG_ERROR(ctx, "refused a %s of %u bytes, expected %zu", message->name, head->usMsgLen,
                  message->least);
    } else {
        message->dispatch(ctx, client, head);
    }
}

static void dispatch_libmib_update(tpg_context_t* ctx, tpg_ipc_clnt_t* client,
                                   const com_msg_head_t* head)
{
    (void)head;
    tpg_msg_libmib_update_t message;
    memcpy(&message, ctx->read_proc.buf, sizeof(message));
    tpg_msg_libmib_update(ctx, &message, client);
    if (!is_held(client)) {
        levent_snmp_settle(ctx);
    }
}

/* Of the shared buffer only this message's own bytes are handed on. */
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

/*
 * Sends the acknowledgement now: the event loop would send it after the update
 * has been carried out, which may take seconds. What the socket has no room
 * for, and a failure to send, is left to the loop.
 */
static void flush_output(const tpg_ipc_clnt_t* client)
{
    evbuffer* output = bufferevent_get_output(client->bev);
    evbuffer_unfreeze(output, 1);
    evbuffer_write(output, bufferevent_getfd(client->bev));
    evbuffer_freeze(output, 1);
}

/*
 * The acknowledgement says that the message has come, and nothing of what
 * becomes of it: it is the same for both types, and has no parity, which cards
 * do not check. A client that never reads them cannot pile them up here.
 */
static int send_update_ack(tpg_context_t* ctx, tpg_ipc_clnt_t* client)
{
    tpg_msg_libmib_update_ack_t ack = {};
    ack.head.usMsgType = TPG_MSG_LIBMIB_REGISTER;
    ack.head.usMsgLen = sizeof(ack);
    ack.head.usFlags = 1;
    ack.head.ulPid = static_cast<uint32_t>(getpid());
    const size_t waiting = evbuffer_get_length(bufferevent_get_output(client->bev));
    if (waiting > TPG_CLIENT_OUTPUT_MAX) {
        TPG_ERROR(ctx, "tpg_libmib_update: send update_ack failed, %s: %zu bytes wait, above %zu",
                  strerror(ENOBUFS), waiting, TPG_CLIENT_OUTPUT_MAX);
        return -1;
    }
    const int ret = bufferevent_write(client->bev, &ack, sizeof(ack));
    if (ret < 0) {
        TPG_ERROR(ctx, "tpg_libmib_update: send update_ack failed, %s", strerror(errno));
        return ret;
    }
    flush_output(client);
    return ret;
}

void tpg_msg_libmib_update(tpg_context_t* ctx, tpg_msg_libmib_update_t* message,
                           tpg_ipc_clnt_t* client)
{
    if (send_update_ack(ctx, client) < 0) {
        return;
    }
    if (must_wait(client, message->libmib_update.slot_no)) {
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
        break; /* the end of the connection withdraws its first slot once more */
    default:   /* a safety net: no other type is dispatched to here */
        TPG_WARN(ctx, "invalid msg type %d", message->head.usMsgType);
        break;
    }
    tpg_entity_update(ctx);
}
