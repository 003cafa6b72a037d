#include "chassis_daemon.h"

#include "chassis_client.h"
#include "uevgend_msg_i.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static int daemon_clear_path(const std::string& path, std::string* error);
static bool daemon_is_served(const sockaddr_un* addr);
static sockaddr_un daemon_addr(const std::string& path);
static void daemon_accept_cb(evconnlistener* listener, int fd, sockaddr* addr, int len, void* arg);
static void conn_close(chassis_conn_t* conn);
static void conn_read_cb(bufferevent* bev, void* arg);
static void conn_event_cb(bufferevent* bev, short what, void* arg);
static bool conn_take_message(chassis_conn_t* conn);
static bool message_length_ok(uint16_t type, uint16_t length);
static chassis_request_t request_read(const std::string& msg);
static void request_note(chassis_slot_t* slot, chassis_request_t request);
static bool conn_serve(chassis_conn_t* conn, const std::string& msg);
static std::string get_answer(chassis_slot_t* slot, const chassis_request_t& request);
static std::string set_answer(chassis_slot_t* slot, const chassis_request_t& request,
                              std::string_view data);
static chassis_code set_value(chassis_slot_t* slot, const chassis_request_t& request,
                              std::string_view data);
static std::string value_bytes(const chassis_value_t& value);
static com_msg_head_t reply_head(uint16_t type, size_t length);
static void conn_reply(chassis_conn_t* conn, std::string reply);
static void conn_late_arm(chassis_conn_t* conn);
static void conn_late_cb(int fd, short what, void* arg);

constexpr size_t SET_REPLY_LEN = sizeof(uevgend_set_reply_msg_t);

/* A slot has one agent; the limits only stop somebody who runs wild. */
constexpr size_t CONNS_MAX = 16;
constexpr size_t BACKLOG_MAX = size_t{1} << 20U; /* unread answers of a connection, in bytes */
constexpr size_t INPUT_MAX = size_t{1} << 17U;   /* more than the longest message */
constexpr size_t REQUESTS_KEPT = 4096;
constexpr size_t REQUEST_DATA_KEPT = 1024;

int chassis_daemon_up(chassis_slot_t* slot, std::string* error)
{
    chassis_daemon_t* daemon = &slot->daemon;
    if (daemon_clear_path(daemon->path, error) != 0) {
        return -1;
    }
    const sockaddr_un addr = daemon_addr(daemon->path);
    daemon->listener.reset(evconnlistener_new_bind(
        slot->chassis->base.get(), daemon_accept_cb, slot,
        LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1, reinterpret_cast<const sockaddr*>(&addr),
        static_cast<int>(sizeof(addr))));
    if (!daemon->listener) {
        *error = daemon->path + ": " + strerror(errno);
        return -1;
    }
    return 0;
}

void chassis_daemon_down(chassis_slot_t* slot)
{
    if (slot->daemon.listener) {
        unlink(slot->daemon.path.c_str());
    }
    slot->daemon.listener.reset();
    slot->daemon.conns.clear();
}

int chassis_daemon_mode(chassis_slot_t* slot, chassis_mode mode, int arg, std::string* error)
{
    if (mode == chassis_mode::down) {
        chassis_daemon_down(slot);
    } else if (!slot->daemon.listener && chassis_daemon_up(slot, error) != 0) {
        return -1;
    }
    slot->daemon.mode = mode;
    slot->daemon.mode_arg = arg;
    return 0;
}

/* Removes the socket file that a killed process left behind, and nothing else. */
static int daemon_clear_path(const std::string& path, std::string* error)
{
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0) {
        return 0; /* nothing there; any other trouble shows when it is bound */
    }
    const sockaddr_un addr = daemon_addr(path);
    if (!S_ISSOCK(st.st_mode)) {
        *error = path + ": exists and is no socket";
    } else if (daemon_is_served(&addr)) {
        *error = path + ": another process serves it";
    } else if (unlink(path.c_str()) != 0) {
        *error = path + ": " + strerror(errno);
    } else {
        return 0;
    }
    return -1;
}

static bool daemon_is_served(const sockaddr_un* addr)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool served =
        connect(fd, reinterpret_cast<const sockaddr*>(addr), sizeof(*addr)) == 0 || errno == EAGAIN;
    close(fd);
    return served;
}

static sockaddr_un daemon_addr(const std::string& path)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    return addr;
}

static void daemon_accept_cb(evconnlistener* listener, int fd, sockaddr* addr, int len, void* arg)
{
    (void)listener;
    (void)addr;
    (void)len;
    auto* slot = static_cast<chassis_slot_t*>(arg);
    event_base* base = slot->chassis->base.get();
    if (slot->daemon.conns.size() >= CONNS_MAX) {
        fprintf(stderr, "tpg-chassis: slot %u: too many connections, one refused\n", slot->slot_no);
        close(fd);
        return;
    }
    auto conn = std::make_unique<chassis_conn_t>();
    conn->slot = slot;
    conn->bev.reset(bufferevent_socket_new(base, fd, BEV_OPT_CLOSE_ON_FREE));
    conn->timer.reset(evtimer_new(base, conn_late_cb, conn.get()));
    if (!conn->bev || !conn->timer) {
        fprintf(stderr, "tpg-chassis: slot %u: no memory for a connection\n", slot->slot_no);
        return;
    }
    bufferevent_setcb(conn->bev.get(), conn_read_cb, nullptr, conn_event_cb, conn.get());
    bufferevent_setwatermark(conn->bev.get(), EV_READ, 0, INPUT_MAX);
    bufferevent_enable(conn->bev.get(), EV_READ | EV_WRITE);
    slot->daemon.conns.push_back(std::move(conn));
}

/* Ends the connection; the record is gone afterwards. */
static void conn_close(chassis_conn_t* conn)
{
    std::erase_if(conn->slot->daemon.conns, [conn](const auto& c) { return c.get() == conn; });
}

static void conn_read_cb(bufferevent* bev, void* arg)
{
    (void)bev;
    auto* conn = static_cast<chassis_conn_t*>(arg);
    while (conn_take_message(conn)) {
    }
}

static void conn_event_cb(bufferevent* bev, short what, void* arg)
{
    (void)bev;
    (void)what;
    conn_close(static_cast<chassis_conn_t*>(arg));
}

/* Serves the next whole message; false when there is none (yet) or the connection ended. */
static bool conn_take_message(chassis_conn_t* conn)
{
    evbuffer* input = bufferevent_get_input(conn->bev.get());
    com_msg_head_t head = {};
    if (evbuffer_copyout(input, &head, sizeof(head)) < static_cast<ev_ssize_t>(sizeof(head))) {
        return false;
    }
    const uint16_t type = head.usMsgType;
    const uint16_t length = head.usMsgLen;
    if (!message_length_ok(type, length)) {
        fprintf(stderr,
                "tpg-chassis: slot %u: not a request: type %u, length %u; connection closed\n",
                conn->slot->slot_no, type, length);
        request_note(conn->slot, {type, 0, 0, length, true, {}});
        conn_close(conn);
        return false;
    }
    if (evbuffer_get_length(input) < length) {
        return false;
    }
    std::string msg(length, '\0');
    evbuffer_remove(input, msg.data(), msg.size());
    return conn_serve(conn, msg);
}

static bool message_length_ok(uint16_t type, uint16_t length)
{
    return (type == UEVGEND_MSG_GET && length == sizeof(uevgend_get_msg_t)) ||
           (type == UEVGEND_MSG_SET && length >= sizeof(uevgend_set_msg_t));
}

/* The request in a message of a good type and length. */
static chassis_request_t request_read(const std::string& msg)
{
    uevgend_set_msg_t set = {};
    msg.copy(reinterpret_cast<char*>(&set), sizeof(set));
    chassis_request_t request = {};
    request.type = set.head.usMsgType;
    request.var = set.ctrl_set.ulVarId;
    request.index = set.ctrl_set.ulIndex;
    if (request.type == UEVGEND_MSG_GET) {
        uevgend_get_msg_t get = {};
        msg.copy(reinterpret_cast<char*>(&get), sizeof(get));
        request.length = get.ctrl_get.usLength;
        return request;
    }
    request.length = set.ctrl_set.usLength;
    const size_t expected = UEVGEND_DATA_OFS + std::max<size_t>(request.length, UEVGEND_DATA_FIXED);
    request.bad = msg.size() != expected;
    request.data = msg.substr(UEVGEND_DATA_OFS, request.length).substr(0, REQUEST_DATA_KEPT);
    return request;
}

static void request_note(chassis_slot_t* slot, chassis_request_t request)
{
    slot->daemon.requests_total++;
    slot->client.taken = slot->client.registered && chassis_client_settled(slot);
    slot->daemon.requests.push_back(std::move(request));
    if (slot->daemon.requests.size() > REQUESTS_KEPT) {
        slot->daemon.requests.pop_front();
    }
}

/* Treats one request as the mode says; false when the connection ended. */
static bool conn_serve(chassis_conn_t* conn, const std::string& msg)
{
    chassis_slot_t* slot = conn->slot;
    const chassis_request_t request = request_read(msg);
    request_note(slot, request);
    if (request.bad || slot->daemon.mode == chassis_mode::close) {
        conn_close(conn);
        return false;
    }
    if (slot->daemon.mode == chassis_mode::hang) {
        return true;
    }
    conn_reply(conn,
               request.type == UEVGEND_MSG_GET
                   ? get_answer(slot, request)
                   : set_answer(slot, request,
                                std::string_view(msg).substr(UEVGEND_DATA_OFS, request.length)));
    const size_t unread = evbuffer_get_length(bufferevent_get_output(conn->bev.get()));
    if (unread + conn->late_bytes > BACKLOG_MAX) {
        fprintf(stderr, "tpg-chassis: slot %u: answers are not read; connection closed\n",
                slot->slot_no);
        conn_close(conn);
        return false;
    }
    return true;
}

static std::string get_answer(chassis_slot_t* slot, const chassis_request_t& request)
{
    const size_t room = std::max<size_t>(request.length, UEVGEND_DATA_FIXED);
    chassis_value_t value = {};
    int code = slot->daemon.mode_arg;
    if (slot->daemon.mode != chassis_mode::refuse) {
        code = chassis_vars_get(&slot->vars, request.var, request.index, &value);
    }
    std::string data;
    if (code == CHASSIS_OK) {
        data = value_bytes(value);
        if (value.kind == chassis_kind::integer && request.length != data.size()) {
            code = CHASSIS_BAD_LENGTH;
            data.clear();
        }
    }
    data.resize(std::min<size_t>(data.size(), request.length));

    uevgend_get_reply_msg_t reply = {};
    reply.head = reply_head(UEVGEND_MSG_GET, UEVGEND_DATA_OFS + room);
    reply.ctrl_get_reply.ulVarId = request.var;
    reply.ctrl_get_reply.ulIndex = request.index;
    reply.ctrl_get_reply.scErrCode = static_cast<int8_t>(code);
    reply.ctrl_get_reply.usDataLen = static_cast<uint16_t>(data.size());
    data.resize(room, '\0');
    return std::string(reinterpret_cast<const char*>(&reply), UEVGEND_DATA_OFS) + data;
}

static std::string set_answer(chassis_slot_t* slot, const chassis_request_t& request,
                              std::string_view data)
{
    int code = slot->daemon.mode_arg;
    if (slot->daemon.mode != chassis_mode::refuse) {
        code = set_value(slot, request, data);
    }
    uevgend_set_reply_msg_t reply = {};
    reply.head = reply_head(UEVGEND_MSG_SET, SET_REPLY_LEN);
    reply.ctrl_set_reply.ulVarId = request.var;
    reply.ctrl_set_reply.ulIndex = request.index;
    reply.ctrl_set_reply.scErrCode = static_cast<int8_t>(code);
    std::string_view(chassis_code_text(code))
        .copy(reply.ctrl_set_reply.acErrMsg, sizeof(reply.ctrl_set_reply.acErrMsg) - 1);
    return {reinterpret_cast<const char*>(&reply), sizeof(reply)};
}

/* Stores the new value of a variable that exists, in the kind that it has. */
static chassis_code set_value(chassis_slot_t* slot, const chassis_request_t& request,
                              std::string_view data)
{
    chassis_value_t value = {};
    const chassis_code code = chassis_vars_get(&slot->vars, request.var, request.index, &value);
    if (code != CHASSIS_OK) {
        return code;
    }
    if (value.kind == chassis_kind::text) {
        value.text = data;
    } else {
        uint32_t wire = 0;
        if (data.size() != sizeof(wire)) {
            return CHASSIS_BAD_LENGTH;
        }
        data.copy(reinterpret_cast<char*>(&wire), sizeof(wire));
        value.number = static_cast<int32_t>(wire);
    }
    chassis_vars_put(&slot->vars, request.var, request.index, std::move(value));
    return CHASSIS_OK;
}

static std::string value_bytes(const chassis_value_t& value)
{
    if (value.kind == chassis_kind::text) {
        return value.text;
    }
    const uint32_t wire = static_cast<uint32_t>(value.number);
    return {reinterpret_cast<const char*>(&wire), sizeof(wire)};
}

static com_msg_head_t reply_head(uint16_t type, size_t length)
{
    com_msg_head_t head = {};
    head.usMsgType = type;
    head.usMsgLen = static_cast<uint16_t>(length);
    head.ulPid = static_cast<uint32_t>(getpid());
    return head;
}

/* Sends a reply now, or late; replies keep the order of their requests. */
static void conn_reply(chassis_conn_t* conn, std::string reply)
{
    const chassis_daemon_t* daemon = &conn->slot->daemon;
    const bool slow = daemon->mode == chassis_mode::slow;
    if (!slow && conn->late.empty()) {
        bufferevent_write(conn->bev.get(), reply.data(), reply.size());
        return;
    }
    auto due = std::chrono::steady_clock::now();
    if (slow) {
        due += std::chrono::milliseconds(daemon->mode_arg);
    }
    if (!conn->late.empty()) {
        due = std::max(due, conn->late.back().due);
    }
    conn->late_bytes += reply.size();
    conn->late.push_back({due, std::move(reply)});
    if (conn->late.size() == 1) {
        conn_late_arm(conn);
    }
}

/* Sets the timer for the first late reply. */
static void conn_late_arm(chassis_conn_t* conn)
{
    using std::chrono::microseconds;
    constexpr int64_t USEC = 1000000;
    const auto left =
        std::chrono::ceil<microseconds>(conn->late.front().due - std::chrono::steady_clock::now());
    const int64_t usec = std::max<int64_t>(left.count(), 0);
    const timeval tv = {static_cast<time_t>(usec / USEC), static_cast<suseconds_t>(usec % USEC)};
    evtimer_add(conn->timer.get(), &tv);
}

static void conn_late_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* conn = static_cast<chassis_conn_t*>(arg);
    while (!conn->late.empty() && conn->late.front().due <= std::chrono::steady_clock::now()) {
        const std::string& reply = conn->late.front().bytes;
        bufferevent_write(conn->bev.get(), reply.data(), reply.size());
        conn->late_bytes -= reply.size();
        conn->late.pop_front();
    }
    if (!conn->late.empty()) {
        conn_late_arm(conn);
    }
}
