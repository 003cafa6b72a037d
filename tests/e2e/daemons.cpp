#include "daemons.h"

#include "../support/daemon.h"

#include <algorithm>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <utility>

using daemon_clock = std::chrono::steady_clock;
using daemon_lock = std::lock_guard<std::mutex>;

/* A request's time, less what its way through a busy machine may take. */
constexpr auto PATIENCE = std::chrono::milliseconds(4500);

static int32_t value_of(const daemon_t& daemon, uint32_t var, uint32_t index)
{
    const auto written = daemon.written.find({var, index});
    const auto slot = static_cast<uint32_t>(daemon.slot);
    return written != daemon.written.end()
               ? written->second
               : static_cast<int32_t>(1000 * slot + 10 * (var % 100) + index);
}

/* Carries a request out; returns the answer. */
static std::string daemon_serve(daemon_t* daemon, const question_t& asked)
{
    int32_t value = value_of(*daemon, asked.var, asked.index);
    if (asked.set && daemon->play.error == 0) {
        asked.written.copy(reinterpret_cast<char*>(&value), sizeof(value));
        daemon->written[{asked.var, asked.index}] = value;
    }
    question_t named = asked;
    if (!daemon->play.echoes) {
        named.var = named.index = 0;
    }
    std::string answer = answer_to(named, bytes_of(value), daemon->play.error);
    const uint16_t type = asked.set ? daemon->play.set_type : uint16_t{UEVGEND_MSG_GET};
    memcpy(&answer[offsetof(com_msg_head_t, usMsgType)], &type, sizeof(type));
    return answer;
}

/* Sends the answers that are held, and those whose time has come. */
static void connection_flush(daemon_connection_t* connection)
{
    const auto now = daemon_clock::now();
    connection->open.remove_if([&](const daemon_open_t& open) {
        const bool goes = open.what == deed::late || (open.what == deed::answer && open.due <= now);
        if (goes) {
            send(connection->fd, open.answer.data(), open.answer.size(),
                 MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        return goes;
    });
}

/* Takes a request, if one is complete. */
static bool connection_take(daemons_t* d, daemon_t* daemon, daemon_connection_t* connection)
{
    question_t asked;
    if (!take_question(&connection->input, &asked)) {
        return false;
    }
    const auto now = daemon_clock::now();
    deed what = daemon->play.usual;
    if (!daemon->play.first.empty()) {
        what = daemon->play.first.front();
        daemon->play.first.erase(daemon->play.first.begin());
    }
    for (const daemon_open_t& open : connection->open) {
        d->overtaken += now - open.came < PATIENCE ? 1 : 0;
    }
    connection->open.push_back({what, now, now + std::chrono::milliseconds(daemon->play.delay),
                                daemon_serve(daemon, asked)});
    daemon->seen++;
    return true;
}

/* Serves what has come; false at the connection's end. Next is when there will be more to send. */
static bool connection_turn(daemons_t* d, daemon_t* daemon, daemon_connection_t* connection,
                            daemon_clock::time_point* next)
{
    char bytes[1024];
    ssize_t n = 0;
    while ((n = recv(connection->fd, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0) {
        connection->input.append(bytes, static_cast<size_t>(n));
    }
    if (n == 0 || errno != EAGAIN) {
        close(connection->fd);
        return false;
    }
    while (connection_take(d, daemon, connection)) {
    }
    for (const daemon_open_t& open : connection->open) {
        if (open.what == deed::answer && open.due > daemon_clock::now()) {
            *next = std::min(*next, open.due);
        } else if (open.what == deed::answer) {
            connection_flush(connection);
            break;
        }
    }
    return true;
}

static void daemons_loop(daemons_t* d)
{
    std::unique_lock<std::mutex> held(d->lock);
    while (!d->over) {
        auto next = daemon_clock::now() + std::chrono::minutes(1);
        std::vector<pollfd> fds = {{d->wake, POLLIN, 0}};
        for (auto& [slot, daemon] : d->slots) {
            int fd = -1;
            while ((fd = accept4(daemon.listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
                daemon.connected.push_back({fd, {}, {}});
                daemon.connections++;
            }
            daemon.connected.remove_if([&, of = &daemon](daemon_connection_t& connection) {
                return !connection_turn(d, of, &connection, &next);
            });
            fds.push_back({daemon.listener, POLLIN, 0});
            for (const daemon_connection_t& connection : daemon.connected) {
                fds.push_back({connection.fd, POLLIN, 0});
            }
        }
        held.unlock();
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(next - daemon_clock::now());
        poll(fds.data(), fds.size(), std::max(0, static_cast<int>(pause.count())));
        held.lock();
        eventfd_t count = 0;
        eventfd_read(d->wake, &count);
    }
}

void daemon_play(daemons_t* d, int slot, const play_t& play)
{
    const daemon_lock held(d->lock);
    daemon_t* daemon = &d->slots[slot];
    daemon->slot = slot;
    daemon->play = play;
    daemon->seen = 0;
    if (daemon->listener < 0) {
        daemon->listener = unix_socket(daemon_path(slot), true);
        fcntl(daemon->listener, F_SETFL, O_NONBLOCK);
    }
    if (d->wake < 0) {
        d->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        d->thread = std::thread(daemons_loop, d);
    }
    eventfd_write(d->wake, 1);
}

void daemon_release(daemons_t* d, int slot)
{
    const daemon_lock held(d->lock);
    for (daemon_connection_t& connection : d->slots[slot].connected) {
        connection_flush(&connection);
    }
}

void daemon_close(daemons_t* d, int slot, bool down)
{
    const daemon_lock held(d->lock);
    daemon_t* daemon = &d->slots[slot];
    if (down) {
        close(std::exchange(daemon->listener, -1));
        unlink(daemon_path(slot).c_str());
    }
    for (const daemon_connection_t& connection : daemon->connected) {
        close(connection.fd);
    }
    daemon->connected.clear();
    eventfd_write(d->wake, 1);
}

daemon_view_t daemon_view(daemons_t* d, int slot)
{
    const daemon_lock held(d->lock);
    const daemon_t& daemon = d->slots[slot];
    daemon_view_t view = {daemon.seen, daemon.connections, false, true};
    for (const daemon_connection_t& connection : daemon.connected) {
        int unread = 0;
        ioctl(connection.fd, SIOCOUTQ, &unread);
        view.heard = view.heard && unread == 0;
        view.busy = view.busy || !connection.open.empty();
    }
    return view;
}

int32_t daemon_value(daemons_t* d, int slot, uint32_t var, uint32_t index)
{
    const daemon_lock held(d->lock);
    return value_of(d->slots[slot], var, index);
}

void daemons_end(daemons_t* d)
{
    if (d->wake < 0) {
        return;
    }
    for (const auto& [slot, daemon] : d->slots) {
        daemon_close(d, slot, true);
    }
    {
        const daemon_lock held(d->lock);
        d->over = true;
        eventfd_write(d->wake, 1);
    }
    d->thread.join();
    close(std::exchange(d->wake, -1));
}
