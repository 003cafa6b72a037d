/* The SNMP library's descriptors and timer on the event loop. */

#include "tpg_main_levent.h"

#include "tpg_file.h"
#include "tpg_jsonmib_cell.h"
#include "tpg_log.h"
#include "tpg_snmp.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <event2/util.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>

static int keep_wanted(tpg_context_t*, int, fd_set*);
static int add_unwatched(tpg_context_t*, int, const fd_set*);
static void watch(tpg_context_t*, int);
static void readable_cb(int, short, void*);
static tpg_lev_snmpfd_t* next_ready(const tpg_context_t*);
static void read_pipes(const tpg_context_t*, int);
static void resume(tpg_lev_snmpfd_t*);
static bool is_pipe(tpg_context_t*, int);
static void arm_timer(tpg_context_t*, int, const timeval*);
static void read_session(int);
static int next_pipe(const tpg_context_t*, int);
static void set_tcp_option(int fd, int option);
static void acknowledge(tpg_context_t*);
static int session_started(int, int, void*, void*);

void levent_snmp_update(tpg_context_t* ctx)
{
    static int total = 0; /* descriptors watched after the last call */
    int numfds = 0;
    int block = 1;
    fd_set wanted;
    FD_ZERO(&wanted);
    timeval timeout = {};
    snmp_select_info(&numfds, &wanted, &timeout, &block);

    const int kept = keep_wanted(ctx, numfds, &wanted);
    const int added = add_unwatched(ctx, numfds, &wanted);
    if (kept + added != total || ctx->snmp_fds_dropped > 0) {
        TPG_LOG_AT(ctx, tpg_log_level::debug, tpg_log_end::open,
                   "added %d events, removed %d events, total of %d events", added,
                   ctx->snmp_fds_dropped, kept + added);
        total = kept + added;
    }
    ctx->snmp_fds_dropped = 0;
    arm_timer(ctx, block, &timeout);
}

static void unwatch(tpg_lev_snmpfd_t* entry)
{
    entry->ctx->snmp_fds_dropped++;
    event_free(entry->ev);
    list_del_init(&entry->ev_node);
    free(entry);
}

/* Drops the entries that are not in the set. The others are kept, counted in the result, and taken
 * out of the set. */
static int keep_wanted(tpg_context_t* ctx, int numfds, fd_set* wanted)
{
    int kept = 0;
    list_head* next = nullptr;
    for (list_head* node = ctx->lev_snmp_fd_list.next; node != &ctx->lev_snmp_fd_list;
         node = next) {
        next = node->next;
        tpg_lev_snmpfd_t* entry = list_entry(node, tpg_lev_snmpfd_t, ev_node);
        const int fd = event_get_fd(entry->ev);
        if (fd < numfds && FD_ISSET(fd, wanted)) {
            kept++;
            FD_CLR(fd, wanted);
        } else {
            unwatch(entry);
        }
    }
    return kept;
}

static int add_unwatched(tpg_context_t* ctx, int numfds, const fd_set* wanted)
{
    int added = 0;
    for (int fd = 0; fd < numfds; fd++) {
        if (FD_ISSET(fd, wanted)) {
            added++;
            watch(ctx, fd);
        }
    }
    return added;
}

static bool is_pipe(tpg_context_t* ctx, int fd)
{
    mode_t mode = 0;
    if (tpg_file_mode(fd, &mode) != 0) {
        TPG_WARN(ctx, "unable to tell what SNMP FD %d is, %s", fd, strerror(errno));
        return false;
    }
    return S_ISFIFO(mode);
}

/* A descriptor that cannot be watched is tried again at the next update. */
static void watch(tpg_context_t* ctx, int fd)
{
    auto* entry = static_cast<tpg_lev_snmpfd_t*>(calloc(1, sizeof(tpg_lev_snmpfd_t)));
    if (entry == nullptr) {
        TPG_ERROR(ctx, "unable to allocate memory for new SNMP event, %s", strerror(errno));
        return;
    }
    entry->ctx = ctx;
    entry->pipe = is_pipe(ctx, fd);
    evutil_make_socket_nonblocking(fd);
    if (!entry->pipe) {
        /* A registration or trap behind an answer would wait for the answer's acknowledgement. */
        set_tcp_option(fd, TCP_NODELAY);
    }
    entry->ev = event_new(ctx->levent_base, fd, EV_READ | EV_PERSIST, readable_cb, entry);
    if (entry->ev == nullptr) {
        TPG_ERROR(ctx, "unable to allocate a new SNMP event for FD %d", fd);
        free(entry);
        return;
    }
    if (event_add(entry->ev, nullptr) == -1) {
        TPG_ERROR(ctx, "unable to schedule new SNMP event for FD %d", fd);
        event_free(entry->ev);
        free(entry);
        return;
    }
    list_add_tail(&entry->ev_node, &ctx->lev_snmp_fd_list);
}

/*
 * What the library waits for is nearly always the same moment as before, and
 * setting the loop's timer costs much more than seeing that: it is set anew when
 * the moment has come nearer. Running out too early does no harm.
 */
static void arm_timer(tpg_context_t* ctx, int block, const timeval* timeout)
{
    timeval at = {};
    if (block == 0) {
        netsnmp_get_monotonic_clock(&at);
        evutil_timeradd(&at, timeout, &at);
        if (evutil_timerisset(&ctx->snmp_timer_at) &&
            !evutil_timercmp(&at, &ctx->snmp_timer_at, <)) {
            return;
        }
    }
    if (event_add(ctx->lev_snmp_timeout, block != 0 ? nullptr : timeout) == -1) {
        TPG_LOG_AT(ctx, tpg_log_level::warn, tpg_log_end::open,
                   "unable to schedule timeout function for SNMP");
        return;
    }
    ctx->snmp_timer_at = at;
}

static void read_session(int fd)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    snmp_read(&set);
}

/* The lowest descriptor above fd that is a pipe of the library's; -1 when there is none. */
static int next_pipe(const tpg_context_t* ctx, int fd)
{
    int next = -1;
    const list_head* end = &ctx->lev_snmp_fd_list;
    for (list_head* node = end->next; node != end; node = node->next) {
        const tpg_lev_snmpfd_t* entry = list_entry(node, tpg_lev_snmpfd_t, ev_node);
        const int candidate = event_get_fd(entry->ev);
        if (entry->pipe && candidate > fd && (next == -1 || candidate < next)) {
            next = candidate;
        }
    }
    return next;
}

/* Other sockets than TCP do not delay what is sent, and refuse the option: no matter. */
static void set_tcp_option(int fd, int option)
{
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, option, &on, sizeof(on));
}

/*
 * Has TCP acknowledge the master's last message at once. It would wait up to
 * 40 ms for an answer of the agent to send the acknowledgement with; where there
 * is none (to a registration, to a trap), the master's next message would wait
 * as long.
 */
static void acknowledge(tpg_context_t* ctx)
{
    const list_head* end = &ctx->lev_snmp_fd_list;
    for (list_head* node = end->next; node != end; node = node->next) {
        const tpg_lev_snmpfd_t* entry = list_entry(node, tpg_lev_snmpfd_t, ev_node);
        if (!entry->pipe) {
            set_tcp_option(event_get_fd(entry->ev), TCP_QUICKACK);
        }
    }
}

/* ---- the loop's turn ---- */

/*
 * What comes for the library is read behind the turn of the event loop, not in
 * it: a SET, which waits for its card, can then let the loop go on. While one
 * waits, no other request is read.
 */
static void readable_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* entry = static_cast<tpg_lev_snmpfd_t*>(arg);
    entry->ready = true;
    if (entry->ctx->jsonmib_later.waiting > 0) {
        event_del(entry->ev); /* or the loop would report it again and again */
        entry->paused = true;
    }
}

void levent_snmp_timer_ran_out(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    static_cast<tpg_context_t*>(arg)->snmp_timer_due = true;
}

/* An entry that can be read, or null. */
static tpg_lev_snmpfd_t* next_ready(const tpg_context_t* ctx)
{
    const list_head* end = &ctx->lev_snmp_fd_list;
    for (list_head* node = end->next; node != end; node = node->next) {
        tpg_lev_snmpfd_t* entry = list_entry(node, tpg_lev_snmpfd_t, ev_node);
        if (entry->ready) {
            return entry;
        }
    }
    return nullptr;
}

/*
 * A client's message of the same turn may have had the library talk to the
 * master, and read what had been reported; a read that finds nothing would end
 * the session.
 */
static bool may_read(const tpg_context_t* ctx, int fd)
{
    pollfd input = {fd, POLLIN, 0};
    return !ctx->snmp_talked || poll(&input, 1, 0) == 1;
}

/* Reading may end the session and with it any entry. */
void levent_snmp_serve(tpg_context_t* ctx)
{
    for (tpg_lev_snmpfd_t* entry = next_ready(ctx); entry != nullptr; entry = next_ready(ctx)) {
        entry->ready = false;
        if (entry->paused) {
            resume(entry);
        }
        if (may_read(ctx, event_get_fd(entry->ev))) {
            levent_snmp_read(event_get_fd(entry->ev), EV_READ, ctx);
        }
    }
    if (ctx->snmp_timer_due) {
        ctx->snmp_timer_due = false;
        ctx->jsonmib_later.loop_busy = true; /* tombstones may be swept */
        levent_snmp_timeout(-1, EV_TIMEOUT, ctx);
        ctx->jsonmib_later.loop_busy = false;
    }
    if (jsonmib_cells_answer(ctx)) {
        read_pipes(ctx, -1);
        levent_snmp_update(ctx);
    }
    jsonmib_cells_turn_over(ctx);
    ctx->snmp_talked = false;
}

static void resume(tpg_lev_snmpfd_t* entry)
{
    entry->paused = false;
    if (event_add(entry->ev, nullptr) == -1) {
        TPG_ERROR(entry->ctx, "unable to schedule new SNMP event for FD %d",
                  event_get_fd(entry->ev));
    }
}

/*
 * The library hands a request from its AgentX session to its agent, and the
 * answer back, through two pipes. Reading them at once, in that order (that of
 * their making), saves two turns of the event loop a request; an empty one is
 * left at once, since it does not block.
 */
static void read_pipes(const tpg_context_t* ctx, int but)
{
    for (int pipe = next_pipe(ctx, -1); pipe != -1; pipe = next_pipe(ctx, pipe)) {
        if (pipe != but) {
            read_session(pipe);
        }
    }
}

void levent_snmp_read(int fd, short what, void* arg)
{
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    TPG_TRACE(ctx, "snmpread", "%s(): enter", __func__);
    const u_int answers = snmp_get_statistic(STAT_SNMPOUTPKTS);
    read_session(fd);
    read_pipes(ctx, fd);
    if (snmp_get_statistic(STAT_SNMPOUTPKTS) == answers) {
        acknowledge(ctx); /* nothing has been answered yet */
    }
    levent_snmp_update(ctx);
    TPG_TRACE(ctx, "snmpread", "%s(): exit", __func__);
}

void levent_snmp_timeout(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    TPG_TRACE(ctx, "snmptimeout", "%s(): enter", __func__);
    ctx->snmp_timer_at = {};
    snmp_timeout();
    run_alarms();
    levent_snmp_settle(ctx);
    TPG_TRACE(ctx, "snmptimeout", "%s(): exit", __func__);
}

void levent_snmp_settle(tpg_context_t* ctx)
{
    ctx->snmp_talked = true;
    acknowledge(ctx);
    levent_snmp_update(ctx);
}

/*
 * The library closes a session and opens the next within one call; the socket
 * then often has the old one's number, but the kernel no longer watches it.
 */
static int session_started(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)minor;
    (void)server_arg;
    levent_snmp_free_list(static_cast<tpg_context_t*>(client_arg));
    return SNMPERR_SUCCESS;
}

void levent_snmp_free_list(tpg_context_t* ctx)
{
    list_head* next = nullptr;
    for (list_head* node = ctx->lev_snmp_fd_list.next; node != &ctx->lev_snmp_fd_list;
         node = next) {
        next = node->next;
        unwatch(list_entry(node, tpg_lev_snmpfd_t, ev_node));
    }
}

void levent_snmp_watch_sessions(tpg_context_t* ctx)
{
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, session_started,
                           ctx);
}
