/* The control daemons of all slots in one loop, answering from memory. */

#include "exchange.h"

#include <cstdlib>
#include <sys/epoll.h>

static int listen_at(uint32_t slot);
static void watch(int loop, int fd, bool listener);
static void answer(int fd);

int main()
{
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    for (uint32_t slot = 1; slot <= BENCH_SLOTS; slot++) {
        watch(loop, listen_at(slot), true);
    }
    for (;;) {
        epoll_event event = {};
        if (epoll_wait(loop, &event, 1, -1) != 1) {
            continue;
        }
        const int fd = static_cast<int>(event.data.u64 >> 1U);
        if ((event.data.u64 & 1U) != 0) {
            watch(loop, accept4(fd, nullptr, nullptr, SOCK_CLOEXEC), false);
        } else {
            answer(fd);
        }
    }
}

static int listen_at(uint32_t slot)
{
    const sockaddr_un addr = exchange_address(slot);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, SOMAXCONN) != 0) {
        perror(addr.sun_path);
        exit(EXIT_FAILURE);
    }
    return fd;
}

/* A descriptor's event carries its number and, in the lowest bit, whether it listens. */
static void watch(int loop, int fd, bool listener)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<uint64_t>(fd) << 1U | (listener ? 1U : 0U);
    epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event);
}

/* Answers one get; any other message ends the connection. */
static void answer(int fd)
{
    uevgend_get_msg_t request = {};
    if (recv(fd, &request, sizeof(request), MSG_WAITALL) != sizeof(request) ||
        request.head.usMsgType != UEVGEND_MSG_GET) {
        close(fd);
        return;
    }
    uevgend_get_reply_msg_t reply = {};
    reply.head = {UEVGEND_MSG_GET, sizeof(reply), 0, 0, request.head.ulPid};
    const ctrl_get_request_t* get = &request.ctrl_get;
    const int32_t value = bench_value(get->ulVarId, get->ulIndex);
    reply.ctrl_get_reply = {get->ulVarId, get->ulIndex, 0, 0, sizeof(value), {}};
    memcpy(reply.ctrl_get_reply.ucData, &value, sizeof(value));
    if (send(fd, &reply, sizeof(reply), MSG_NOSIGNAL) != sizeof(reply)) {
        close(fd);
    }
}
