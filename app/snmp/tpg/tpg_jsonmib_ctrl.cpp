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
static void ipc_drain_owed(jsonmib_ipc_info_t*);
static void ctrl_fill_head(com_msg_head_t*, uint16_t, size_t);
static int ctrl_recv_reply(tpg_context_t*, uint32_t, uint32_t, uint32_t, void*, uint32_t);
static bool ctrl_is_late_reply(const void*, uint32_t, uint32_t);

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
        TPG_ERROR(ctx, "slot_no %u ipc is down", slot_no);
        return -1;
    }
    if (info->fd <= 0) {
        ipc_open_socket(ctx, info);
    }
    /* A socket that could not be connected is kept: the next attempt connects it again. */
    if (connect(info->fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        TPG_ERROR(ctx, "connect slot_no %u failed, %s", slot_no, strerror(errno));
        return -1;
    }
    info->connected = 1;
    info->owed = 0;
    TPG_INFO(ctx, "Connected to slot_no %u", slot_no);
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
    info->owed = 0;
}

static int ipc_ready(tpg_context_t* ctx, uint32_t slot_no)
{
    if (ipc_info(ctx, slot_no)->connected == 0 && jsonmib_ipc_connect(ctx, slot_no) != 0) {
        TPG_ERROR(ctx, "connction to slot_no %u is not available", slot_no);
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
            TPG_ERROR(ctx, "send to slot_no %u failed. request %u bytes but sent %u bytes. %s",
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
        TPG_ERROR(ctx, "ipc timeout on slot_no %u", slot_no);
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
    if (length > 0) {
        const ssize_t n = recv(fd, buf, length, MSG_DONTWAIT);
        if (n >= 0 || errno != EAGAIN) {
            return n;
        }
    }
    if (ipc_wait_readable(ctx, slot_no) != 0) {
        return IPC_NOTHING_CAME;
    }
    return length > 0 ? recv(fd, buf, length, 0) : 0;
}

int jsonmib_ipc_recv(tpg_context_t* ctx, uint32_t slot_no, void* buf, uint32_t length)
{
    if (ipc_ready(ctx, slot_no) != 0) {
        return -1;
    }
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    char* bytes = static_cast<char*>(buf);
    ssize_t n = ipc_recv_first(ctx, slot_no, buf, length);
    if (n == IPC_NOTHING_CAME) {
        return -1;
    }
    uint32_t received = 0;
    while (received < length) {
        if (n <= 0) {
            TPG_ERROR(ctx,
                      "recv from slot_no %u failed. request %u bytes but received %u bytes. %s",
                      slot_no, length, received, strerror(errno));
            jsonmib_ipc_disconnect(ctx, slot_no);
            return -1;
        }
        received += static_cast<uint32_t>(n);
        n = received < length ? recv(info->fd, bytes + received, length - received, 0) : 0;
    }
    return 0;
}

/* Throws away what has arrived of the replies to requests that timed out. */
static void ipc_drain_owed(jsonmib_ipc_info_t* info)
{
    char waste[UEVGEND_DATA_OFS + UEVGEND_DATA_FIXED];
    while (info->connected != 0 && info->owed > 0) {
        const ssize_t n =
            recv(info->fd, waste, std::min<size_t>(sizeof(waste), info->owed), MSG_DONTWAIT);
        if (n <= 0) {
            return;
        }
        info->owed -= static_cast<uint32_t>(n);
    }
}

static void ctrl_fill_head(com_msg_head_t* head, uint16_t type, size_t length)
{
    static const auto AGENT_PID = static_cast<uint32_t>(getpid()); /* a system call each time */
    *head = {};
    head->usMsgType = type;
    head->usMsgLen = static_cast<uint16_t>(length);
    head->ulPid = AGENT_PID;
}

/* True for the answer to an earlier request; a daemon that echoes nothing is taken at its word. */
static bool ctrl_is_late_reply(const void* reply, uint32_t var_id, uint32_t index)
{
    ctrl_reply_head_t head;
    memcpy(&head, reply, sizeof(head));
    if (head.ulVarId == 0 && head.ulIndex == 0) {
        return false;
    }
    return head.ulVarId != var_id || head.ulIndex != index;
}

/*
 * Receives the reply of length bytes to the request for var_id and index. Only
 * after a time-out on this connection is the echo looked at, so that an answer
 * that comes late is not served as another variable's value.
 */
static int ctrl_recv_reply(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                           void* reply, uint32_t length)
{
    jsonmib_ipc_info_t* info = ipc_info(ctx, slot_no);
    for (;;) {
        if (jsonmib_ipc_recv(ctx, slot_no, reply, length) != 0) {
            if (info->connected != 0) {
                info->owed += length;
            }
            return -1;
        }
        if (info->owed == 0 || !ctrl_is_late_reply(reply, var_id, index)) {
            return 0;
        }
        info->owed -= std::min(info->owed, length);
    }
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
    TPG_DEBUG(ctx, "%s(): to ipc_send - varid=%u:%u:%u", __func__, var_id, index, length);
    memset(data, 0, length);
    ipc_drain_owed(ipc_info(ctx, slot_no));
    if (jsonmib_ipc_send(ctx, slot_no, &request, sizeof(request)) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    TPG_DEBUG(ctx, "%s(): to ipc_recv -", __func__);
    const int ret = ctrl_recv_reply(ctx, slot_no, var_id, index, reply, reply_len);
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
    ipc_drain_owed(ipc_info(ctx, slot_no));
    if (jsonmib_ipc_send(ctx, slot_no, request, request_len) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_send failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    uevgend_set_reply_msg_t reply = {};
    if (ctrl_recv_reply(ctx, slot_no, var_id, index, &reply, sizeof(reply)) != 0) {
        TPG_ERROR(ctx, "jsonmib_ipc_recv failed");
        return JSONMIB_CTRL_TRANSPORT;
    }
    return reply.ctrl_set_reply.scErrCode;
}
