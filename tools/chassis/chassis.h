#ifndef CHASSIS_H
#define CHASSIS_H

/*
 * The simulated chassis: what its slots hold and what is going on there. Data
 * only; what may be called stands in the header of the module that does it.
 */

#include "chassis_vars.h"
#include "tpg_msg_i.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <memory>
#include <string>
#include <vector>

constexpr unsigned CHASSIS_BOARD_SLOT = 1; /* where the controller board is */

struct chassis_deleter_t {
    void operator()(event_base* base) const
    {
        event_base_free(base);
    }
    void operator()(event* ev) const
    {
        event_free(ev);
    }
    void operator()(bufferevent* bev) const
    {
        bufferevent_free(bev);
    }
    void operator()(evbuffer* buf) const
    {
        evbuffer_free(buf);
    }
    void operator()(evconnlistener* listener) const
    {
        evconnlistener_free(listener);
    }
};

/* Owns a libevent object. */
template <typename T> using chassis_ptr_t = std::unique_ptr<T, chassis_deleter_t>;

struct chassis_t;
struct chassis_slot_t;

/* ---- control daemons ---- */

/* How a daemon treats requests. */
enum class chassis_mode : uint8_t {
    normal,
    hang,   /* reads, never answers */
    slow,   /* answers mode_arg milliseconds late */
    refuse, /* answers with the code mode_arg */
    close,  /* closes the connection instead of answering */
    down,   /* no socket, no connections */
};

/* A request as it came in, for the operator. */
struct chassis_request_t {
    uint16_t type;
    uint32_t var;
    uint32_t index;
    uint16_t length;  /* data bytes wanted or sent; of a bad message its announced length */
    bool bad;         /* not a message that a daemon takes */
    std::string data; /* of a set; its beginning if it is very long */
};

/* An answer that is not sent yet. */
struct chassis_late_reply_t {
    std::chrono::steady_clock::time_point due;
    std::string bytes;
};

struct chassis_conn_t {
    chassis_slot_t* slot;
    chassis_ptr_t<bufferevent> bev;
    chassis_ptr_t<event> timer; /* for the first of late */
    std::deque<chassis_late_reply_t> late;
    size_t late_bytes;
};

struct chassis_daemon_t {
    std::string path;
    chassis_ptr_t<evconnlistener> listener;
    std::vector<std::unique_ptr<chassis_conn_t>> conns;
    chassis_mode mode;
    int mode_arg;
    std::deque<chassis_request_t> requests; /* the latest */
    uint64_t requests_total;
};

/* ---- card clients ---- */

enum class chassis_link : uint8_t {
    off,     /* unplugged */
    waiting, /* no agent there; tried again soon */
    connected,
};

struct chassis_client_t {
    chassis_link link;
    bool registered; /* a registration is wanted, now or once the agent is there */
    bool taken;      /* the agent has asked the card since it was sent: it serves it */
    unsigned acks_due;
    chassis_ptr_t<bufferevent> bev;
    chassis_ptr_t<event> retry;
    int insertions;
    int removals;
};

/* ---- the chassis ---- */

struct chassis_slot_t {
    chassis_t* chassis;
    unsigned slot_no;
    bool card;
    bool board;
    bool plugged;                 /* at start */
    tpg_libmib_update_t identity; /* of the card */
    chassis_vars_t vars;
    chassis_daemon_t daemon;
    chassis_client_t client;
};

/* The operator's side: commands come in one by one, each is answered before the next. */
struct chassis_input_t {
    chassis_ptr_t<evbuffer> buf;
    chassis_ptr_t<event> readable;
    bool eof;
    bool held;                   /* an answer waits for the agent */
    std::string answer;          /* the words in front of the slots' states */
    std::vector<unsigned> slots; /* whose states the answer waits for and shows */
    bool show_slots;             /* name each slot in front of its state */
    chassis_ptr_t<event> deadline;
};

struct chassis_t {
    chassis_ptr_t<event_base> base;
    chassis_ptr_t<event> settled; /* activated when a client's state changed */
    std::string board_type;
    std::array<chassis_slot_t, TPG_SLOT_MAX> slots; /* by slot number - 1 */
    chassis_input_t input;
};

/* True when something is in the slot, and so a daemon and a client are played for it. */
inline bool chassis_slot_used(const chassis_slot_t* slot)
{
    return slot->card || slot->board;
}

#endif
