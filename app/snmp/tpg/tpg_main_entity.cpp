/* ENTITY-MIB: chassis, slots and cards as rows of the standard inventory. */

#include "tpg_main_entity.h"

#include "tpg_log.h"
#include "tpg_snmp.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <event2/event.h>
#include <iterator>
#include <strings.h>

static int register_table(tpg_context_t*);
static int register_last_change(tpg_context_t*);
static int add_row(tpg_context_t*, tpg_entity_row_t*);
static void remove_row(tpg_context_t*, tpg_entity_row_t*);
static void describe_chassis(const tpg_context_t*, tpg_entity_row_t*);
static void describe_slot(uint32_t, tpg_entity_row_t*);
static bool describe_card(const tpg_context_t*, uint32_t, tpg_entity_row_t*);
static void tell_managers(tpg_context_t*);
static void send_config_change(int, short, void*);
static Netsnmp_Node_Handler table_handler;
static Netsnmp_Node_Handler last_change_handler;
static void serve_column(const tpg_entity_row_t*, unsigned, netsnmp_variable_list*);

constexpr oid TABLE_OID[] = {1, 3, 6, 1, 2, 1, 47, 1, 1, 1};
constexpr oid LAST_CHANGE_OID[] = {1, 3, 6, 1, 2, 1, 47, 1, 4, 1};
constexpr oid CONFIG_CHANGE_OID[] = {1, 3, 6, 1, 2, 1, 47, 2, 0, 1};
constexpr oid TRAP_OID[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}; /* snmpTrapOID.0 */

/* Least time between two notifications. */
constexpr timeval CHANGE_INTERVAL = {5, 0};

/* Indexes of the entities. */
constexpr long CHASSIS_INDEX = 1;
constexpr long SLOT_INDEX = 1;   /* and the slot's number */
constexpr long CARD_INDEX = 100; /* and the slot's number */

/* PhysicalClass and TruthValue */
constexpr long CLASS_CHASSIS = 3;
constexpr long CLASS_CONTAINER = 5;
constexpr long CLASS_MODULE = 9;
constexpr long TRUE_VALUE = 1;
constexpr long FALSE_VALUE = 2;

/* Columns of entPhysicalTable; the first is its index, which is not accessible. */
enum column : unsigned {
    DESCR = 2,
    VENDOR_TYPE,
    CONTAINED_IN,
    CLASS,
    PARENT_REL_POS,
    NAME,
    HARDWARE_REV,
    FIRMWARE_REV,
    SOFTWARE_REV,
    SERIAL_NUM,
    MFG_NAME,
    MODEL_NAME,
    ALIAS,
    ASSET_ID,
    IS_FRU,
    MFG_DATE,
    URIS,
    UUID,
};

/* ---- configuration ---- */

static void read_entity_mib(const char* token, char* line)
{
    const bool yes = strcasecmp(line, "yes") == 0;
    if (!yes && strcasecmp(line, "no") != 0) {
        TPG_WARN(&ctx_local, "%s is \"yes\" or \"no\", not \"%s\"", token, line);
        return;
    }
    ctx_local.entity.wanted = yes;
}

void tpg_entity_read_config(const char* name)
{
    register_config_handler(name, "entityMib", read_entity_mib, nullptr, "yes|no");
}

/* ---- registration ---- */

void tpg_entity_init(tpg_context_t* ctx)
{
    tpg_entity_t* entity = &ctx->entity;
    if (!entity->wanted) {
        return;
    }
    entity->timer = event_new(ctx->levent_base, -1, 0, send_config_change, ctx);
    describe_chassis(ctx, &entity->chassis);
    bool complete =
        entity->timer != nullptr && register_table(ctx) == 0 && add_row(ctx, &entity->chassis) == 0;
    for (uint32_t slot = 1; complete && slot <= TPG_SLOT_MAX; slot++) {
        describe_slot(slot, &entity->slots[slot - 1]);
        complete = add_row(ctx, &entity->slots[slot - 1]) == 0;
    }
    if (!complete || register_last_change(ctx) != 0) {
        TPG_ERROR(ctx, "no memory for the inventory of cards");
        return;
    }
    tpg_entity_update(ctx);
}

static int register_table(tpg_context_t* ctx)
{
    static char table_name[] = "entPhysicalTable";
    netsnmp_tdata* table = netsnmp_tdata_create_table(table_name, 0);
    auto* columns = static_cast<netsnmp_table_registration_info*>(
        calloc(1, sizeof(netsnmp_table_registration_info)));
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        table_name, table_handler, TABLE_OID, std::size(TABLE_OID), HANDLER_CAN_RONLY);
    if (table == nullptr || columns == nullptr || registration == nullptr) {
        netsnmp_handler_registration_free(registration);
        free(columns);
        netsnmp_tdata_delete_table(table);
        return -1;
    }
    netsnmp_table_helper_add_indexes(columns, ASN_INTEGER, 0);
    columns->min_column = DESCR;
    columns->max_column = UUID;
    if (netsnmp_tdata_register(registration, table, columns) != MIB_REGISTERED_OK) {
        return -1;
    }
    ctx->entity.table = table;
    return 0;
}

static int register_last_change(tpg_context_t* ctx)
{
    (void)ctx;
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        "entLastChangeTime", last_change_handler, LAST_CHANGE_OID, std::size(LAST_CHANGE_OID),
        HANDLER_CAN_RONLY);
    return registration != nullptr && netsnmp_register_scalar(registration) == MIB_REGISTERED_OK
               ? 0
               : -1;
}

/* ---- entities ---- */

static void describe_chassis(const tpg_context_t* ctx, tpg_entity_row_t* row)
{
    *row = {};
    row->index = CHASSIS_INDEX;
    row->kind = CLASS_CHASSIS;
    row->position = -1; /* nothing contains it */
    snprintf(row->descr, sizeof(row->descr), "chassis with %u slots", TPG_SLOT_MAX);
    snprintf(row->name, sizeof(row->name), "chassis");
    snprintf(row->model, sizeof(row->model), "%s", ctx->board_name);
}

static void describe_slot(uint32_t slot, tpg_entity_row_t* row)
{
    *row = {};
    row->index = SLOT_INDEX + slot;
    row->kind = CLASS_CONTAINER;
    row->contained_in = CHASSIS_INDEX;
    row->position = static_cast<long>(slot);
    snprintf(row->descr, sizeof(row->descr), "slot %u", slot);
    snprintf(row->name, sizeof(row->name), "slot %u", slot);
}

/* False when there is no card in the slot. */
static bool describe_card(const tpg_context_t* ctx, uint32_t slot, tpg_entity_row_t* row)
{
    const tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[slot - 1];
    const tpg_libmib_register_info_t* card = &record->libmib_reginfo;
    *row = {};
    row->index = CARD_INDEX + slot;
    row->kind = CLASS_MODULE;
    row->contained_in = SLOT_INDEX + slot;
    row->position = 1; /* the only one in its slot */
    row->replaceable = true;
    snprintf(row->name, sizeof(row->name), "card %u", slot);
    if (record->actual_reginfo == nullptr) {
        return false;
    }
    snprintf(row->descr, sizeof(row->descr), "%.*s card, family %.*s",
             static_cast<int>(sizeof(card->prod_string)), card->prod_string,
             static_cast<int>(sizeof(card->prod_family)), card->prod_family);
    snprintf(row->software, sizeof(row->software), "%u.%u.%u", card->major_rev, card->minor_rev,
             card->build_number);
    snprintf(row->serial, sizeof(row->serial), "%.*s", static_cast<int>(sizeof(card->board_sn)),
             card->board_sn);
    snprintf(row->model, sizeof(row->model), "%.*s", static_cast<int>(sizeof(card->prod_string)),
             card->prod_string);
    return true;
}

/* 0, or -1 without memory. */
static int add_row(tpg_context_t* ctx, tpg_entity_row_t* row)
{
    netsnmp_tdata_row* entry = netsnmp_tdata_create_row();
    if (entry == nullptr ||
        netsnmp_tdata_row_add_index(entry, ASN_INTEGER, &row->index, sizeof(row->index)) ==
            nullptr ||
        netsnmp_tdata_add_row(ctx->entity.table, entry) != SNMPERR_SUCCESS) {
        netsnmp_tdata_delete_row(entry);
        return -1;
    }
    entry->data = row;
    row->entry = entry;
    return 0;
}

static void remove_row(tpg_context_t* ctx, tpg_entity_row_t* row)
{
    if (row->entry != nullptr) {
        netsnmp_tdata_remove_and_delete_row(ctx->entity.table, row->entry);
    }
    *row = {};
}

/* True when nothing that a manager can see differs. */
static bool same_entity(const tpg_entity_row_t* a, const tpg_entity_row_t* b)
{
    return strcmp(a->descr, b->descr) == 0 && strcmp(a->software, b->software) == 0 &&
           strcmp(a->serial, b->serial) == 0 && strcmp(a->model, b->model) == 0;
}

void tpg_entity_update(tpg_context_t* ctx)
{
    tpg_entity_t* entity = &ctx->entity;
    bool changed = false;
    for (uint32_t slot = 1; entity->table != nullptr && slot <= TPG_SLOT_MAX; slot++) {
        tpg_entity_row_t* row = &entity->cards[slot - 1];
        tpg_entity_row_t now;
        const bool is_there = describe_card(ctx, slot, &now);
        if (is_there == (row->entry != nullptr) && (!is_there || same_entity(row, &now))) {
            continue;
        }
        changed = true;
        remove_row(ctx, row);
        if (is_there) {
            *row = now;
            if (add_row(ctx, row) != 0) {
                TPG_ERROR(ctx, "no memory for slot_no %u in the inventory of cards", slot);
            }
        }
    }
    if (changed) {
        entity->last_change = netsnmp_get_agent_uptime();
        tell_managers(ctx);
    }
}

/* ---- notification ---- */

static void tell_managers(tpg_context_t* ctx)
{
    tpg_entity_t* entity = &ctx->entity;
    if (event_pending(entity->timer, EV_TIMEOUT, nullptr) != 0) {
        entity->untold = true; /* the timer tells it */
        return;
    }
    netsnmp_variable_list trap_oid = {};
    snmp_set_var_objid(&trap_oid, TRAP_OID, std::size(TRAP_OID));
    snmp_set_var_typed_value(&trap_oid, ASN_OBJECT_ID, CONFIG_CHANGE_OID,
                             sizeof(CONFIG_CHANGE_OID));
    send_v2trap(&trap_oid);
    snmp_reset_var_buffers(&trap_oid);
    entity->untold = false;
    if (event_add(entity->timer, &CHANGE_INTERVAL) != 0) {
        TPG_WARN(ctx, "no memory for a timer, inventory changes may be told too often");
    }
}

static void send_config_change(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    if (ctx->entity.untold) {
        tell_managers(ctx);
    }
}

/* ---- requests ---- */

static int table_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                         netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    (void)handler;
    (void)reginfo;
    for (netsnmp_request_info* request = requests; request != nullptr && reqinfo->mode == MODE_GET;
         request = request->next) {
        const auto* row =
            static_cast<const tpg_entity_row_t*>(netsnmp_tdata_extract_entry(request));
        const netsnmp_table_request_info* cell = netsnmp_extract_table_info(request);
        if (request->processed != 0) {
            continue;
        }
        if (row == nullptr || cell == nullptr) {
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
            continue;
        }
        serve_column(row, cell->colnum, request->requestvb);
    }
    return SNMP_ERR_NOERROR;
}

static void serve_text(netsnmp_variable_list* var, const char* text)
{
    snmp_set_var_typed_value(var, ASN_OCTET_STR, text, strlen(text));
}

static void serve_column(const tpg_entity_row_t* row, unsigned column, netsnmp_variable_list* var)
{
    constexpr oid NONE[] = {0, 0};
    constexpr u_char UNKNOWN_DATE[8] = {};
    switch (column) {
    case DESCR:
        return serve_text(var, row->descr);
    case NAME:
        return serve_text(var, row->name);
    case SOFTWARE_REV:
        return serve_text(var, row->software);
    case SERIAL_NUM:
        return serve_text(var, row->serial);
    case MODEL_NAME:
        return serve_text(var, row->model);
    case CONTAINED_IN:
        snmp_set_var_typed_integer(var, ASN_INTEGER, row->contained_in);
        break;
    case CLASS:
        snmp_set_var_typed_integer(var, ASN_INTEGER, row->kind);
        break;
    case PARENT_REL_POS:
        snmp_set_var_typed_integer(var, ASN_INTEGER, row->position);
        break;
    case IS_FRU:
        snmp_set_var_typed_integer(var, ASN_INTEGER, row->replaceable ? TRUE_VALUE : FALSE_VALUE);
        break;
    case VENDOR_TYPE:
        snmp_set_var_typed_value(var, ASN_OBJECT_ID, NONE, sizeof(NONE));
        break;
    case MFG_DATE:
        snmp_set_var_typed_value(var, ASN_OCTET_STR, UNKNOWN_DATE, sizeof(UNKNOWN_DATE));
        break;
    default: /* nobody tells the agent these */
        serve_text(var, "");
        break;
    }
}

static int last_change_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                               netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    (void)handler;
    (void)reginfo;
    if (reqinfo->mode == MODE_GET) {
        snmp_set_var_typed_integer(requests->requestvb, ASN_TIMETICKS,
                                   static_cast<long>(ctx_local.entity.last_change));
    }
    return SNMP_ERR_NOERROR;
}
