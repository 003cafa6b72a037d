/* The operators' socket: who is served, and with what. */

#include "tpg_main_control.h"

#include "tpg_ctl_i.h"
#include "tpg_file.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_log.h"
#include "tpg_main_levent.h"
#include "tpg_main_registry.h"
#include "tpg_main_socket.h"
#include "tpg_main_status.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static int listen_at(tpg_context_t*, const char*);
static void accept_cb(evconnlistener*, int, sockaddr*, int, void*);
static const char* reason_to_refuse(tpg_context_t*, int, tpg_control_peer_t**);
static void read_cb(bufferevent*, void*);
static void event_cb(bufferevent*, short, void*);
static void written_cb(bufferevent*, void*);
static void serve_line(tpg_control_peer_t*, std::string_view);
static bool send_answer(tpg_control_peer_t*, json_object*);
static void finish(tpg_control_peer_t*);
static void release(tpg_control_peer_t*);
static tpg_json_t parse(std::string_view);
static const char* tell_status(tpg_context_t* ctx, json_object* request, json_object* answer);
static const char* set_log_level(tpg_context_t* ctx, json_object* request, json_object* answer);
static const char* set_trace(tpg_context_t* ctx, json_object* request, json_object* answer);
static const char* reload(tpg_context_t* ctx, json_object* request, json_object* answer);

constexpr mode_t OTHERS = 0177; /* what the socket's mode leaves out */
constexpr timeval IDLE_LIMIT = {TPG_CONTROL_IDLE_S, 0};
constexpr timeval SEND_LIMIT = {TPG_CONTROL_SEND_S, 0};
constexpr char GARBAGE[] = "not a request";
/* The log levels that may be set: only errors, and everything. */
constexpr int64_t LEVEL_MIN = static_cast<int64_t>(tpg_log_level::error);
constexpr int64_t LEVEL_MAX = static_cast<int64_t>(tpg_log_level::debug);

/* What operators may ask for; a function returns null, or why it was not done. */
struct verb_t {
    const char* name;
    const char* (*carry_out)(tpg_context_t* ctx, json_object* request, json_object* answer);
};
constexpr verb_t VERBS[] = {
    {"status", tell_status},
    {"log", set_log_level},
    {"trace", set_trace},
    {"reload", reload},
};

/* ---- listener ---- */

void tpg_control_open(tpg_context_t* ctx)
{
    for (const char* path : {TPG_CTL_PATH, TPG_CTL_PATH_TMP}) {
        if (listen_at(ctx, path) == 0) {
            TPG_DEBUG(ctx, "operators are served at %s", path);
            return;
        }
        TPG_INFO(ctx, "operators cannot be served at %s, %s", path, strerror(errno));
    }
    TPG_WARN(ctx, "operators are not served");
}

static int listen_at(tpg_context_t* ctx, const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strlen(path));
    unlink(path);
    const mode_t before = umask(OTHERS);
    ctx->control.listener = evconnlistener_new_bind(
        ctx->levent_base, accept_cb, ctx, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC,
        TPG_CONTROL_BACKLOG, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    umask(before);
    if (ctx->control.listener == nullptr) {
        return -1;
    }
    ctx->control.path = path;
    tpg_socket_note(ctx, tpg_socket::operators, path);
    return 0;
}

void tpg_control_close(tpg_context_t* ctx)
{
    tpg_control_t* control = &ctx->control;
    for (tpg_control_peer_t& peer : control->peers) {
        if (peer.bev != nullptr) {
            release(&peer);
        }
    }
    if (control->listener != nullptr) {
        tpg_socket_remove(tpg_socket::operators); /* closed, it would lose its number */
        evconnlistener_free(control->listener);
        control->listener = nullptr;
    }
}

bool tpg_control_serves(uid_t peer, uid_t own)
{
    return peer == 0 || peer == own;
}

/* ---- connections ---- */

static void accept_cb(evconnlistener* listener, int fd, sockaddr* address, int length, void* arg)
{
    (void)listener;
    (void)address;
    (void)length;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    tpg_control_peer_t* peer = nullptr;
    const char* refused = reason_to_refuse(ctx, fd, &peer);
    bufferevent* bev = nullptr;
    if (refused == nullptr) {
        bev = bufferevent_socket_new(ctx->levent_base, fd, BEV_OPT_CLOSE_ON_FREE);
        refused = bev == nullptr ? "out of memory" : nullptr;
    }
    if (refused != nullptr) {
        TPG_WARN(ctx, "refused an operator's connection: %s", refused);
        dprintf(fd, "{\"ok\":false,\"error\":\"%s\"}\n", refused);
        close(fd);
        return;
    }
    *peer = {ctx, bev, false, false};
    bufferevent_setcb(bev, read_cb, nullptr, event_cb, peer);
    bufferevent_setwatermark(bev, EV_READ, 0, TPG_CTL_REQUEST_MAX);
    bufferevent_set_timeouts(bev, &IDLE_LIMIT, &SEND_LIMIT);
    if (bufferevent_enable(bev, EV_READ | EV_WRITE) != 0) {
        release(peer);
    }
}

/* Null, and a free place in *peer, when the operator is to be served; otherwise why not. */
static const char* reason_to_refuse(tpg_context_t* ctx, int fd, tpg_control_peer_t** place)
{
    ucred user = {};
    socklen_t length = sizeof(user);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &user, &length) != 0 ||
        !tpg_control_serves(user.uid, geteuid())) {
        return "only root and the agent's own user are served";
    }
    tpg_control_peer_t* const end = std::end(ctx->control.peers);
    *place = std::find_if(std::begin(ctx->control.peers), end,
                          [](const tpg_control_peer_t& peer) { return peer.bev == nullptr; });
    return *place == end ? "too many connections" : nullptr;
}

static void release(tpg_control_peer_t* peer)
{
    bufferevent_free(peer->bev);
    *peer = {};
}

/* Ends the connection when all has been sent. */
static void finish(tpg_control_peer_t* peer)
{
    peer->closing = true;
    if (evbuffer_get_length(bufferevent_get_output(peer->bev)) == 0) {
        release(peer);
        return;
    }
    bufferevent_disable(peer->bev, EV_READ);
    bufferevent_setcb(peer->bev, nullptr, written_cb, event_cb, peer);
}

static void written_cb(bufferevent* bev, void* arg)
{
    (void)bev;
    release(static_cast<tpg_control_peer_t*>(arg));
}

static void event_cb(bufferevent* bev, short events, void* arg)
{
    auto* peer = static_cast<tpg_control_peer_t*>(arg);
    if ((events & BEV_EVENT_EOF) == 0 || peer->closing) {
        release(peer);
        return;
    }
    /* It may have asked before, and still read the answer. */
    peer->ended = true;
    read_cb(bev, arg);
}

/* Serves one request a call; the next one waits until the event loop has served others. */
static void read_cb(bufferevent* bev, void* arg)
{
    auto* peer = static_cast<tpg_control_peer_t*>(arg);
    if (peer->closing) {
        return;
    }
    evbuffer* input = bufferevent_get_input(bev);
    size_t length = 0;
    const tpg_heap_chars line(evbuffer_readln(input, &length, EVBUFFER_EOL_LF));
    if (line != nullptr) {
        serve_line(peer, {line.get(), length});
    } else if (evbuffer_get_length(input) >= TPG_CTL_REQUEST_MAX) {
        serve_line(peer, {});
    } else if (peer->ended) {
        finish(peer);
    }
    if (line != nullptr && peer->bev != nullptr && !peer->closing &&
        (peer->ended || evbuffer_get_length(input) > 0)) {
        bufferevent_trigger(bev, EV_READ, BEV_TRIG_IGNORE_WATERMARKS | BEV_TRIG_DEFER_CALLBACKS);
    }
}

/* Answers one line. After one that is no request, nothing more is read from the operator. */
static void serve_line(tpg_control_peer_t* peer, std::string_view line)
{
    tpg_json_t answer = tpg_control_answer(peer->ctx, line);
    const bool garbage = answer == nullptr;
    if (garbage) {
        TPG_WARN(peer->ctx, "closed an operator's connection: %s", GARBAGE);
        answer.reset(json_object_new_object());
        json_object_object_add(answer.get(), "ok", json_object_new_boolean(0));
        json_object_object_add(answer.get(), "error", json_object_new_string(GARBAGE));
    }
    if (!send_answer(peer, answer.get())) {
        release(peer);
    } else if (garbage) {
        finish(peer);
    }
}

/* False when too much is waiting that the operator has not read. */
static bool send_answer(tpg_control_peer_t* peer, json_object* answer)
{
    evbuffer* output = bufferevent_get_output(peer->bev);
    const char* text = json_object_to_json_string_ext(answer, JSON_C_TO_STRING_PLAIN |
                                                                  JSON_C_TO_STRING_NOSLASHESCAPE);
    return text != nullptr && evbuffer_get_length(output) < TPG_CONTROL_OUTPUT_MAX &&
           evbuffer_add_printf(output, "%s\n", text) > 0;
}

/* ---- requests ---- */

tpg_json_t tpg_control_answer(tpg_context_t* ctx, std::string_view line)
{
    const tpg_json_t request = parse(line);
    json_object* verb = nullptr;
    if (request == nullptr || json_object_object_get_ex(request.get(), "do", &verb) == 0 ||
        json_object_get_type(verb) != json_type_string) {
        return nullptr;
    }
    tpg_json_t answer(json_object_new_object());
    json_object_object_add(answer.get(), "ok", nullptr); /* the first member, set below */
    const char* error = "no such request";
    for (const verb_t& known : VERBS) {
        if (strcmp(json_object_get_string(verb), known.name) == 0) {
            error = known.carry_out(ctx, request.get(), answer.get());
        }
    }
    json_object_object_add(answer.get(), "ok", json_object_new_boolean(error == nullptr ? 1 : 0));
    if (error != nullptr) {
        json_object_object_add(answer.get(), "error", json_object_new_string(error));
    }
    return answer;
}

/* The line's object, or null when it is anything else. */
static tpg_json_t parse(std::string_view line)
{
    const tpg_json_tokener_t tokener(json_tokener_new_ex(TPG_CONTROL_DEPTH));
    if (tokener == nullptr || line.empty()) {
        return nullptr;
    }
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    tpg_json_t request(
        json_tokener_parse_ex(tokener.get(), line.data(), static_cast<int>(line.size())));
    if (json_tokener_get_error(tokener.get()) != json_tokener_success ||
        json_tokener_get_parse_end(tokener.get()) != line.size() ||
        json_object_get_type(request.get()) != json_type_object) {
        return nullptr;
    }
    return request;
}

/* The member's number, or -1 when there is none in the range. */
static int64_t number_of(json_object* request, const char* key)
{
    json_object* value = nullptr;
    if (json_object_object_get_ex(request, key, &value) == 0 ||
        json_object_get_type(value) != json_type_int) {
        return -1;
    }
    return json_object_get_int64(value);
}

static const char* tell_status(tpg_context_t* ctx, json_object* request, json_object* answer)
{
    (void)request;
    json_object_object_add(answer, "status", tpg_status_document(ctx).release());
    return nullptr;
}

/* The change is logged even where only errors are. */
static const char* set_log_level(tpg_context_t* ctx, json_object* request, json_object* answer)
{
    (void)answer;
    const int64_t level = number_of(request, "level");
    if (level < LEVEL_MIN || level > LEVEL_MAX) {
        return "a log level is a number from 3 (errors) to 7 (debug)";
    }
    const uint8_t before = ctx->log_level;
    ctx->log_level = std::max(before, TPG_LOG_LEVEL_DEFAULT);
    TPG_INFO(ctx, "log level %u, it was %u", static_cast<unsigned>(level), before);
    ctx->log_level = static_cast<uint8_t>(level);
    return nullptr;
}

static const char* set_trace(tpg_context_t* ctx, json_object* request, json_object* answer)
{
    (void)answer;
    json_object* value = nullptr;
    if (json_object_object_get_ex(request, "list", &value) == 0 ||
        json_object_get_type(value) != json_type_string) {
        return "a list of tokens is a string, with commas between them";
    }
    const std::string_view text(json_object_get_string(value),
                                static_cast<size_t>(json_object_get_string_len(value)));
    char list[TPG_DEBUG_TOKENS * TPG_DEBUG_TOKEN_LEN] = {};
    if (text.size() >= sizeof(list) ||
        std::count(text.begin(), text.end(), ',') >= TPG_DEBUG_TOKENS) {
        return "there are at most 8 trace tokens";
    }
    text.copy(list, text.size());
    const uint8_t level = ctx->log_level;
    ctx->log_level = std::max(level, TPG_LOG_LEVEL_DEFAULT);
    TPG_INFO(ctx, "trace tokens: %s", list);
    ctx->log_level = level;
    tpg_debug_tokens_set(list);
    return nullptr;
}

/*
 * Does what pulling and plugging the card would do: another card of its family
 * may become the master on the way, and remains it.
 */
static const char* reload(tpg_context_t* ctx, json_object* request, json_object* answer)
{
    const int64_t number = number_of(request, "slot");
    if (number < 1 || number > int64_t{TPG_SLOT_MAX}) {
        return "a slot is a number from 1 to 15";
    }
    const auto slot = static_cast<uint32_t>(number);
    const tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[slot - 1];
    if (record->libmib_reginfo.slot_no == 0) {
        return "there is no card in the slot";
    }
    if (ctx->jsonmib_later.waiting > 0) {
        return "a SET is being carried out, try again";
    }
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot);
    tpg_libmib_update_t card = record->libmib_reginfo;
    TPG_INFO(ctx, "reloading slot %u as an operator asks", slot);
    tpg_proc_libmib_unregister(ctx, &card);
    jsonmib_queue_disconnect(ctx, slot);
    tpg_proc_libmib_register(ctx, &card);
    jsonmib_queue_card_came(ctx, slot);
    levent_snmp_settle(ctx);
    if (record->actual_reginfo == nullptr) {
        return "its tables could not be registered, the log says why";
    }
    json_object_object_add(answer, "slot", tpg_status_slot(ctx, slot).release());
    return nullptr;
}
