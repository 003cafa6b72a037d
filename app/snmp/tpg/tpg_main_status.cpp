/* The agent's state as a JSON document. */

#include "tpg_main_status.h"

#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_jsonmib_table.h"
#include "tpg_snmp.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <poll.h>

static int master_came(int, int, void*, void*);
static int master_went(int, int, void*, void*);
static void add_identity(json_object*, const tpg_libmib_register_info_t*);
static void add_role(json_object*, tpg_context_t*, const tpg_jsonmib_register_info_t*);
static void add_tables(json_object*, const tpg_jsonmib_register_info_t*);
static json_object* daemon_of(tpg_context_t*, uint32_t);
static json_object* last_error_of(const jsonmib_stats_t*);
static json_object* traps_of(const jsonmib_stats_t*);
static bool has_hung_up(const tpg_context_t*, uint32_t);

constexpr const char* DAEMONS[] = {"idle", "connected", "down", "silent"};
constexpr int64_t SECOND_US = 1000000;
constexpr double MILLISECOND_US = 1000;

/* ---- the master ---- */

void tpg_status_begin(tpg_context_t* ctx)
{
    ctx->started = time(nullptr);
    ctx->started_us = jsonmib_now();
    ctx->master_link.since = ctx->started;
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, master_came, ctx);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, master_went, ctx);
}

static int master_came(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)minor;
    (void)server_arg;
    static_cast<tpg_context_t*>(client_arg)->master_link = {true, time(nullptr)};
    return SNMPERR_SUCCESS;
}

/* The library calls this for each failed attempt to open a session as well. */
static int master_went(int major, int minor, void* server_arg, void* client_arg)
{
    (void)major;
    (void)minor;
    (void)server_arg;
    tpg_master_link_t* link = &static_cast<tpg_context_t*>(client_arg)->master_link;
    if (link->connected) {
        *link = {false, time(nullptr)};
    }
    return SNMPERR_SUCCESS;
}

/* ---- values ---- */

/* A date and time of day, UTC, as "2024-05-06T07:08:09Z". */
struct date_text_t {
    char text[sizeof("2024-05-06T07:08:09Z") + 8];
};

static date_text_t date_of(time_t when)
{
    date_text_t date = {};
    tm parts = {};
    if (gmtime_r(&when, &parts) != nullptr) {
        strftime(date.text, sizeof(date.text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    return date;
}

static void add(json_object* object, const char* key, json_object* value)
{
    json_object_object_add(object, key, value);
}

static void add_number(json_object* object, const char* key, uint64_t value)
{
    add(object, key, json_object_new_uint64(value));
}

static void add_date(json_object* object, const char* key, time_t when)
{
    add(object, key, json_object_new_string(date_of(when).text));
}

/* What a card says of itself may be any bytes; those that are no ASCII characters become '?'. */
static void add_text(json_object* object, const char* key, const char* text, size_t size)
{
    char shown[TPG_CMD_MAX] = {};
    const size_t length = strnlen(text, std::min(size, sizeof(shown) - 1));
    std::transform(text, text + length, shown, [](char c) { return c < ' ' || c > '~' ? '?' : c; });
    add(object, key, json_object_new_string(shown));
}

/* Null for a negative time, which is none. */
static void add_ms(json_object* object, const char* key, int64_t time_us)
{
    char text[32];
    const double ms = static_cast<double>(time_us) / MILLISECOND_US;
    snprintf(text, sizeof(text), "%.3f", ms);
    add(object, key, time_us < 0 ? nullptr : json_object_new_double_s(ms, text));
}

/* ---- a slot ---- */

tpg_json_t tpg_status_slot(tpg_context_t* ctx, uint32_t slot_no)
{
    const tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[slot_no - 1];
    if (record->libmib_reginfo.slot_no == 0) {
        return nullptr;
    }
    tpg_json_t slot(json_object_new_object());
    add_number(slot.get(), "slot", slot_no);
    add_identity(slot.get(), &record->libmib_reginfo);
    add_role(slot.get(), ctx, record);
    add_tables(slot.get(), record->actual_reginfo);
    add(slot.get(), "daemon", daemon_of(ctx, slot_no));
    add(slot.get(), "traps", traps_of(&ctx->jsonmib_stats[slot_no - 1]));
    return slot;
}

static void add_identity(json_object* slot, const tpg_libmib_register_info_t* card)
{
    char version[32];
    snprintf(version, sizeof(version), "%u.%u.%u", card->major_rev, card->minor_rev,
             card->build_number);
    add_text(slot, "product", card->prod_string, sizeof(card->prod_string));
    add_text(slot, "family", card->prod_family, sizeof(card->prod_family));
    add_text(slot, "version", version, sizeof(version));
    add_text(slot, "serial", card->board_sn, sizeof(card->board_sn));
}

/* A card whose tables could not be registered has no role; its family's document is its master's.
 */
static void add_role(json_object* slot, tpg_context_t* ctx,
                     const tpg_jsonmib_register_info_t* record)
{
    const tpg_jsonmib_register_info_t* master = record->actual_reginfo;
    const char* source = nullptr;
    const char* role = nullptr;
    uint32_t master_slot = 0;
    if (master != nullptr) {
        role = master == record ? "master" : "reference";
        master_slot = master->libmib_reginfo.slot_no;
    }
    if (master_slot >= 1 && master_slot <= TPG_SLOT_MAX) {
        const jsonmib_source_t known = ctx->jsonmib_stats[master_slot - 1].source;
        source = JSONMIB_SOURCE_NAMES[static_cast<size_t>(known)];
    }
    add(slot, "role", role == nullptr ? nullptr : json_object_new_string(role));
    add(slot, "master_slot", role == nullptr ? nullptr : json_object_new_uint64(master_slot));
    add(slot, "source", source == nullptr ? nullptr : json_object_new_string(source));
}

/* The registration's table, or null when it has been withdrawn. */
static const jsonmib_table_info_t* table_of(const netsnmp_handler_registration* registration)
{
    if (registration == nullptr) {
        return nullptr;
    }
    const netsnmp_mib_handler* handler = registration->handler;
    while (handler != nullptr && handler->data_free != jsonmib_table_free) {
        handler = handler->next;
    }
    return handler == nullptr ? nullptr : static_cast<const jsonmib_table_info_t*>(handler->myvoid);
}

/* Everything about one slot. */
static uint64_t rows_of(const jsonmib_table_info_t* table)
{
    uint64_t rows = 1;
    for (uint32_t i = 0; i < table->index_used; i++) {
        const jsonmib_index_info_t* index = &table->index_info[table->index_pos[i]];
        if ((index->flags & JSONMIB_INDEX_SLOT) != 0) {
            continue;
        }
        const uint64_t values =
            index->range[1] < index->range[0] ? 0 : uint64_t{index->range[1]} - index->range[0] + 1;
        if (__builtin_mul_overflow(rows, values, &rows)) {
            return UINT64_MAX;
        }
    }
    return rows;
}

static void count_tables(netsnmp_handler_registration* const* list, uint32_t total,
                         uint64_t* tables, uint64_t* rows)
{
    for (uint32_t i = 0; list != nullptr && i < total; i++) {
        const jsonmib_table_info_t* table = table_of(list[i]);
        if (table != nullptr) {
            (*tables)++;
            if (__builtin_add_overflow(*rows, rows_of(table), rows)) {
                *rows = UINT64_MAX;
            }
        }
    }
}

static void add_tables(json_object* slot, const tpg_jsonmib_register_info_t* master)
{
    uint64_t tables = 0;
    uint64_t rows = 0;
    if (master != nullptr) {
        count_tables(master->gen_table_reginfo, master->gen_table_reginfo_sum, &tables, &rows);
        count_tables(master->fault_table_reginfo, master->fault_table_reginfo_sum, &tables, &rows);
    }
    add_number(slot, "tables", tables);
    add_number(slot, "rows", rows);
}

static json_object* daemon_of(tpg_context_t* ctx, uint32_t slot_no)
{
    const jsonmib_stats_t* stats = &ctx->jsonmib_stats[slot_no - 1];
    if (stats->daemon == jsonmib_daemon_t::connected && has_hung_up(ctx, slot_no)) {
        jsonmib_stats_connected(ctx, slot_no, false);
    }
    const jsonmib_stats_times_t times = jsonmib_stats_times(ctx, slot_no, jsonmib_now());
    json_object* daemon = json_object_new_object();
    add(daemon, "state", json_object_new_string(DAEMONS[static_cast<size_t>(stats->daemon)]));
    add_date(daemon, "since", stats->daemon_since == 0 ? ctx->started : stats->daemon_since);
    add_number(daemon, "requests", stats->asked);
    add_number(daemon, "failures", stats->failed);
    add_number(daemon, "waiting", jsonmib_queue_waiting(ctx, slot_no));
    add_ms(daemon, "ms_median", times.median);
    add_ms(daemon, "ms_max", times.largest);
    add(daemon, "last_error", last_error_of(stats));
    return daemon;
}

/* True when the daemon has closed an idle connection; nobody else looks at one. */
static bool has_hung_up(const tpg_context_t* ctx, uint32_t slot_no)
{
    pollfd peer = {ctx->jsonmib_ipc_info[slot_no - 1].fd, POLLRDHUP, 0};
    return poll(&peer, 1, 0) == 1 && (peer.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

static json_object* last_error_of(const jsonmib_stats_t* stats)
{
    char text[TPG_CMD_MAX];
    if (stats->failed == 0) {
        return nullptr;
    }
    const date_text_t date = date_of(stats->failed_at);
    const char* when = date.text;
    if (stats->failed_result == JSONMIB_CTRL_TRANSPORT) {
        snprintf(text, sizeof(text), "%s %s", when, stats->failed_why);
    } else if (stats->failed_result == JSONMIB_CTRL_NOMEM) {
        snprintf(text, sizeof(text), "%s out of memory", when);
    } else {
        snprintf(text, sizeof(text), "%s the daemon answered with error %d", when,
                 stats->failed_result);
    }
    return json_object_new_string(text);
}

static json_object* traps_of(const jsonmib_stats_t* stats)
{
    json_object* traps = json_object_new_object();
    add_number(traps, "sent", stats->traps_sent);
    add_number(traps, "kept_back", stats->traps_kept_back);
    return traps;
}

/* ---- the whole ---- */

tpg_json_t tpg_status_document(tpg_context_t* ctx)
{
    tpg_json_t status(json_object_new_object());
    add(status.get(), "board",
        json_object_new_string(ctx->board_name == nullptr ? "" : ctx->board_name));
    add(status.get(), "version", json_object_new_string(TPG_VERSION));
    add_number(status.get(), "uptime_s",
               static_cast<uint64_t>((jsonmib_now() - ctx->started_us) / SECOND_US));
    add_number(status.get(), "log_level", ctx->log_level);
    json_object* master = json_object_new_object();
    add(master, "connected", json_object_new_boolean(ctx->master_link.connected ? 1 : 0));
    add_date(master, "since", ctx->master_link.since);
    add(status.get(), "master", master);
    json_object* slots = json_object_new_array();
    for (uint32_t slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        tpg_json_t slot = tpg_status_slot(ctx, slot_no);
        if (slot != nullptr) {
            json_object_array_add(slots, slot.release());
        }
    }
    add(status.get(), "slots", slots);
    return status;
}
