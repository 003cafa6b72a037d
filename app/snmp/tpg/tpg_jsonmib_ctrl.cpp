/* Bytes and messages between the agent and a slot's daemon. */
#include "tpg_jsonmib_ctrl.h"

#include "tpg_file.h"
#include "tpg_log.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static jsonmib_ipc_info_t* ipc_info(tpg_context_t*, uint32_t);
static void ipc_open_socket(tpg_context_t*, jsonmib_ipc_info_t*);
static int ipc_connect_at_once(int, const sockaddr_un*);
static void ipc_connect_failed(tpg_context_t*, uint32_t);
static int ipc_ready(tpg_context_t*, uint32_t);
static int ipc_wait_readable(tpg_context_t*, uint32_t);
static void ipc_recv_failed(tpg_context_t*, uint32_t slot_no, uint32_t length, uint32_t received);
static void ctrl_fill_head(com_msg_head_t*, uint16_t, size_t);
static int ctrl_send_get(tpg_context_t*, const jsonmib_exchange_t*);
static int ctrl_send_set(tpg_context_t*, const jsonmib_exchange_t*);

constexpr timeval IPC_TIMEOUT = {5, 0};

static jsonmib_ipc_info_t* ipc_info(tpg_context_t* ctx, uint32_t slot_no)
{
    return &ctx->jsonmib_ipc_info[slot_no - 1];
}

int64_t jsonmib_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

/* ---- connection ---- */

static void ipc_open_socket(tpg_context_t* ctx, jsonmib_ipc_info_t* info)
{
    const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    assert((s > 0));
    info->fd = s;
    if (setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &IPC_TIMEOUT, sizeof(IPC_TIMEOUT)) != 0) {
        TPG_ERROR(ctx, "SO_RCVTIMEO failed, %s", strerror(errno));
    }
}

/* A blocking socket would wait for a daemon that accepts nobody. */
static int ipc_connect_at_once(int fd, const sockaddr_un* addr)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return -1;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(addr), sizeof(*addr)) != 0) {
        return -1;
    }
    return fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

static void ipc_connect_failed(tpg_context_t* ctx, uint32_t slot_no)
{
    TPG_ERROR(ctx, "connect slot_no %d failed, %s", slot_no, strerror(errno));
}

int jsonmib_ipc_try_connect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    const sockaddr_un addr = uevgend_svr_address(slot_no);
    if (!tpg_file_exists(addr.sun_path)) {
        TPG_ERROR(ctx, "slot_no %d ipc is down", slot_no);
        return -1;
    }
    if (info->fd <= 0) {
        ipc_open_socket(ctx, info);
    }
    /* A socket that could not be connected is kept: the next attempt connects it again. */
    if (ipc_connect_at_once(info->fd, &addr) != 0) {
        if (errno == EAGAIN) {
            return JSONMIB_IPC_BUSY;
        }
        ipc_connect_failed(ctx, slot_no);
        return -1;
    }
    info->connected = 1;
    TPG_INFO(ctx, "Connected to slot_no %d", slot_no);
    return 0;
}

int jsonmib_ipc_connect(tpg_context_t* ctx, uint32_t slot_no)
{
    const int result = jsonmib_ipc_try_connect(ctx, slot_no);
    if (result == JSONMIB_IPC_BUSY) {
        errno = EAGAIN;
        ipc_connect_failed(ctx, slot_no);
        return -1;
    }
    return result;
}

void jsonmib_ipc_disconnect(tpg_context_t* ctx, uint32_t slot_no)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    if (info->fd <= 0) {
        return;
    }
    if (info->watch != nullptr) {
        event_free(info->watch);
        info->watch = nullptr;
    }
    close(info->fd);
    info->fd = 0;
    info->connected = 0;
}

void jsonmib_ipc_not_available(tpg_context_t* ctx, uint32_t slot_no)
{
    TPG_ERROR(ctx, "connction to slot_no %d is not available", slot_no);
}

static int ipc_ready(tpg_context_t* ctx, uint32_t slot_no)
{
    if (ipc_info(ctx, slot_no)->connected == 0 && jsonmib_ipc_connect(ctx, slot_no) != 0) {
        jsonmib_ipc_not_available(ctx, slot_no);
        return -1;
    }
    return 0;
}

/* ---- bytes ---- */

int jsonmib_ipc_send(tpg_context_t* ctx, uint32_t slot_no, const void* buf, uint32_t length)
{
    if (ipc_ready(ctx, slot_no) != 0) {
        return -1;
    }
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    const char* bytes = static_cast<const char*>(buf);
    uint32_t sent = 0;
    while (sent < length) {
        /* A daemon has at most a few requests to read: one that leaves no room has stopped reading.
         */
        const ssize_t n = send(info->fd, bytes + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
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

/* Gives the connection up; errno says why. */
static void ipc_recv_failed(tpg_context_t* ctx, uint32_t slot_no, uint32_t length,
                            uint32_t received)
{
    TPG_ERROR(ctx, "recv from slot_no %d failed. request %d bytes but received %d bytes. %s",
              slot_no, length, received, strerror(errno));
    jsonmib_ipc_disconnect(ctx, slot_no);
}

int jsonmib_ipc_recv(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length)
{
    if (ipc_ready(ctx, slot_no) != 0 || ipc_wait_readable(ctx, slot_no) != 0) {
        return -1;
    }
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    char* bytes = static_cast<char*>(buf);
    uint32_t received = 0;
    while (received < length) {
        const ssize_t n = recv(info->fd, bytes + received, length - received, 0);
        if (n <= 0) {
            errno = n == 0 ? ECONNRESET : errno; /* the daemon has closed its end */
            ipc_recv_failed(ctx, slot_no, length, received);
            return -1;
        }
        received += static_cast<uint32_t>(n);
    }
    return 0;
}

/* Spreads the bytes over the parts, which have room for all of them. */
static void fill_parts(const iovec* parts, const uint8_t* bytes, size_t length)
{
    for (; length > 0; parts++) {
        const size_t n = std::min(length, parts->iov_len);
        memcpy(parts->iov_base, bytes, n);
        bytes += n;
        length -= n;
    }
}

/* A plain recv with a copy takes the kernel half a microsecond less than a recvmsg into parts. */
ssize_t jsonmib_ipc_take(tpg_context_t* ctx, uint32_t slot_no, const iovec* parts, size_t total,
                         uint32_t length, uint32_t received)
{
    uint8_t bytes[UEVGEND_DATA_OFS + JSONMIB_CELL_MAX];
    size_t room = 0;
    for (size_t i = 0; i < total; i++) {
        room += parts[i].iov_len;
    }
    const ssize_t n =
        recv(ipc_info(ctx, slot_no)->fd, bytes, std::min(room, sizeof(bytes)), MSG_DONTWAIT);
    if (n > 0) {
        fill_parts(parts, bytes, static_cast<size_t>(n));
        return n;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return 0;
    }
    errno = n == 0 ? ECONNRESET : errno;
    ipc_recv_failed(ctx, slot_no, length, received);
    return -1;
}

void jsonmib_ipc_stuck(tpg_context_t* ctx, uint32_t slot_no, uint32_t length, uint32_t received)
{
    errno = EAGAIN;
    ipc_recv_failed(ctx, slot_no, length, received);
}

/* ---- messages ---- */

uint32_t jsonmib_ctrl_get_reply_len(uint32_t length)
{
    return static_cast<uint32_t>(std::max<size_t>(length, UEVGEND_DATA_FIXED) + UEVGEND_DATA_OFS);
}

static void ctrl_fill_head(com_msg_head_t* head, uint16_t type, size_t length)
{
    static const auto AGENT_PID = static_cast<uint32_t>(getpid()); /* a system call each time */
    *head = {};
    head->usMsgType = type;
    head->usMsgLen = static_cast<uint16_t>(length);
    head->ulPid = AGENT_PID;
}

int jsonmib_ctrl_send(tpg_context_t* ctx, const jsonmib_exchange_t* exchange)
{
    const int result = exchange->asked.type == UEVGEND_MSG_GET ? ctrl_send_get(ctx, exchange)
                                                               : ctrl_send_set(ctx, exchange);
    if (result == JSONMIB_CTRL_TRANSPORT) {
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
    }
    return result;
}

static int ctrl_send_get(tpg_context_t* ctx, const jsonmib_exchange_t* exchange)
{
    const jsonmib_asked_t* asked = &exchange->asked;
    uevgend_get_msg_t request = {};
    ctrl_fill_head(&request.head, UEVGEND_MSG_GET, sizeof(request));
    request.ctrl_get.ulVarId = asked->var_id;
    request.ctrl_get.ulIndex = asked->index;
    request.ctrl_get.usLength = static_cast<uint16_t>(exchange->length);
    TPG_DEBUG(ctx, "%s(): to ipc_send - varid=%d:%d:%d", "jsonmib_ctrl_get", asked->var_id,
              asked->index, exchange->length);
    if (jsonmib_ipc_send(ctx, exchange->slot_no, &request, sizeof(request)) != 0) {
        return JSONMIB_CTRL_TRANSPORT;
    }
    TPG_DEBUG(ctx, "%s(): to ipc_recv -", "jsonmib_ctrl_get");
    return 0;
}

static int ctrl_send_set(tpg_context_t* ctx, const jsonmib_exchange_t* exchange)
{
    alignas(uevgend_set_msg_t) uint8_t fixed[sizeof(uevgend_set_msg_t)] = {};
    tpg_heap_bytes large;
    uint8_t* request = fixed;
    uint32_t request_len = sizeof(fixed);
    if (exchange->length > UEVGEND_DATA_FIXED) {
        request_len = exchange->length + static_cast<uint32_t>(UEVGEND_DATA_OFS);
        large.reset(static_cast<uint8_t*>(calloc(1, request_len)));
        if (large == nullptr) {
            TPG_ERROR(ctx, "jsonmib_ctrl_set calloc failed, %s", strerror(errno));
            return JSONMIB_CTRL_NOMEM;
        }
        request = large.get();
    }
    uevgend_set_msg_t head = {};
    ctrl_fill_head(&head.head, UEVGEND_MSG_SET, request_len);
    head.ctrl_set.ulVarId = exchange->asked.var_id;
    head.ctrl_set.ulIndex = exchange->asked.index;
    head.ctrl_set.usLength = static_cast<uint16_t>(exchange->length);
    memcpy(request, &head, UEVGEND_DATA_OFS);
    memcpy(request + UEVGEND_DATA_OFS, exchange->written, exchange->length);
    return jsonmib_ipc_send(ctx, exchange->slot_no, request, request_len) == 0
               ? 0
               : JSONMIB_CTRL_TRANSPORT;
}

int jsonmib_ctrl_result(tpg_context_t* ctx, const jsonmib_asked_t* asked, const uint8_t* head)
{
    int8_t code = 0;
    memcpy(&code, head + offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.scErrCode), sizeof(code));
    if (asked->type == UEVGEND_MSG_GET) {
        TPG_DEBUG(ctx, "%s(): called ipc_recv  ret=%d, erroCode=%d", "jsonmib_ctrl_get", 0, code);
    }
    return code;
}
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.scErrCode) ==
              offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.scErrCode));
