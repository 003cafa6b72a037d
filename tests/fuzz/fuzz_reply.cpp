/*
 * Control daemons that answer as they like, late, in pieces or not at all, while managers ask and
 * cards come and go. The managers' steps are read from the front of the input, the daemons' from
 * its end. The daemons act, and time passes, only where the agent waits.
 */

#include "../support/daemon.h"
#include "fuzz.h"

#include "tpg_jsonmib.h"
#include "tpg_jsonmib_cell.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_legacymib_kx.h"
#include "tpg_main_levent.h"

#include <algorithm>
#include <climits>
#include <deque>
#include <event2/event.h>
#include <fcntl.h>
#include <list>
#include <map>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>

struct daemon_t {
    std::string path;
    int listener = -1; /* none: the daemon is away */
    int fd = -1;
    std::string arrived;          /* the beginning of a request */
    std::deque<question_t> asked; /* to be answered */
    std::string unsent;           /* of answers that were begun */
};

/* A PDU that is outstanding. */
struct outstanding_t {
    fuzz_request_t request;
    std::vector<name_t> ends; /* of the ranges that are asked for; empty: none */
    int64_t since;
    int64_t blocked; /* blocked_us then */
};

constexpr uint32_t CARD_SLOT = 2; /* and the next one has a card of the same family */
constexpr int64_t SECOND = 1000000;
constexpr int64_t NEVER = INT64_MAX;
constexpr int UNANSWERED = INT_MAX;
static const name_t GEN_ROOT = {1, 3, 6, 1, 4, 1, 32473, 8, 1, 1};
static const name_t FAULT_ROOT = {1, 3, 6, 1, 4, 1, 32473, 8, 2, 1};
/* The variable of each column of these tables; 0: the agent knows the value itself. */
constexpr uint32_t GEN_VARS[] = {1, 2, 3, 4, 5, 6, 7, 8, 18, 9, 0};
constexpr uint32_t FAULT_VARS[] = {10, 0, 2, 6, 8};

static std::string_view input;
static bool running; /* an input is being worked on */
static int64_t now_us = SECOND;
static int64_t blocked_us;            /* what waiting in place has taken */
static daemon_t daemons[3];           /* of the slots 1 to 3 */
static bool echoes;                   /* the daemons' answers name the variable */
static bool types_tell;               /* answers to GETs and to SETs differ in type */
static bool honest;                   /* each answer, if it comes, is that to its request */
static bool ends_well;                /* at the end of the input all daemons answer */
static std::map<long, int> codes;     /* what SETs were answered with */
static long sets;
static std::list<outstanding_t> outstanding;

/* ---- daemons ---- */

/* A cell's value, again and again. */
static char truth(uint32_t slot, uint32_t var, uint32_t index, size_t place)
{
    uint32_t hash = slot * 0x9e3779b1U ^ var * 0x85ebca6bU ^ index * 0xc2b2ae35U;
    hash ^= hash >> 15U;
    return static_cast<char>('a' + (hash >> (place % 4 * 4) & 15U));
}

static std::string answer_of(const daemon_t* daemon, question_t asked, int8_t code)
{
    std::string data;
    for (size_t i = 0; i < std::max(asked.length, UEVGEND_DATA_FIXED); i++) {
        data += truth(static_cast<uint32_t>(daemon - daemons) + 1, asked.var, asked.index, i);
    }
    if (!echoes) {
        asked.var = asked.index = 0;
    }
    std::string answer = answer_to(asked, data, code);
    if (!types_tell) {
        com_msg_head_t head;
        memcpy(&head, answer.data(), sizeof(head));
        head.usMsgType = UEVGEND_MSG_GET;
        answer.replace(0, sizeof(head), bytes_of(head));
    }
    return answer;
}

/* Which SET it is that has written this: a number that is twice the SET's, or one less. */
static long set_of(const question_t& asked)
{
    int32_t written = 0;
    asked.written.copy(reinterpret_cast<char*>(&written), sizeof(written));
    return (written + 1) / 2;
}

static void hang_up(daemon_t* daemon, int next = -1)
{
    close(daemon->fd);
    daemon->fd = next;
    daemon->arrived.clear();
    daemon->asked.clear();
    daemon->unsent.clear();
}

static void go(daemon_t* daemon)
{
    hang_up(daemon);
    close(daemon->listener);
    unlink(daemon->path.c_str());
    daemon->listener = -1;
}

static void come(daemon_t* daemon)
{
    daemon->listener = unix_socket(daemon->path, true);
    FUZZ_REQUIRE(listen(daemon->listener, 0) == 0);
    FUZZ_REQUIRE(fcntl(daemon->listener, F_SETFL, O_NONBLOCK) == 0);
}

static void listen_to_agent(daemon_t* daemon)
{
    const int fd = accept4(daemon->listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
        hang_up(daemon, fd);
    }
    char bytes[1024];
    for (ssize_t n = 0; (n = recv(daemon->fd, bytes, sizeof(bytes), 0)) > 0;) {
        daemon->arrived.append(bytes, static_cast<size_t>(n));
    }
    for (question_t asked; take_question(&daemon->arrived, &asked);) {
        daemon->asked.push_back(asked);
        if (asked.set) {
            codes[set_of(asked)] = UNANSWERED;
        }
    }
}

static void send_bytes(daemon_t* daemon, size_t count)
{
    const std::string bytes = daemon->unsent.substr(0, count);
    daemon->unsent.erase(0, count);
    if (!bytes.empty()) {
        send(daemon->fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

static void answer(daemon_t* daemon, int8_t code, size_t count)
{
    if (!daemon->asked.empty()) {
        const question_t asked = daemon->asked.front();
        daemon->asked.pop_front();
        daemon->unsent += answer_of(daemon, asked, code);
        if (asked.set) {
            codes[set_of(asked)] = code;
        }
    }
    send_bytes(daemon, count);
}

/* Anything may come twice, unasked, or name another cell. */
static void lie(daemon_t* daemon, uint32_t how)
{
    question_t other = {how % 2 != 0, how / 2 % 12, how / 24, 1, ""};
    if (how < 128 && !daemon->asked.empty()) {
        other = daemon->asked.front();
    }
    daemon->unsent += answer_of(daemon, other, 0);
    send_bytes(daemon, daemon->unsent.size());
}

static uint32_t next_byte()
{
    const uint32_t byte = input.empty() ? 0 : static_cast<uint8_t>(input.back());
    input.remove_suffix(input.empty() ? 0 : 1);
    return byte;
}

/* What one of the daemons does next; how long it then takes until anything else happens. */
static int64_t daemon_acts()
{
    constexpr int64_t PAUSES[] = {1,          100,    1000,       100000,
                                  SECOND / 4, SECOND, 5 * SECOND, 10 * SECOND};
    const uint32_t what = next_byte();
    daemon_t* daemon = &daemons[what % std::size(daemons)];
    switch (what / std::size(daemons) % 16) {
    case 0:
        return PAUSES[next_byte() % std::size(PAUSES)];
    case 1:
        answer(daemon, 0, next_byte());
        break;
    case 2:
        answer(daemon, -3, SIZE_MAX);
        break;
    case 3:
        send_bytes(daemon, next_byte());
        break;
    case 4:
        if (!daemon->asked.empty()) {
            daemon->asked.pop_front();
        }
        break;
    case 5:
        hang_up(daemon);
        break;
    case 6:
        daemon->listener < 0 ? come(daemon) : go(daemon);
        break;
    case 7: /* a signal tells the agent to end, which it does not here */
        event_base_loopbreak(ctx_local.levent_base);
        break;
    case 8:
        honest ? answer(daemon, 0, SIZE_MAX) : lie(daemon, next_byte());
        break;
    default:
        answer(daemon, 0, SIZE_MAX);
    }
    return 1;
}

static int64_t daemons_act()
{
    std::for_each(std::begin(daemons), std::end(daemons), [](daemon_t& d) { listen_to_agent(&d); });
    if (!input.empty()) {
        return daemon_acts();
    }
    int64_t pause = NEVER;
    for (daemon_t& daemon : daemons) {
        while (ends_well && !(daemon.asked.empty() && daemon.unsent.empty())) {
            answer(&daemon, 0, SIZE_MAX);
            pause = 1;
        }
    }
    return pause;
}

/* ---- where the agent waits ---- */

/* A wait without an end, for what will never come, is a finding. */
template <typename look_t> static int wait_for(int64_t timeout, look_t look)
{
    int ready = look();
    while (ready == 0 && timeout != 0) {
        const int64_t pause = daemons_act();
        ready = look();
        FUZZ_REQUIRE(ready != 0 || std::min(pause, timeout) < NEVER);
        const int64_t passed = ready != 0 ? 0 : std::min(pause, timeout);
        now_us += passed;
        timeout -= timeout == NEVER ? 0 : passed;
    }
    return ready;
}

extern "C" int ppoll(pollfd* fds, nfds_t total, const timespec* timeout, const sigset_t*)
{
    static constexpr timespec AT_ONCE = {};
    return wait_for(timeout->tv_sec * SECOND + timeout->tv_nsec / 1000, [fds, total] {
        return static_cast<int>(syscall(SYS_ppoll, fds, total, &AT_ONCE, nullptr, 0));
    });
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int total, int timeout)
{
    return wait_for(timeout < 0 ? NEVER : int64_t{timeout} * 1000, [epoll, events, total] {
        return static_cast<int>(syscall(SYS_epoll_wait, epoll, events, total, 0));
    });
}

extern "C" int sched_yield() noexcept
{
    if (!running) { /* the fuzzing library looks for leaks */
        return static_cast<int>(syscall(SYS_sched_yield));
    }
    now_us += std::min<int64_t>(daemons_act(), 50);
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock != CLOCK_MONOTONIC && clock != CLOCK_MONOTONIC_COARSE) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    *time = {static_cast<time_t>(now_us / SECOND), static_cast<long>(now_us % SECOND * 1000)};
    return 0;
}

/* ---- managers ---- */

/* The value is that of its cell. */
static void check_value(const netsnmp_variable_list* var)
{
    const bool gen = std::equal(GEN_ROOT.begin(), GEN_ROOT.end(), var->name);
    const bool fault = std::equal(FAULT_ROOT.begin(), FAULT_ROOT.end(), var->name);
    if ((!gen && !fault) || (var->type != ASN_INTEGER && var->type != ASN_OCTET_STR)) {
        return;
    }
    const oid* arcs = var->name + GEN_ROOT.size(); /* column, row, slot */
    const uint32_t card_var = gen ? GEN_VARS[arcs[0] - 1] : FAULT_VARS[arcs[0] - 1];
    if (card_var == 0) {
        return;
    }
    const auto index =
        static_cast<uint32_t>(gen ? arcs[1] - 1 : (arcs[1] - 1) << 8U | (arcs[2] - 1));
    const auto slot = static_cast<uint32_t>(arcs[gen ? 2 : 3]);
    char value[JSONMIB_CELL_MAX] = {};
    memcpy(value, var->val.string, std::min(var->val_len, sizeof(value)));
    if (var->type == ASN_INTEGER) {
        const auto number = static_cast<int32_t>(*var->val.integer);
        memcpy(value, &number, sizeof(number));
        const bool shifted = value[0] != truth(slot, card_var, index, 0);
        value[0] = static_cast<char>(value[0] - (shifted ? 1 : 0)); /* no byte of it is 0 or 255 */
    }
    for (size_t i = 0; i < (var->type == ASN_INTEGER ? sizeof(int32_t) : var->val_len); i++) {
        FUZZ_REQUIRE(value[i] == truth(slot, card_var, index, i));
    }
}

/* Each PDU has its answer within 10 s, but for the time that others waited in place. */
static void collect()
{
    outstanding.remove_if([](const outstanding_t& sent) {
        const netsnmp_pdu* answer = sent.request.answer.get();
        if (answer == nullptr) {
            return false;
        }
        FUZZ_REQUIRE(now_us - sent.since - (blocked_us - sent.blocked) <= 10 * SECOND + SECOND / 2);
        const netsnmp_variable_list* var = answer->variables;
        for (const name_t& end : sent.ends) {
            const bool within = end.empty() || snmp_oid_compare(var->name, var->name_length,
                                                                end.data(), end.size()) < 0;
            if (honest && answer->errstat == SNMP_ERR_NOERROR && within) {
                check_value(var);
            }
            var = var->next_variable;
        }
        return true;
    });
}

static name_t read_name(name_t root)
{
    for (uint32_t arcs = fuzz_number(&input) % 6; arcs > 0; arcs--) {
        root.push_back(fuzz_number(&input));
    }
    return root;
}

/* A GET, or a GETNEXT with the range's end and the other marks that a master gives it; a repeated
 * request is one of the same transaction. */
static void ask(const name_t& board)
{
    static long transaction;
    const name_t* const roots[] = {&GEN_ROOT, &FAULT_ROOT, &board};
    const uint32_t how = fuzz_number(&input);
    const bool next = how % 2 != 0;
    netsnmp_pdu* pdu = snmp_pdu_create(next ? SNMP_MSG_GETNEXT : SNMP_MSG_GET);
    transaction = how / 32 % 4 == 1 ? transaction : snmp_get_next_transid();
    pdu->transid = transaction;
    outstanding_t& sent = outstanding.emplace_back();
    sent.since = now_us;
    sent.blocked = blocked_us;
    for (uint32_t cells = how / 2 % 4 + 1; cells > 0; cells--) {
        const name_t& root = *roots[fuzz_number(&input) % std::size(roots)];
        const name_t name = read_name(root);
        name_t end;
        if (how / 8 % 2 != 0) {
            end = root;
            end.back()++;
        }
        const name_t& marked_end = end.empty() ? name_t{0, 0} : end;
        const u_char type = !next               ? ASN_NULL
                            : how / 16 % 2 != 0 ? ASN_PRIV_INCL_RANGE
                                                : ASN_PRIV_EXCL_RANGE;
        snmp_pdu_add_variable(pdu, name.data(), name.size(), type,
                              next ? marked_end.data() : nullptr,
                              next ? marked_end.size() * sizeof(oid) : 0);
        sent.ends.push_back(next ? end : name_t());
    }
    fuzz_send(pdu, &sent.request);
}

/* ---- what waits in place ---- */

static void change_registry(tpg_context_t* ctx, uint32_t what)
{
    static const std::string document = fuzz_seed("document/columns.json");
    tpg_jsonmib_register_info_t* card = &ctx->jsonmib_reg_info[CARD_SLOT - 1];
    ctx->jsonmib_later.loop_busy = true;
    if (what % 8 == 0) {
        jsonmib_tomb_sweep(ctx);
    } else if (what % 8 == 1) {
        jsonmib_queue_disconnect(ctx, what % 3 + 1);
    } else if (what % 8 == 2) {
        jsonmib_queue_card_came(ctx, what % 3 + 1);
    } else if (card->slot_ref_mask != 0) {
        jsonmib_release(ctx, card);
        *card = {};
    } else {
        card->libmib_reginfo.slot_no = CARD_SLOT;
        set_text(card->libmib_reginfo.prod_family, "family");
        card->slot_ref_mask = 3U << CARD_SLOT;
        card->actual_reginfo = card;
        FUZZ_REQUIRE(jsonmib_proc_registration(ctx, document.data(), document.size(), card) == 0);
    }
    ctx->jsonmib_later.loop_busy = false;
}

/* A SET of numbers or texts; each cell's is twice that of the SET. */
struct set_t {
    std::vector<name_t> cells;
    bool text;
    long first;
};

static long set_phase(tpg_context_t* ctx, int command, const set_t& set)
{
    netsnmp_pdu* pdu = snmp_pdu_create(command);
    pdu->transid = set.first;
    long number = 2 * set.first;
    for (const name_t& name : set.cells) {
        snmp_pdu_add_variable(pdu, name.data(), name.size(), set.text ? ASN_OCTET_STR : ASN_INTEGER,
                              &number, set.text ? sizeof(int32_t) : sizeof(number));
        number += 2;
    }
    fuzz_request_t request;
    fuzz_send(pdu, &request);
    while (request.answer == nullptr) {
        fuzz_turn(ctx, EVLOOP_ONCE);
    }
    return request.answer->errstat;
}

/* What is confirmed has been confirmed by the card. */
static void write(tpg_context_t* ctx, const name_t& board)
{
    const uint32_t how = fuzz_number(&input);
    const name_t& root = how % 8 == 0 ? board : how % 8 == 1 ? FAULT_ROOT : GEN_ROOT;
    set_t set = {{read_name(root)}, how / 16 % 2 != 0, sets + 1};
    if (how / 8 % 2 != 0) {
        set.cells.push_back(read_name(root));
    }
    sets += static_cast<long>(set.cells.size());
    for (const int phase : {SNMP_MSG_INTERNAL_SET_RESERVE1, SNMP_MSG_INTERNAL_SET_RESERVE2,
                            SNMP_MSG_INTERNAL_SET_ACTION, SNMP_MSG_INTERNAL_SET_COMMIT}) {
        const bool acts = phase == SNMP_MSG_INTERNAL_SET_ACTION;
        if (set_phase(ctx, phase, set) != SNMP_ERR_NOERROR) {
            set_phase(ctx, acts ? SNMP_MSG_INTERNAL_SET_UNDO : SNMP_MSG_INTERNAL_SET_FREE, set);
            return;
        }
        if (acts && how / 32 % 2 != 0) {
            change_registry(ctx, fuzz_number(&input));
        }
    }
    for (long number = set.first; number <= sets && honest && how % 8 > 1; number++) {
        FUZZ_REQUIRE(!codes.contains(number) || codes.at(number) == 0);
    }
}

static void step(tpg_context_t* ctx, const name_t& board)
{
    const int64_t begin = now_us;
    switch (fuzz_number(&input) % 8) {
    case 0:
        write(ctx, board);
        blocked_us += now_us - begin;
        break;
    case 1:
        change_registry(ctx, fuzz_number(&input));
        break;
    case 3:
    case 4:
        fuzz_turn(ctx, outstanding.empty() ? EVLOOP_NONBLOCK : EVLOOP_ONCE);
        break;
    default:
        ask(board);
    }
    collect();
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    constexpr int STEPS_MAX = 64;
    static const bool registered = (tpg_legacymib_kx_init(ctx), true);
    (void)registered;
    oid place[MAX_OID_LEN];
    const name_t board(place, place + tpg_legacymib_kx_oid(ctx, {}, place));
    input = in;
    running = true;
    const uint32_t manners = fuzz_number(&input);
    echoes = manners % 2 == 0;
    types_tell = manners / 2 % 2 == 0;
    honest = manners / 4 % 4 != 0;
    ends_well = manners / 16 % 2 == 0;
    /* With debug texts each row that is gone past takes its time. */
    ctx->jsonmib_later.skip_unreadable = manners / 32 % 2 != 0 && snmp_get_do_debugging() == 0;
    codes.clear();
    for (daemon_t& daemon : daemons) {
        daemon.path = daemon_path(static_cast<int>(&daemon - daemons) + 1);
        go(&daemon);
        come(&daemon);
    }
    change_registry(ctx, 3); /* a card comes */
    for (int steps = 0; steps < STEPS_MAX && !input.empty(); steps++) {
        step(ctx, board);
    }
    while (!outstanding.empty()) {
        fuzz_turn(ctx, EVLOOP_ONCE);
        collect();
    }
    FUZZ_REQUIRE(!jsonmib_queue_busy(ctx));
    running = false;
}
