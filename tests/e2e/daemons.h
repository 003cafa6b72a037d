#ifndef DAEMONS_H
#define DAEMONS_H

/*
 * The control daemons of any slots, played by one thread of the test. A test tells each what
 * becomes of the requests that come, and looks what it saw. What is written is kept.
 */

#include "uevgend_msg_i.h"

#include <chrono>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/* What becomes of a request's answer. */
enum class deed : uint8_t {
    answer,
    lose, /* it never comes */
    late, /* it is held until the next one is answered, or until daemon_release */
};

struct play_t {
    deed usual = deed::answer;
    std::vector<deed> first = {}; /* for the next requests, in place of the usual one */
    int delay = 0;                /* of an answer, in milliseconds */
    int8_t error = 0;             /* in the answers; nothing is written then */
    bool echoes = true;           /* the answers name variable and index */
    uint16_t set_type = UEVGEND_MSG_SET; /* of the answers to SETs */
};

/* A request without an answer so far. */
struct daemon_open_t {
    deed what;
    std::chrono::steady_clock::time_point came, due;
    std::string answer;
};

struct daemon_connection_t {
    int fd;
    std::string input; /* the beginning of a request */
    std::list<daemon_open_t> open;
};

struct daemon_t {
    int slot = 0, listener = -1;
    int seen = 0;        /* requests since it was last told what to do */
    int connections = 0; /* that there have ever been */
    play_t play;
    std::list<daemon_connection_t> connected;
    std::map<std::pair<uint32_t, uint32_t>, int32_t> written; /* by variable and index */
};

struct daemons_t {
    std::mutex lock; /* of what follows */
    std::thread thread;
    int wake = -1; /* an event for the thread */
    bool over = false;
    std::map<int, daemon_t> slots;
    int overtaken = 0; /* requests that came before the one in front of them had its 5 s */
};

struct daemon_view_t {
    int seen, connections;
    bool busy;  /* there is a request without an answer */
    bool heard; /* the agent has read all answers */
};

/* What the slot's daemon does from now on; starts it. */
void daemon_play(daemons_t* d, int slot, const play_t& play = {});
/* Sends the answers that are held. */
void daemon_release(daemons_t* d, int slot);
/* Ends its connections, and perhaps the daemon. */
void daemon_close(daemons_t* d, int slot, bool down = false);
/* What there is to see. */
daemon_view_t daemon_view(daemons_t* d, int slot);
/* The card's value of a variable. */
int32_t daemon_value(daemons_t* d, int slot, uint32_t var, uint32_t index);
/* Ends all, if there are any. */
void daemons_end(daemons_t* d);

#endif
