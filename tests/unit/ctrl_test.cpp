/* The control channel and its queue, against a daemon that does what a text says. */

#include "../support/daemon.h"
#include "tpg_jsonmib_late.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_wait.h"
#include "tpg_main_levent.h"
#include "unit.h"

#include <deque>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

static int64_t frozen_us; /* the agent's time; 0: it is that of the machine */

/* In place of the C library's. */
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock != CLOCK_MONOTONIC || frozen_us == 0) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    *time = {static_cast<time_t>(frozen_us / 1000000),
             static_cast<long>(frozen_us % 1000000 * 1000)};
    return 0;
}

/*
 * Requests and replies are words: g for a GET or its reply, s for a SET's, n for a walk's GET, r
 * for a reply whose type tells nothing; then the variable, 0 in a reply that names none; in a
 * reply also its data, x for a refusal.
 */
static jsonmib_asked_t asked_of(const std::string& word)
{
    return {word[0] == 's' ? UEVGEND_MSG_SET : UEVGEND_MSG_GET,
            static_cast<uint32_t>(std::stoul(word.substr(1))), 0x203, 152};
}

static std::string reply_of(const std::string& word)
{
    const jsonmib_asked_t asked = asked_of(word);
    std::string reply =
        answer_to({word[0] == 's', asked.var_id, asked.var_id == 0 ? 0 : asked.index, 0, ""},
                  std::string(UEVGEND_DATA_FIXED, word.back()), word.back() == 'x' ? -3 : 0);
    if (word[0] == 'r') {
        reply.replace(0, sizeof(com_msg_head_t::usMsgType), 2, '\0');
    }
    return reply;
}

/*
 * Slot 3 and its daemon. What happens is written down: a connection (+), what the daemon reads
 * (>g7) and what becomes of it (g7=a; g7! when it fails).
 */
struct ctrl : testing::Test {
    struct request_t {
        jsonmib_exchange_t exchange;
        std::string word;
        uint8_t value[UEVGEND_DATA_FIXED];
    };
    std::unique_ptr<tpg_context_t> ctx = new_context(0);
    jsonmib_queue_t* queue = &ctx->jsonmib_queue[2];
    int listener = (unlink(daemon_path(3).c_str()), unix_socket(daemon_path(3), true));
    int peer = -1;
    int crowd = -1; /* fills the backlog */
    std::deque<request_t> requests;
    std::string rest, input; /* of a reply that was sent in part; what the daemon has read */
    std::string told;

    void SetUp() override
    {
        frozen_us = 1000000000;
    }
    void TearDown() override
    {
        frozen_us = 0;
        jsonmib_queue_release(ctx.get());
        close(peer);
        close(listener);
    }
    void ask(const std::string& word)
    {
        request_t* request = &requests.emplace_back(request_t{{}, word, {}});
        request->exchange.slot_no = 3;
        request->exchange.asked = asked_of(word);
        request->exchange.length = 1;
        request->exchange.written = "w";
        request->exchange.value = request->value;
        request->exchange.born = jsonmib_now();
        request->exchange.walk = word[0] == 'n';
        jsonmib_queue_start(ctx.get(), &request->exchange);
    }
    void say(const std::string& bytes) const
    {
        EXPECT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void observe()
    {
        for (auto& [exchange, word, value] : requests) {
            if (exchange.done && !word.empty()) {
                const std::string data = {exchange.result == 0 ? '=' : '~', char(value[0])};
                told += word + (exchange.result == JSONMIB_CTRL_TRANSPORT ? "!" : data) + " ";
                word.clear();
            }
        }
        fcntl(listener, F_SETFL, O_NONBLOCK);
        if (const int fd = crowd < 0 ? accept(listener, nullptr, nullptr) : -1; fd >= 0) {
            close(std::exchange(peer, fd));
            rest.clear();
            input.clear();
            told += "+ ";
        }
        question_t asked;
        for (input += pending(peer); take_question(&input, &asked);) {
            told += (asked.set ? ">s" : ">g") + std::to_string(asked.var) + " ";
        }
    }
    /* ?g7 is a request, !g7a a reply, /g7a the first 10 bytes of one and ! its rest, 5s time that
     * passes, x the end of the connection, - the daemon's end and + its return, f a full backlog
     * and e its end, a abandons the last request and counts those that are left. */
    std::string story(const std::string& text)
    {
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            const std::string what = word.substr(1);
            if (word[0] == '?') {
                ask(what);
            } else if (word[0] == '!' || word[0] == '/') {
                rest += what.empty() ? "" : reply_of(what);
                say(rest.substr(0, word[0] == '/' ? 10 : rest.size()));
                rest.erase(0, word[0] == '/' ? 10 : rest.size());
            } else if (word == "u") {
                told += jsonmib_queue_unreadable(ctx.get()) == 0 ? "tried " : "passed ";
            } else if (word == "a") {
                jsonmib_queue_abandon(ctx.get(), &requests.back().exchange);
                told += std::to_string(jsonmib_queue_waiting(ctx.get(), 3)) + " ";
            } else if (word == "f") {
                listen(listener, 0);
                crowd = unix_socket(daemon_path(3));
            } else if (word == "e") {
                close(accept(listener, nullptr, nullptr));
                close(std::exchange(crowd, -1));
            } else if (word == "x") {
                close(std::exchange(peer, -1));
            } else if (word == "-") {
                close(std::exchange(listener, -1));
                unlink(daemon_path(3).c_str());
            } else if (word == "+") {
                listener = unix_socket(daemon_path(3), true);
            } else {
                frozen_us += static_cast<int64_t>(std::stod(word) * 1e6);
            }
            jsonmib_queue_drive(ctx.get(), jsonmib_now());
            observe();
        }
        jsonmib_queue_release(ctx.get());
        requests.clear();
        return std::exchange(told, "");
    }
    /* The bytes waiting at one end. */
    static std::string pending(int fd)
    {
        char bytes[1024];
        const ssize_t n = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        return {bytes, static_cast<size_t>(std::max<ssize_t>(n, 0))};
    }
};

TEST_F(ctrl, stories)
{
    const std::string types = "?g1 !g1a ?s1 !s1k ", typed = "+ >g1 g1=a >s1 s1=k ";
    const struct {
        std::string steps, expected;
    } stories[] = {
        {"?g7 ?s8 ?g9 !g7a !s8k !g9x", "+ >g7 g7=a >s8 s8=k >g9 g9~x "},
        {"?g7 /g7a / / ?g8 ! /g8b !", "+ >g7 g7=a >g8 g8=b "},
        /* Without a time-out the echo is not looked at. */
        {"?g7 !g5a", "+ >g7 g7=a "},
        /* A late answer, before the next request and behind it, and a lost one. */
        {"?g7 5s /g7a / / ?g8 ! !g8b", "+ >g7 g7! >g8 g8=b "},
        {"?s7 5s ?s8 !s7x !s8k 5s ?s9 !s9x", "+ >s7 s7! >s8 s8=k >s9 s9~x "},
        {"?g7 5s ?g8 !g8b 5s ?s9 !s9x", "+ >g7 g7! >g8 g8=b >s9 s9~x "},
        /* The same cell: one read is worth the other; else the types tell, once they are known. */
        {"?g7 5s ?g7 !g7a ?g8 !g7b !g8c", "+ >g7 g7! >g7 g7=a >g8 g8=c "},
        {"?g7 5s ?s7 !s7k", "+ >g7 g7! + >s7 s7=k "},
        {"?g1 !r1a ?s1 !r1k ?g7 5s ?s7 !s7k", typed + ">g7 g7! + >s7 s7=k "},
        {types + "?s7 5s ?s7 !s7x", typed + ">s7 s7! + >s7 s7~x "},
        {types + "?g7 5s ?s7 !g7x !s7k", typed + ">g7 g7! >s7 s7=k "},
        {types + "?g7 5s ?s7 !s7x", typed + ">g7 g7! >s7 s7~x "},
        {types + "?g7 5s ?s8 !s7x !s8k", typed + ">g7 g7! >s8 s8=k "},
        {types + "?s7 5s ?g7 !s7x !g7a", typed + ">s7 s7! >g7 g7=a "},
        /* A daemon that names no variable: known to, or not yet. */
        {"?g1 !g0a ?g7 5s ?g8 !g0b", "+ >g1 g1=a >g7 g7! + >g8 g8=b "},
        {"?g7 5s ?g8 !g0a !g0b", "+ >g7 g7! >g8 g8=b "},
        {"?g7 5s ?g8 !g0b 5s ?g9 4s !g0c", "+ >g7 g7! >g8 g8! + >g9 g9=c "},
        /* The end of a connection costs the one request that was out. */
        {"?g7 ?g8 ?s9 x !g8b !s9k", "+ >g7 g7! + >g8 g8=b >s9 s9=k "},
        {"?g7 !g7a x ?g8 ?g9 !g9c", "+ >g7 g7=a g8! + >g9 g9=c "},
        {"?g7 /g7a / / 5s ?g8 !g8b", "+ >g7 g7! + >g8 g8=b "},
        {"?g7 5s /g7a 5s ?g8 !g8b", "+ >g7 g7! + >g8 g8=b "},
        /* A daemon whose backlog is full for a moment; a request that is abandoned in the queue. */
        {"f ?g7 1s e ?s8 !g7a !s8k", "+ >g7 g7=a >s8 s8=k "},
        {"?g7 ?g8 ?g9 a ?s1 !g7a !g8b !s1k", "+ >g7 2 g9! g7=a >g8 g8=b >s1 s1=k "},
        /* Walks pass a silent slot by, but for one of them in a while. */
        {"?g7 5s u 11s u ?n8 u", "+ >g7 g7! passed tried >g8 passed "},
        /* A silent daemon has 200 ms, and no second request before its 5 s are over. */
        {"?g7 ?s8 5s ?g9 ?n2 0.2s ?g3 0.2s ?n4", "+ >g7 g7! s8! >g9 n2! g9! g3! n4! "},
        {"?g7 5s ?g8 0.2s ?g9 !g8b 4s !g9c", "+ >g7 g7! >g8 g8! >g9 g9=c "},
        {"?g7 ?g8 ?g9 4.9s !g7a 4.9s !g8b 0.2s", "+ >g7 g7=a >g8 g8=b >g9 g9! "},
    };
    for (const auto& [steps, expected] : stories) {
        EXPECT_EQ(story(steps), expected) << steps;
    }
    std::string steps, expected = "+ ";
    for (uint32_t i = 0; i <= JSONMIB_DEAD_MAX; i++) {
        const std::string request = "g" + std::to_string(10 + i);
        steps += "?" + request + " 5s ";
        expected += ">" + request + " " + request + "! ";
    }
    EXPECT_EQ(story(steps + "?g7 !g7a"), expected + "+ >g7 g7=a ");
}

/* However many requests meet it. */
TEST_F(ctrl, that_a_daemon_goes_and_comes_is_said_once)
{
    ctx->log_level = TPG_LOG_LEVEL_DEFAULT;
    const struct {
        std::string steps, why, back;
    } stories[] = {
        {"?g7 ?g8 5s ?g9 0.2s ?n4 !g7a !g9c ?s1 !s1k", "it is silent", "5.2 s, requests failed: 4"},
        {"?g7 5s ?g8 0.2s 5s /g7a !", "it is silent", "10.2 s, requests failed: 2"},
        {"?g7 !g7a ?g8 ?g9 x !g9b", "it has closed the connection", "0.0 s, requests failed: 1"},
        {"?g7 /g7a 5s ?g8 !g8b", "the rest of an answer does not come",
         "0.0 s, requests failed: 1"},
        {"- ?g7 ?s8 7s ?n9 + ?g9 !g9a", "it cannot be connected", "7.0 s, requests failed: 3"},
        {"?g7 !g7a x ?s8 ?g9 !g9a", "it takes no request", "0.0 s, requests failed: 1"},
        {"f ?g7 ?s8 5s e ?g9 !g9a", "it accepts no connection", "5.0 s, requests failed: 2"},
        {"?g7 3s !g7x x", "", ""},
    };
    for (const auto& [steps, why, back] : stories) {
        const std::string log = log_of([&, text = steps] { story(text); });
        std::string said;
        std::istringstream lines(log);
        for (std::string line; std::getline(lines, line);) {
            said += has(line, " the daemon of ") ? line + "\n" : "";
        }
        const std::string daemon = "the daemon of slot_no 3 is ";
        EXPECT_EQ(said, why.empty() ? ""
                                    : "Warn " + daemon + "away: " + why + "\nInfo " + daemon +
                                          "back after " + back + "\n")
            << steps << log;
    }
}

/* What the library waits for may come nearer while the loop's timer runs. */
TEST(levent, timer_runs_out_with_the_next_alarm)
{
    std::unique_ptr<tpg_context_t> ctx = new_context();
    ctx->levent_base = event_base_new();
    list_init(&ctx->lev_snmp_fd_list);
    ctx->lev_snmp_timeout = evtimer_new(ctx->levent_base, levent_snmp_timer_ran_out, ctx.get());
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
    for (const time_t seconds : {600, 60}) {
        timeval at = {};
        snmp_alarm_register(static_cast<u_int>(seconds), 0, nullptr, nullptr);
        levent_snmp_update(ctx.get());
        event_pending(ctx->lev_snmp_timeout, EV_TIMEOUT, &at);
        EXPECT_LE(std::abs(at.tv_sec - time(nullptr) - seconds), 1);
    }
    snmp_alarm_unregister_all();
    event_free(ctx->lev_snmp_timeout);
    event_base_free(ctx->levent_base);
}
