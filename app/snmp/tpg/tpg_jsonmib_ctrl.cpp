#include "tpg_jsonmib_ctrl.h"

#include "tpg_file.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static jsonmib_ipc_info_t* ipc_info(tpg_context_t*, uint32_t);
static void ipc_daemon_address(uint32_t, sockaddr_un*);
static void ipc_open_socket(tpg_context_t*, jsonmib_ipc_info_t*);
static int ipc_ready(tpg_context_t*, uint32_t);
static int ipc_wait_readable(tpg_context_t*, uint32_t);
static ssize_t ipc_recv_first(tpg_context_t*, uint32_t, void*, uint32_t);
static void ctrl_fill_head(com_msg_head_t*, uint16_t, size_t);
static int ctrl_recv_reply(tpg_context_t*, uint32_t, const jsonmib_ipc_exchange_t*, void*);
static int ctrl_recv_past_owed(tpg_context_t*, uint32_t, const jsonmib_ipc_exchange_t*, uint8_t*);
static int ctrl_recv_rest(tpg_context_t*, uint32_t, uint8_t*, uint32_t);
static int ctrl_skip_rest(tpg_context_t*, uint32_t, uint32_t);
static uint32_t ctrl_find_owed(const jsonmib_ipc_info_t*, const jsonmib_ipc_exchange_t*,
                               const uint8_t*);
static void ctrl_owe(tpg_context_t*, uint32_t, const jsonmib_ipc_exchange_t*);
static int ctrl_drop_owed(tpg_context_t*, uint32_t, uint32_t, uint32_t);
static void ctrl_drain_owed(tpg_context_t*, uint32_t);

constexpr timeval IPC_TIMEOUT = {5, 0};
constexpr ssize_t IPC_NOTHING_CAME = -2; /* no result of recv; logged */

/* What every reply holds in front of its data; enough to tell whose answer it is. */
struct ctrl_reply_head_t {
    com_msg_head_t head;
    uint32_t ulVarId;
    uint32_t ulIndex;
};
static_assert(offsetof(ctrl_reply_head_t, ulVarId) ==
              offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ulVarId));
static_assert(offsetof(ctrl_reply_head_t, ulIndex) ==
              offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ulIndex));

static jsonmib_ipc_info_t* ipc_info(tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_ipc_info[slot_no - 1];
}

static void ipc_daemon_address(uint32_t slot_no, sockaddr_un* addr)
{
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (slot_no == 1) {
        snprintf(addr->sun_path, sizeof(addr->sun_path), "%s", UEVGEND_SVR_PATH_SLOT1);
    } else {
        snprintf(addr->sun_path, sizeof(addr->sun_path), UEVGEND_SVR_PATH_FMT,
                 static_cast<int>(slot_no));
    }
}

/*
 * The send time-out bounds connecting to a daemon that accepts nobody, and
 * sending to one that has stopped reading.
 */
static void ipc_open_socket(tpg_context_t* ctx, jsonmib_ipc_info_t* info)
{
    const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    assert((s > 0));
    info->fd = s;
    if (setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &IPC_TIMEOUT, sizeof(IPC_TIMEOUT)) != 0) {
        TPG_ERROR(ctx, "SO_RCVTIMEO failed, %s", strerror(errno));
    }
    if (setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &IPC_TIMEOUT, sizeof(IPC_TIMEOUT)) != 0) {
        TPG_ERROR(ctx, "SO_SNDTIMEO failed, %s", strerror(errno));
    }
}

int jsonmib_ipc_connect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    sockaddr_un addr;
    ipc_daemon_address(slot_no, &addr);

    struct stat st;
    if (stat(addr.sun_path, &st) != 0) {
        TPG_ERROR(ctx, "slot_no %d ipc is down", slot_no);
        return -1;
    }
    if (info->fd <= 0) {
        ipc_open_socket(ctx, info);
    }
    /* A socket that could not be connected is kept: the next attempt connects it again. */
    if (connect(info->fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        TPG_ERROR(ctx, "connect slot_no %d failed, %s", slot_no, strerror(errno));
        return -1;
    }
    info->connected = 1;
    info->owed_total = 0;
    TPG_INFO(ctx, "Connected to slot_no %d", slot_no);
    return 0;
}

void jsonmib_ipc_disconnect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    if (info->fd <= 0) {
        return;
    }
    close(info->fd);
    info->fd = 0;
    info->connected = 0;
    info->owed_total = 0;
}

static int ipc_ready(tpg_context_t* ctx, uint32_t slot_no)
{
    if (ipc_info(ctx, slot_no)->connected == 0 && jsonmib_ipc_connect(ctx, slot_no) != 0) {
        TPG_ERROR(ctx, "connction to slot_no %d is not available", slot_no);
        return -1;
    }
    return 0;
}

int jsonmib_ipc_send(tpg_context_t* ctx, uint32_t slot_no, const void* buf, uint32_t length)
{
    if (ipc_ready(ctx, slot_no) != 0) {
        return -1;
    }
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    const char* bytes = static_cast<const char*>(buf);
    uint32_t sent = 0;
    while (sent < length) {
        const ssize_t n = send(info->fd, bytes + sent, length - sent, MSG_NOSIGNAL);
        if (n < 0) {
            TPG_ERROR(ctx, "send to slot_no %d failed. request %d bytes but sent %d bytes. %s",
                      slot_no, length, sent, strerror(errno));
            jsonmib_ipc_disconnect(ctx, slot_no);
            return -1;
        }
        sent += static_cast<uint32_t>(n);
    }
    return 0;
}

/* 0 when there is something to read; otherwise logged, and -1. */
static int ipc_wait_readable(tpg_context_t* ctx, uint32_t slot_no)
{
    const int fd = ipc_info(ctx, slot_no)->fd;
    timeval timeout = IPC_TIMEOUT;
    int ready = -1;
    if (fd >= FD_SETSIZE) {
        errno = EMFILE; /* no descriptor set can hold it */
    } else {
        do {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(fd, &set);
            ready = select(fd + 1, &set, nullptr, nullptr, &timeout);
        } while (ready < 0 && errno == EINTR);
    }
    if (ready < 0) {
        TPG_ERROR(ctx, "ipc select failed, %s", strerror(errno));
        jsonmib_ipc_disconnect(ctx, slot_no);
        return -1;
    }
    if (ready == 0) {
        TPG_ERROR(ctx, "ipc timeout on slot_no %d", slot_no);
        return -1;
    }
    return 0;
}

/*
 * Like recv, after waiting if need be; a daemon that runs on the agent's
 * processor has mostly answered by now, and nothing has to be waited for.
 */
static ssize_t ipc_recv_first(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length)
{
    const int fd = ipc_info(ctx, slot_no)->fd;
    const ssize_t n = recv(fd, buf, length, MSG_DONTWAIT);
    if (n >= 0 || errno != EAGAIN) {
        return n;
    }
    return ipc_wait_readable(ctx, slot_no) == 0 ? recv(fd, buf, length, 0) : IPC_NOTHING_CAME;
}

int jsonmib_ipc_recv(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length)
{
    if (ipc_ready(ctx, slot_no) != 0) {
        return -1;
    }
    if (length == 0) {
        return ipc_wait_readable(ctx, slot_no);
    }
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    char* bytes = static_cast<char*>(buf);
    uint32_t received = 0;
    while (received < length) {
        const ssize_t n = received == 0 ? ipc_recv_first(ctx, slot_no, bytes, length)
                                        : recv(info->fd, bytes + received, length - received, 0);
        if (n == IPC_NOTHING_CAME) {
            return -1;
        }
        if (n <= 0) {
            errno = n == 0 ? ECONNRESET : errno; /* the daemon has closed its end */
            TPG_ERROR(ctx,
                      "recv from slot_no %d failed. request %d bytes but received %d bytes. %s",
                      slot_no, length, received, strerror(errno));
            jsonmib_ipc_disconnect(ctx, slot_no);
            return -1;
        }
        received += static_cast<uint32_t>(n);
    }
    return 0;
}

static void ctrl_fill_head(com_msg_head_t* head, uint16_t type, size_t length)
{
    static const auto AGENT_PID = static_cast<uint32_t>(getpid()); /* a system call each time */
    *head = {};
    head->usMsgType = type;
    head->usMsgLen = static_cast<uint16_t>(length);
    head->ulPid = AGENT_PID;
}

/*
 * How many owed replies end with the one that begins with bytes; 0 when it is
 * none of them. A daemon that echoes nothing is taken at its word, and so is
 * an answer to a request like exchange (null: there is none yet), whose value
 * is the variable's own.
 */
static uint32_t ctrl_find_owed(const jsonmib_ipc_info_t* info,
                               const jsonmib_ipc_exchange_t* exchange, const uint8_t* bytes)
{
    ctrl_reply_head_t head;
    memcpy(&head, bytes, sizeof(head));
    for (uint32_t i = 0; i < info->owed_total; i++) {
        const jsonmib_ipc_exchange_t* owed = &info->owed[i];
        const bool same = exchange != nullptr && owed->type == exchange->type &&
                          owed->var_id == exchange->var_id && owed->index == exchange->index &&
                          owed->length == exchange->length;
        if (!same && head.ulVarId == owed->var_id && head.ulIndex == owed->index) {
            return i + 1;
        }
    }
    return 0;
}

/* A time-out keeps the connection, and with it the reply that is still to come. */
static void ctrl_owe(tpg_context_t* ctx, uint32_t slot_no, const jsonmib_ipc_exchange_t* exchange)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    if (info->connected == 0) {
        return;
    }
    if (info->owed_total == JSONMIB_IPC_OWED_MAX) {
        TPG_ERROR(ctx, "slot_no %u owes %u replies, disconnecting", slot_no, info->owed_total);
        jsonmib_ipc_disconnect(ctx, slot_no);
        return;
    }
    info->owed[info->owed_total++] = *exchange;
}

/* Receives what follows a reply's head; without it the connection would be out of step. */
static int ctrl_recv_rest(tpg_context_t* ctx, uint32_t slot_no, uint8_t* bytes, uint32_t length)
{
    if (length > 0 && jsonmib_ipc_recv(ctx, slot_no, bytes, length) != 0) {
        jsonmib_ipc_disconnect(ctx, slot_no);
        return -1;
    }
    return 0;
}

static int ctrl_skip_rest(tpg_context_t* ctx, uint32_t slot_no, uint32_t length)
{
    uint8_t waste[UEVGEND_DATA_FIXED];
    while (length > 0) {
        const uint32_t n = std::min<uint32_t>(length, sizeof(waste));
        if (ctrl_recv_rest(ctx, slot_no, waste, n) != 0) {
            return -1;
        }
        length -= n;
    }
    return 0;
}

/* Throws away the owed reply at place late, taken of whose bytes have been read, and those that
 * never came before it. */
static int ctrl_drop_owed(tpg_context_t* ctx, uint32_t slot_no, uint32_t late, uint32_t taken)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    if (ctrl_skip_rest(ctx, slot_no, info->owed[late - 1].length - taken) != 0) {
        return -1;
    }
    info->owed_total -= late;
    memmove(info->owed, info->owed + late, info->owed_total * sizeof(info->owed[0]));
    return 0;
}

/* What has come before a request is sent cannot be its answer. */
static void ctrl_drain_owed(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    uint8_t head[UEVGEND_DATA_OFS];
    while (info->owed_total > 0 &&
           recv(info->fd, head, sizeof(head), MSG_PEEK | MSG_DONTWAIT) == sizeof(head)) {
        const uint32_t late = std::max(ctrl_find_owed(info, nullptr, head), 1U);
        if (ctrl_drop_owed(ctx, slot_no, late, 0) != 0) {
            return;
        }
    }
}

/* Throws away owed replies until the exchange's own comes, for not much longer than one may take.
 */
static int ctrl_recv_past_owed(tpg_context_t* ctx, uint32_t slot_no,
                               const jsonmib_ipc_exchange_t* exchange, uint8_t* reply)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    timespec start;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        if (jsonmib_ipc_recv(ctx, slot_no, reply, UEVGEND_DATA_OFS) != 0) {
            ctrl_owe(ctx, slot_no, exchange);
            return -1;
        }
        const uint32_t late = ctrl_find_owed(info, exchange, reply);
        if (late == 0) {
            return ctrl_recv_rest(ctx, slot_no, reply + UEVGEND_DATA_OFS,
                                  exchange->length - static_cast<uint32_t>(UEVGEND_DATA_OFS));
        }
        if (ctrl_drop_owed(ctx, slot_no, late, UEVGEND_DATA_OFS) != 0) {
            return -1;
        }
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while (now.tv_sec - start.tv_sec < IPC_TIMEOUT.tv_sec);
    TPG_ERROR(ctx, "ipc timeout on slot_no %d", slot_no);
    ctrl_owe(ctx, slot_no, exchange);
    return -1;
}

/*
 * Receives the exchange's reply. Only after a time-out on this connection is
 * the echo looked at, so that an answer that comes late is not served as
 * another variable's value.
 */
static int ctrl_recv_reply(tpg_context_t* ctx, uint32_t slot_no,
                           const jsonmib_ipc_exchange_t* exchange, void* reply)
{
    if (ipc_info(ctx, slot_no)->owed_total > 0) {
        return ctrl_recv_past_owed(ctx, slot_no, exchange, static_cast<uint8_t*>(reply));
    }
    if (jsonmib_ipc_recv(ctx, slot_no, reply, exchange->length) != 0) {
        ctrl_owe(ctx, slot_no, exchange);
        return -1;
    }
    return 0;
}

int jsonmib_ctrl_get(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     void* data, uint32_t length)
{
    alignas(uevgend_get_reply_msg_t) uint8_t fixed[sizeof(uevgend_get_reply_msg_t)] = {};
    tpg_heap_bytes large;
    uint8_t* reply = fixed;
    uint32_t reply_len = sizeof(fixed);
    if (length > UEVGEND_DATA_FIXED) {
        reply_len = length + static_cast<uint32_t>(UEVGEND_DATA_OFS);
        large.reset(static_cast<uint8_t*>(calloc(1, reply_len)));
        if (large == nullptr) {
            TPG_ERROR(ctx, "jsonmib_ctrl_get calloc failed, %s", strerror(errno));
            return JSONMIB_CTRL_NOMEM;
        }
        reply = large.get();
    }

    uevgend_get_msg_t request = {};
    ctrl_fill_head(&request.head, UEVGEND_MSG_GET, sizeof(request));
    request.ctrl_get.ulVarId = var_id;
    request.ctrl_get.ulIndex = index;
    request.ctrl_get.usLength = static_cast<uint16_t>(length);
    TPG_DEBUG(ctx, "%s(): to ipc_send - varid=%d:%d:%d", __func__, var_id, index, length);
    memset(data, 0, length);
    ctrl_drain_owed(ctx, slot_no);
    if (jsonmib_ipc_send(ctx, slot_no, &request, sizeof(request)) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    TPG_DEBUG(ctx, "%s(): to ipc_recv -", __func__);
    const jsonmib_ipc_exchange_t exchange = {UEVGEND_MSG_GET, var_id, index, reply_len};
    const int ret = ctrl_recv_reply(ctx, slot_no, &exchange, reply);
    if (ret != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    int8_t code = 0;
    memcpy(&code, reply + offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.scErrCode),
           sizeof(code));
    TPG_DEBUG(ctx, "%s(): called ipc_recv  ret=%d, erroCode=%d", __func__, ret, code);
    if (code == 0) {
        memcpy(data, reply + UEVGEND_DATA_OFS, length);
    }
    return code;
}

int jsonmib_ctrl_set(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length)
{
    alignas(uevgend_set_msg_t) uint8_t fixed[sizeof(uevgend_set_msg_t)] = {};
    tpg_heap_bytes large;
    uint8_t* request = fixed;
    uint32_t request_len = sizeof(fixed);
    if (length > UEVGEND_DATA_FIXED) {
        request_len = length + static_cast<uint32_t>(UEVGEND_DATA_OFS);
        large.reset(static_cast<uint8_t*>(calloc(1, request_len)));
        if (large == nullptr) {
            TPG_ERROR(ctx, "jsonmib_ctrl_set calloc failed, %s", strerror(errno));
            return JSONMIB_CTRL_NOMEM;
        }
        request = large.get();
    }

    uevgend_set_msg_t head = {};
    ctrl_fill_head(&head.head, UEVGEND_MSG_SET, request_len);
    head.ctrl_set.ulVarId = var_id;
    head.ctrl_set.ulIndex = index;
    head.ctrl_set.usLength = static_cast<uint16_t>(length);
    memcpy(request, &head, UEVGEND_DATA_OFS);
    memcpy(request + UEVGEND_DATA_OFS, data, length);
    ctrl_drain_owed(ctx, slot_no);
    if (jsonmib_ipc_send(ctx, slot_no, request, request_len) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    uevgend_set_reply_msg_t reply = {};
    const jsonmib_ipc_exchange_t exchange = {UEVGEND_MSG_SET, var_id, index, sizeof(reply)};
    if (ctrl_recv_reply(ctx, slot_no, &exchange, &reply) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    return reply.ctrl_set_reply.scErrCode;
}
