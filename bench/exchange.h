#ifndef BENCH_EXCHANGE_H
#define BENCH_EXCHANGE_H

/* The exchange with a slot's control daemon: send, wait, receive. */

#include "table.h"
#include "uevgend_msg_i.h"

#include <cstdio>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

constexpr uint32_t BENCH_CONTROL = 0; /* in a slot's place: where the daemons are told their pace */

/* How long a slot's daemon takes for each answer; what comes back says that it holds. */
struct bench_pace_t {
    uint32_t slot;
    uint32_t delay_us;
};
constexpr uint32_t BENCH_HUNG = UINT32_MAX; /* it reads and answers nothing */

inline sockaddr_un exchange_address(uint32_t slot)
{
    if (slot != BENCH_CONTROL) {
        return uevgend_svr_address(slot);
    }
    return {AF_UNIX, "/tmp/.bench_daemon"};
}

/* The slot's connection, made at the first call; -1 when there is no daemon. */
inline int exchange_connection(uint32_t slot)
{
    static int connections[TPG_SLOT_MAX + 1];
    if (connections[slot] == 0) {
        const sockaddr_un addr = exchange_address(slot);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
            perror(addr.sun_path);
            close(fd);
            return -1;
        }
        connections[slot] = fd;
    }
    return connections[slot];
}

/* Sets the slot's pace; a hung daemon that wakes up answers what it owes. 0 or -1. */
inline int exchange_pace(uint32_t slot, uint32_t delay_us)
{
    const int fd = exchange_connection(BENCH_CONTROL);
    bench_pace_t pace = {slot, delay_us};
    if (fd < 0 || send(fd, &pace, sizeof(pace), MSG_NOSIGNAL) != sizeof(pace) ||
        recv(fd, &pace, sizeof(pace), MSG_WAITALL) != sizeof(pace)) {
        return -1;
    }
    return 0;
}

/* Asks the slot for one variable; 0 and its value, or -1. */
inline int exchange_get(const bench_var_t* var, int32_t* value)
{
    static const auto PID = static_cast<uint32_t>(getpid());
    const int fd = exchange_connection(var->slot);
    uevgend_get_msg_t request = {};
    request.head = {UEVGEND_MSG_GET, sizeof(request), 0, 0, PID};
    request.ctrl_get = {var->var_id, var->index, sizeof(*value), 0};
    if (fd < 0 || send(fd, &request, sizeof(request), MSG_NOSIGNAL) != sizeof(request)) {
        return -1;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval timeout = {5, 0};
    uevgend_get_reply_msg_t reply = {};
    if (select(fd + 1, &set, nullptr, nullptr, &timeout) != 1 ||
        recv(fd, &reply, sizeof(reply), MSG_WAITALL) != sizeof(reply)) {
        return -1;
    }
    memcpy(value, reply.ctrl_get_reply.ucData, sizeof(*value));
    return reply.ctrl_get_reply.scErrCode;
}

#endif
