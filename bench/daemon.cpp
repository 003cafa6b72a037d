/*
 * The control daemons of all slots in one loop, answering from memory: at once,
 * late, or not at all while they hang, each slot at its own pace.
 */

#include "exchange.h"

#include <chrono>
#include <cstdlib>
#include <map>
#include <sys/epoll.h>
#include <sys/prctl.h>

/* Where an event or an answer belongs to; all of it fits an event's data. */
struct place_t {
    int fd;
    uint16_t slot;
    uint16_t listens;
};
static_assert(sizeof(place_t) == sizeof(epoll_data_t));

/* An answer to come. */
struct owed_t {
    place_t place;
    uevgend_get_reply_msg_t reply;
};
using due_t = std::chrono::steady_clock::time_point;

static int listen_at(uint32_t slot);
static void watch(int loop, place_t place);
static int wait_events(int loop, epoll_event* event);
static void set_pace(int fd);
static void serve(place_t place);
static void answer(const owed_t* owed);
static void answer_due();
static void end(int fd);

static std::multimap<due_t, owed_t> waiting;
static uint32_t delays_us[TPG_SLOT_MAX + 1];

int main()
{
    prctl(PR_SET_TIMERSLACK, 1UL); /* nanosecond */
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    for (uint32_t slot = BENCH_CONTROL; slot <= TPG_SLOT_MAX; slot++) {
        watch(loop, {listen_at(slot), static_cast<uint16_t>(slot), 1});
    }
    for (;;) {
        epoll_event event = {};
        if (wait_events(loop, &event) == 1) {
            place_t place = {};
            memcpy(&place, &event.data, sizeof(place));
            if (place.listens != 0) {
                watch(loop, {accept4(place.fd, nullptr, nullptr, SOCK_CLOEXEC), place.slot, 0});
            } else if (place.slot == BENCH_CONTROL) {
                set_pace(place.fd);
            } else {
                serve(place);
            }
        }
        answer_due();
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

static void watch(int loop, place_t place)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    memcpy(&event.data, &place, sizeof(place));
    epoll_ctl(loop, EPOLL_CTL_ADD, place.fd, &event);
}

/* Until something comes or the next answer is due. */
static int wait_events(int loop, epoll_event* event)
{
    if (waiting.empty() || waiting.begin()->first == due_t::max()) {
        return epoll_wait(loop, event, 1, -1);
    }
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          waiting.begin()->first - std::chrono::steady_clock::now())
                          .count();
    constexpr int64_t SECOND = 1000000000;
    const int64_t wait = std::max<int64_t>(left, 0);
    const timespec limit = {wait / SECOND, wait % SECOND};
    return epoll_pwait2(loop, event, 1, &limit, nullptr);
}

static void set_pace(int fd)
{
    bench_pace_t pace = {};
    if (recv(fd, &pace, sizeof(pace), MSG_WAITALL) != sizeof(pace) || pace.slot > TPG_SLOT_MAX) {
        end(fd);
        return;
    }
    delays_us[pace.slot] = pace.delay_us;
    for (auto it = waiting.begin(); it != waiting.end() && pace.delay_us != BENCH_HUNG;) {
        const auto at = it++;
        if (at->second.place.slot == pace.slot) {
            const owed_t owed = at->second;
            waiting.erase(at);
            answer(&owed);
        }
    }
    send(fd, &pace, sizeof(pace), MSG_NOSIGNAL);
}

/* Takes one request, a GET or a longer SET, which changes nothing. */
static void serve(place_t place)
{
    uevgend_set_msg_t request = {};
    constexpr size_t GET_LEN = sizeof(uevgend_get_msg_t);
    char* rest = reinterpret_cast<char*>(&request) + GET_LEN;
    const bool came = recv(place.fd, &request, GET_LEN, MSG_WAITALL) == GET_LEN;
    const size_t more = request.head.usMsgLen - GET_LEN;
    if (!came || request.head.usMsgLen < GET_LEN || request.head.usMsgLen > sizeof(request) ||
        (more > 0 && recv(place.fd, rest, more, MSG_WAITALL) != static_cast<ssize_t>(more))) {
        end(place.fd);
        return;
    }
    const ctrl_set_request_t* asked = &request.ctrl_set; /* begins as a GET's */
    const int32_t value = bench_value(asked->ulVarId, asked->ulIndex);
    const uint16_t value_len = request.head.usMsgType == UEVGEND_MSG_GET ? sizeof(value) : 0;
    owed_t owed = {place, {}};
    owed.reply.head = {request.head.usMsgType, sizeof(owed.reply), 0, 0, request.head.ulPid};
    owed.reply.ctrl_get_reply = {asked->ulVarId, asked->ulIndex, 0, 0, value_len, {}};
    memcpy(owed.reply.ctrl_get_reply.ucData, &value, value_len);
    const uint32_t delay_us = delays_us[place.slot];
    if (delay_us == 0) {
        answer(&owed);
        return;
    }
    waiting.emplace(delay_us == BENCH_HUNG
                        ? due_t::max()
                        : std::chrono::steady_clock::now() + std::chrono::microseconds(delay_us),
                    owed);
}

static void answer(const owed_t* owed)
{
    static_assert(sizeof(uevgend_set_reply_msg_t) == sizeof(owed->reply));
    send(owed->place.fd, &owed->reply, sizeof(owed->reply), MSG_NOSIGNAL);
}

static void answer_due()
{
    while (!waiting.empty() && waiting.begin()->first <= std::chrono::steady_clock::now()) {
        const owed_t owed = waiting.begin()->second;
        waiting.erase(waiting.begin());
        answer(&owed);
    }
}

/* Its number may be another connection's soon. */
static void end(int fd)
{
    close(fd);
    std::erase_if(waiting, [fd](const auto& entry) { return entry.second.place.fd == fd; });
}
