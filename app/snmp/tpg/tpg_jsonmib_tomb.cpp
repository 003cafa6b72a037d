/*
 * Tables into the SNMP library and out of it, by way of tombstones.
 *
 * All functions called here are the library's public ones, but none of those
 * joins what is left of a root when a table goes. For that this file changes the
 * library's tree of registrations itself, and relies on how it is kept:
 *
 * - The tree is one list of subtrees, next and prev, in the order of their
 *   starts; where several begin at one place they hang on the first by children,
 *   the longest name first, and prev is the same for all of them.
 * - A subtree owns name_a, start_a, end_a, label_a and its registration; oid_off
 *   is how far its start is the same as that of the one before.
 * - The roots 0, 1 and 2 are registered with netsnmp_null_handler, and are
 *   split, each piece with a registration of its own, but never joined.
 * - Registering puts one handler in front of a chain, which may be replaced
 *   behind it.
 * - The cache of look-ups holds subtrees, and is empty while its size is 0.
 *
 * The build refuses versions of the library on which this was not shown.
 */
#include "tpg_jsonmib_tomb.h"

#include "tpg_jsonmib_cell.h"
#include "tpg_log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

static netsnmp_handler_registration* take(jsonmib_tombs_t*, uint32_t);
static void bury(tpg_context_t*, uint32_t);
static netsnmp_handler_registration* revive(netsnmp_handler_registration*,
                                            netsnmp_handler_registration*);
static void rename(netsnmp_handler_registration*, netsnmp_handler_registration*);
static void replace_chain(netsnmp_handler_registration*, netsnmp_mib_handler*);
static netsnmp_subtree* tree_of(const netsnmp_handler_registration*);
static bool stands_alone(const netsnmp_handler_registration*);
static void unregister(tpg_context_t*, netsnmp_handler_registration*);
static void join_roots(const oid*, const oid*, size_t);
static bool is_root(const netsnmp_subtree*);
static void absorb_next(netsnmp_subtree*);
static void start_quiet_time(tpg_context_t*);
static void sweep_alarm(unsigned int, void*);
static uint32_t requests_served();
static int answer_nothing(netsnmp_mib_handler*, netsnmp_handler_registration*,
                          netsnmp_agent_request_info*, netsnmp_request_info*);

constexpr char HANDLER_NAME[] = "tombstone";
constexpr size_t ROOT_LEN = 1; /* the roots of all OIDs are registered by the library itself */

/* ---- tables come ---- */

netsnmp_handler_registration* jsonmib_tomb_register(tpg_context_t* ctx,
                                                    netsnmp_handler_registration* registration)
{
    jsonmib_tombs_t* tombs = &ctx->jsonmib_tombs;
    jsonmib_cells_settle(ctx);
    for (uint32_t i = tombs->total; i-- > 0;) {
        const netsnmp_handler_registration* tomb = tombs->registration[i];
        if (snmp_oidtree_compare(tomb->rootoid, tomb->rootoid_len, registration->rootoid,
                                 registration->rootoid_len) != 0) {
            continue;
        }
        if (tomb->rootoid_len == registration->rootoid_len) {
            return revive(take(tombs, i), registration);
        }
        bury(ctx, i);
    }
    jsonmib_cells_settle(ctx); /* talking to the master brings requests */
    /* The library has released a registration that it could not make, with all that hangs on it. */
    return netsnmp_register_handler(registration) == MIB_REGISTERED_OK ? registration : nullptr;
}

/* The master is told nothing: for it, the table never went. */
static netsnmp_handler_registration* revive(netsnmp_handler_registration* tomb,
                                            netsnmp_handler_registration* registration)
{
    replace_chain(tomb, registration->handler);
    registration->handler = nullptr;
    rename(tomb, registration);
    netsnmp_handler_registration_free(registration);
    return tomb;
}

/* The library's log names the tables of a duplicate; without memory, by the old name. */
static void rename(netsnmp_handler_registration* tomb, netsnmp_handler_registration* registration)
{
    std::swap(tomb->handlerName, registration->handlerName);
    char* label = strcmp(tomb->handlerName, registration->handlerName) == 0
                      ? nullptr
                      : strdup(tomb->handlerName);
    if (label != nullptr) {
        std::swap(tree_of(tomb)->label_a, label);
        free(label);
    }
}

/* ---- tables go ---- */

void jsonmib_tomb_withdraw(tpg_context_t* ctx, netsnmp_handler_registration* registration)
{
    jsonmib_tombs_t* tombs = &ctx->jsonmib_tombs;
    jsonmib_cells_settle(ctx);
    if (!stands_alone(registration)) {
        unregister(ctx, registration);
        return;
    }
    netsnmp_mib_handler* handler = netsnmp_create_handler(HANDLER_NAME, answer_nothing);
    if (handler == nullptr) {
        TPG_WARN(ctx, "no memory for a tombstone, table %s goes at once",
                 registration->handlerName);
        unregister(ctx, registration);
        return;
    }
    replace_chain(registration, handler);
    if (tombs->total == JSONMIB_TOMB_MAX) {
        bury(ctx, 0);
    }
    tombs->registration[tombs->total++] = registration;
    start_quiet_time(ctx);
}

/*
 * True when no other table is inside or around this one, and none has cut its
 * OID in pieces: an empty table would hide what another one serves there.
 */
static bool stands_alone(const netsnmp_handler_registration* registration)
{
    const size_t len = registration->rootoid_len;
    const netsnmp_subtree* tree = tree_of(registration);
    return tree != nullptr && tree->reginfo == registration && tree->end_len == len &&
           tree->end_a[len - 1] == registration->rootoid[len - 1] + 1 &&
           (tree->children == nullptr || tree->children->namelen == ROOT_LEN);
}

static netsnmp_subtree* tree_of(const netsnmp_handler_registration* registration)
{
    return netsnmp_subtree_find(registration->rootoid, registration->rootoid_len, nullptr, nullptr);
}

/* The front handler stays: the library put it there when it made the registration. */
static void replace_chain(netsnmp_handler_registration* registration, netsnmp_mib_handler* chain)
{
    netsnmp_mib_handler* front = registration->handler;
    netsnmp_handler_free(front->next);
    front->next = chain;
    chain->prev = front;
}

/* ---- out of the library ---- */

/*
 * A table cuts the root that it lies in into pieces, which the library leaves so
 * when the table goes: without the joining each new OID would leave two of them
 * for ever, and every search would be longer.
 */
static void unregister(tpg_context_t* ctx, netsnmp_handler_registration* registration)
{
    oid start[MAX_OID_LEN];
    oid end[MAX_OID_LEN];
    const size_t len = registration->rootoid_len;
    std::copy_n(registration->rootoid, len, start);
    std::copy_n(registration->rootoid, len, end);
    end[len - 1]++;
    jsonmib_cells_settle(ctx);
    netsnmp_unregister_handler(registration); /* has emptied the cache of searches */
    jsonmib_cells_settle(ctx);
    const int cache = netsnmp_get_lookup_cache_size();
    netsnmp_set_lookup_cache_size(0);
    join_roots(start, end, len);
    netsnmp_set_lookup_cache_size(cache);
}

/* Joins the pieces of a root that meet at start or end, or between them. */
static void join_roots(const oid* start, const oid* end, size_t len)
{
    netsnmp_subtree* tree = netsnmp_subtree_find_prev(start, len, nullptr, nullptr);
    if (tree != nullptr && tree->prev != nullptr) {
        tree = tree->prev;
    }
    while (tree != nullptr && tree->next != nullptr &&
           snmp_oid_compare(tree->next->start_a, tree->next->start_len, end, len) <= 0) {
        if (is_root(tree) && is_root(tree->next) && tree->name_a[0] == tree->next->name_a[0]) {
            absorb_next(tree);
        } else {
            tree = tree->next;
        }
    }
}

/* True for a piece of a root on which nothing else is registered. */
static bool is_root(const netsnmp_subtree* tree)
{
    return tree->namelen == ROOT_LEN && tree->children == nullptr &&
           tree->reginfo->handler->access_method == netsnmp_null_handler;
}

/* Each tree knows how far its OID is the same as that of the one before, which changes. */
static void absorb_next(netsnmp_subtree* tree)
{
    netsnmp_subtree* piece = tree->next;
    std::swap(tree->end_a, piece->end_a);
    std::swap(tree->end_len, piece->end_len);
    tree->next = piece->next;
    for (netsnmp_subtree* next = tree->next; next != nullptr; next = next->children) {
        next->prev = tree;
        netsnmp_oid_compare_ll(tree->start_a, tree->start_len, next->start_a, next->start_len,
                               &next->oid_off);
    }
    netsnmp_handler_registration_free(piece->reginfo);
    free(piece->name_a);
    free(piece->start_a);
    free(piece->end_a);
    free(piece->label_a);
    free(piece);
}

/* ---- tombstones ---- */

static netsnmp_handler_registration* take(jsonmib_tombs_t* tombs, uint32_t i)
{
    netsnmp_handler_registration** place = &tombs->registration[i];
    netsnmp_handler_registration* registration = *place;
    std::copy(place + 1, tombs->registration + tombs->total, place);
    tombs->total--;
    return registration;
}

static void bury(tpg_context_t* ctx, uint32_t i)
{
    unregister(ctx, take(&ctx->jsonmib_tombs, i));
}

/*
 * What a manager is told where nothing is registered. The later phases of a SET
 * are those of one that began when the table was there.
 */
static int answer_nothing(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                          netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    (void)handler;
    (void)reginfo;
    switch (reqinfo->mode) {
    case MODE_GET:
        netsnmp_request_set_error_all(requests, SNMP_NOSUCHOBJECT);
        break;
    case MODE_SET_RESERVE1:
    case MODE_SET_RESERVE2:
    case MODE_SET_ACTION:
        netsnmp_request_set_error_all(requests, SNMP_ERR_NOTWRITABLE);
        break;
    default:
        break;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- sweep ---- */

static void start_quiet_time(tpg_context_t* ctx)
{
    jsonmib_tombs_t* tombs = &ctx->jsonmib_tombs;
    tombs->requests = requests_served();
    if (snmp_alarm_reset(tombs->alarm) == 0) {
        return;
    }
    tombs->alarm = snmp_alarm_register(JSONMIB_TOMB_QUIET, SA_REPEAT, sweep_alarm, ctx);
    if (tombs->alarm == 0) {
        TPG_WARN(ctx, "no memory for an alarm, tombstones stay until the next withdrawal");
    }
}

static void sweep_alarm(unsigned int clientreg, void* clientarg)
{
    (void)clientreg;
    jsonmib_tomb_sweep(static_cast<tpg_context_t*>(clientarg));
}

/* Requests are served also while the library waits for the master's word on an unregistration. */
void jsonmib_tomb_sweep(tpg_context_t* ctx)
{
    jsonmib_tombs_t* tombs = &ctx->jsonmib_tombs;
    while (tombs->total > 0 && requests_served() == tombs->requests) {
        bury(ctx, 0);
    }
    tombs->requests = requests_served();
    if (tombs->total == 0) {
        snmp_alarm_unregister(tombs->alarm);
        tombs->alarm = 0;
    }
}

static uint32_t requests_served()
{
    return snmp_get_statistic(STAT_SNMPINPKTS);
}
