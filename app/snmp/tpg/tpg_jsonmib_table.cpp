/* A table's registration and its chain of handlers. */
#include "tpg_jsonmib_table.h"

#include "tpg_jsonmib_request.h"
#include "tpg_jsonmib_seek.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"

#include <cassert>
#include <cctype>
#include <cstdlib>
#include <cstring>

struct chain_t;

static netsnmp_handler_registration* register_table(tpg_context_t*, jsonmib_table_info_t*,
                                                    const char* handler_name,
                                                    Netsnmp_Node_Handler* request_handler);
static bool oid_can_be_registered(tpg_context_t*, const jsonmib_table_info_t*);
static void debug_table(const jsonmib_table_info_t*);
static netsnmp_iterator_info* new_iterator_info(jsonmib_table_info_t*);
static netsnmp_handler_registration* new_registration(const jsonmib_table_info_t*);
static netsnmp_mib_handler* new_request_handler(chain_t*);
static netsnmp_mib_handler* new_iterator_handler(chain_t*);
static netsnmp_mib_handler* new_seek_handler(chain_t*);
static netsnmp_mib_handler* new_table_handler(chain_t*);
static netsnmp_mib_handler* new_row_handler(chain_t*);
static netsnmp_mib_handler* new_serialize_handler(chain_t*);
static int inject_chain(tpg_context_t*, netsnmp_handler_registration*, chain_t*);
static void attach_table(netsnmp_mib_handler*, void* jsonmib_table);
static void* table_share(void* table);

/* What the handlers of a registration are called in logs; a table may have such a name too. */
constexpr char GEN_HANDLER_NAME[] = "tpg_generic_table";
constexpr char FAULT_HANDLER_NAME[] = "tpg_fault_table";
constexpr char ROW_HANDLER_NAME[] = "tpg_row";
constexpr char SEEK_HANDLER_NAME[] = "tpg_seek";

/* ---- the chain of handlers ---- */

/* What the handlers of one registration are made of. */
struct chain_t {
    jsonmib_table_info_t* jsonmib_table;
    const char* request_name;
    Netsnmp_Node_Handler* request_handler;
    netsnmp_iterator_info* iterator_info;        /* null once its handler owns it */
    netsnmp_table_registration_info* table_info; /* a part of that */
};

/*
 * The way of a request is from the last of these to the first. In front of them
 * is the library's handler for bulk requests, behind them one that it names
 * after the registration.
 */
constexpr netsnmp_mib_handler* (*CHAIN[])(chain_t*) = {
    new_request_handler,   /* asks the card for the cell, or writes it */
    new_iterator_handler,  /* the library's: has the callbacks step to the row, and keeps it */
    new_seek_handler,      /* has them step to the row that answers and no other */
    new_table_handler,     /* the library's: takes the OID apart, and goes on to the next column */
    new_row_handler,       /* has served most rows by now, straight to the request handler */
    new_serialize_handler, /* the library's: the iterator frees a row's context once for each
                              request of a list, and so is given one at a time */
};

/* Injects them in this order; those that are not to be had go with the registration. */
static int inject_chain(tpg_context_t* ctx, netsnmp_handler_registration* registration,
                        chain_t* chain)
{
    for (const auto& new_handler : CHAIN) {
        netsnmp_mib_handler* handler = new_handler(chain);
        if (handler == nullptr ||
            netsnmp_inject_handler(registration, handler) != SNMPERR_SUCCESS) {
            TPG_ERROR(ctx, "inject table helper failed");
            netsnmp_handler_free(handler);
            return -1;
        }
    }
    return 0;
}

/* ---- registration ---- */

netsnmp_handler_registration* jsonmib_register_gen_table(tpg_context_t* ctx,
                                                         jsonmib_table_info_t* jsonmib_table)
{
    return register_table(ctx, jsonmib_table, GEN_HANDLER_NAME, jsonmib_gen_table_helper_handler);
}

netsnmp_handler_registration* jsonmib_register_fault_table(tpg_context_t* ctx,
                                                           jsonmib_table_info_t* jsonmib_table)
{
    return register_table(ctx, jsonmib_table, FAULT_HANDLER_NAME,
                          jsonmib_fault_table_helper_handler);
}

/*
 * The chain is complete before the registration is made: a registration that
 * contains another one's OID is split at once, its chain copied.
 */
static netsnmp_handler_registration* register_table(tpg_context_t* ctx,
                                                    jsonmib_table_info_t* jsonmib_table,
                                                    const char* handler_name,
                                                    Netsnmp_Node_Handler* request_handler)
{
    jsonmib_find_used_indexes(jsonmib_table);
    if (!oid_can_be_registered(ctx, jsonmib_table)) {
        jsonmib_table_free(jsonmib_table);
        return nullptr;
    }
    netsnmp_iterator_info* iterator_info = new_iterator_info(jsonmib_table);
    if (iterator_info == nullptr) {
        TPG_ERROR(ctx, "alloc iter_info or table_info failed");
        jsonmib_table_free(jsonmib_table);
        return nullptr;
    }
    debug_table(jsonmib_table);
    netsnmp_handler_registration* registration = new_registration(jsonmib_table);
    if (registration == nullptr) {
        TPG_ERROR(ctx, "netsnmp_create_handler_registration failed");
        netsnmp_iterator_delete_table(iterator_info);
        jsonmib_table_free(jsonmib_table);
        return nullptr;
    }
    chain_t chain = {jsonmib_table, handler_name, request_handler, iterator_info,
                     iterator_info->table_reginfo};
    const int injected = inject_chain(ctx, registration, &chain);
    netsnmp_iterator_delete_table(chain.iterator_info);
    if (injected != 0) {
        netsnmp_handler_registration_free(registration);
        return nullptr;
    }
    netsnmp_handler_registration* registered = jsonmib_tomb_register(ctx, registration);
    if (registered == nullptr) {
        TPG_ERROR(ctx, "netsnmp_register_table_iterator failed");
    }
    return registered;
}

/* ---- handlers ---- */

/* Comes to own the share in the table record that parsing had. */
static netsnmp_mib_handler* new_request_handler(chain_t* chain)
{
    netsnmp_mib_handler* mib_handler =
        netsnmp_create_handler(chain->request_name, chain->request_handler);
    assert((mib_handler));
    attach_table(mib_handler, chain->jsonmib_table);
    DEBUGMSGTL(("jsonmib", "create mib_handler[%p], attach jsonmib_table[%p]\n",
                static_cast<void*>(mib_handler), static_cast<void*>(chain->jsonmib_table)));
    return mib_handler;
}

static netsnmp_mib_handler* new_iterator_handler(chain_t* chain)
{
    netsnmp_mib_handler* handler = netsnmp_get_table_iterator_handler(chain->iterator_info);
    if (handler != nullptr) {
        chain->iterator_info = nullptr;
    }
    return handler;
}

static netsnmp_mib_handler* new_table_handler(chain_t* chain)
{
    return netsnmp_get_table_handler(chain->table_info);
}

static netsnmp_mib_handler* new_serialize_handler(chain_t* chain)
{
    (void)chain;
    return netsnmp_get_serialize_handler();
}

static netsnmp_mib_handler* new_sharing_handler(const char* name, Netsnmp_Node_Handler* entry,
                                                chain_t* chain)
{
    netsnmp_mib_handler* handler = netsnmp_create_handler(name, entry);
    if (handler != nullptr) {
        attach_table(handler, table_share(chain->jsonmib_table));
    }
    return handler;
}

static netsnmp_mib_handler* new_seek_handler(chain_t* chain)
{
    return new_sharing_handler(SEEK_HANDLER_NAME, jsonmib_seek_helper_handler, chain);
}

static netsnmp_mib_handler* new_row_handler(chain_t* chain)
{
    return new_sharing_handler(ROW_HANDLER_NAME, jsonmib_row_helper_handler, chain);
}

/* Gives the handler one share in the table record, which it lets go of when it is released. */
static void attach_table(netsnmp_mib_handler* handler, void* jsonmib_table)
{
    handler->myvoid = jsonmib_table;
    handler->data_clone = table_share;
    handler->data_free = jsonmib_table_free;
}

/*
 * The library builds a cell's OID, table.entry.column.indexes, in MAX_OID_LEN
 * places unchecked, and loses track of registrations outside the OID tree's
 * three roots.
 */
static bool oid_can_be_registered(tpg_context_t* ctx, const jsonmib_table_info_t* jsonmib_table)
{
    constexpr uint32_t ENTRY_AND_COLUMN = 2;
    constexpr uint32_t LAST_ROOT = 2; /* joint-iso-ccitt */
    const uint32_t longest = MAX_OID_LEN - ENTRY_AND_COLUMN - jsonmib_table->index_used;
    if (jsonmib_table->oid_len > longest) {
        TPG_ERROR(ctx, "table %s: an oid of %u elements leaves no room for cells, at most %u",
                  jsonmib_table_name(jsonmib_table).text, jsonmib_table->oid_len, longest);
        return false;
    }
    if (jsonmib_table->oid[0] > LAST_ROOT) {
        TPG_ERROR(ctx, "table %s: an oid cannot begin with %u",
                  jsonmib_table_name(jsonmib_table).text, jsonmib_table->oid[0]);
        return false;
    }
    return true;
}

static void debug_table(const jsonmib_table_info_t* jsonmib_table)
{
    if (snmp_get_do_debugging() == 0) {
        return;
    }
    oid name[TPG_OID_MAX];
    for (uint32_t i = 0; i < jsonmib_table->oid_len; i++) {
        name[i] = jsonmib_table->oid[i];
    }
    DEBUGMSGTL(("jsonmib", "table oid: "));
    DEBUGMSGOID(("jsonmib", name, jsonmib_table->oid_len));
    DEBUGMSG(("jsonmib", "\n"));
    for (uint32_t i = 0; i <= JSONMIB_INDEX_MAX; i++) {
        DEBUGMSGTL(
            ("jsonmib", "registering table %s, index_info[%d].range[2]: {%d, %d}, flags 0x%x\n",
             jsonmib_table_name(jsonmib_table).text, i, jsonmib_table->index_info[i].range[0],
             jsonmib_table->index_info[i].range[1], jsonmib_table->index_info[i].flags));
    }
}

/* The iterator and table descriptions; the iterator's handler comes to own them. Null: no memory.
 */
static netsnmp_iterator_info* new_iterator_info(jsonmib_table_info_t* jsonmib_table)
{
    auto* iterator_info =
        static_cast<netsnmp_iterator_info*>(calloc(1, sizeof(netsnmp_iterator_info)));
    auto* table_info = static_cast<netsnmp_table_registration_info*>(
        calloc(1, sizeof(netsnmp_table_registration_info)));
    if (iterator_info == nullptr || table_info == nullptr) {
        free(iterator_info);
        free(table_info);
        return nullptr;
    }
    iterator_info->myvoid = jsonmib_table;
    iterator_info->table_reginfo = table_info;
    iterator_info->flags = NETSNMP_HANDLER_OWNS_IINFO;
    iterator_info->get_first_data_point = jsonmib_table_get_first_data_point;
    iterator_info->get_next_data_point = jsonmib_table_get_next_data_point;
    iterator_info->free_data_context = jsonmib_table_free_data_context;
    iterator_info->free_loop_context_at_end = jsonmib_table_free_loop_context_at_end;
    for (uint8_t i = 0; i < jsonmib_table->index_used; i++) {
        if (snmp_varlist_add_variable(&table_info->indexes, nullptr, 0, ASN_INTEGER, nullptr, 0) ==
            nullptr) {
            netsnmp_iterator_delete_table(iterator_info);
            return nullptr;
        }
    }
    table_info->min_column = 1;
    table_info->max_column = jsonmib_table->param_total;
    return iterator_info;
}

static netsnmp_handler_registration* new_registration(const jsonmib_table_info_t* jsonmib_table)
{
    oid name[TPG_OID_MAX];
    for (uint32_t i = 0; i < jsonmib_table->oid_len; i++) {
        name[i] = jsonmib_table->oid[i];
    }
    jsonmib_table_name_t label = jsonmib_table_name(jsonmib_table);
    for (char* c = label.text; *c != '\0'; c++) {
        if (isprint(static_cast<unsigned char>(*c)) == 0) {
            *c = '?'; /* the library logs it as it stands */
        }
    }
    return netsnmp_create_handler_registration(label.text, nullptr, name, jsonmib_table->oid_len,
                                               HANDLER_CAN_RWRITE);
}

static void* table_share(void* table)
{
    static_cast<jsonmib_table_info_t*>(table)->refcnt++;
    return table;
}

void jsonmib_table_free(void* table)
{
    auto* jsonmib_table = static_cast<jsonmib_table_info_t*>(table);
    if (--jsonmib_table->refcnt > 0) {
        return;
    }
    free(jsonmib_table->param_info);
    free(jsonmib_table);
}
