/* The row that answers, found by arithmetic. */
#include "tpg_jsonmib_seek.h"

#include "tpg_jsonmib_cell.h"
#include "tpg_jsonmib_column.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_rows.h"

#include <algorithm>

/* A request for a cell, by name. */
struct named_cell_t {
    uint32_t column;
    const oid* suffix; /* behind the column */
    size_t len;
    bool exact; /* the very row that it names answers */
};

static bool name_cell(const jsonmib_table_info_t*, const netsnmp_handler_registration*, int,
                      const netsnmp_request_info*, named_cell_t*);
static bool may_pass_helpers(int, const named_cell_t*);
static bool find_row(jsonmib_table_info_t*, int, const netsnmp_request_info*, named_cell_t*);
static uint32_t passed_slots(const jsonmib_table_info_t*, uint32_t);
static void row_context(const jsonmib_table_info_t*, netsnmp_table_request_info*);
static int serve_row(netsnmp_mib_handler*, netsnmp_handler_registration*,
                     netsnmp_agent_request_info*, netsnmp_request_info*, uint32_t,
                     netsnmp_table_request_info*);
static void name_row(const netsnmp_handler_registration*, const jsonmib_table_info_t*, uint32_t,
                     netsnmp_variable_list*);
static void aim(jsonmib_table_info_t*, const netsnmp_handler_registration*, int,
                netsnmp_request_info*);
static bool next_value(const jsonmib_table_info_t*, size_t, oid, uint32_t*);
static bool next_slot(const jsonmib_table_info_t*, const jsonmib_index_info_t*, oid, uint32_t*);
static bool value_behind(const jsonmib_table_info_t*, size_t, oid, uint32_t*);
static size_t leading_values(const jsonmib_table_info_t*, const oid*, size_t, jsonmib_seek_t*);
static bool fill_lowest(const jsonmib_table_info_t*, size_t, jsonmib_seek_t*);

/* Entry and column stand between a table's OID and the row's index values. */
constexpr size_t INDEX_OFS = 2;
constexpr oid ENTRY = 1;

/* ---- a row that is known to be there ---- */

int jsonmib_row_helper_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                               netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    auto* jsonmib_table = static_cast<jsonmib_table_info_t*>(handler->myvoid);
    if (jsonmib_cell_is_first_look(reqinfo)) {
        return SNMP_ERR_NOERROR;
    }
    named_cell_t cell = {};
    if (!name_cell(jsonmib_table, reginfo, reqinfo->mode, requests, &cell)) {
        return netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    }
    const bool found = find_row(jsonmib_table, reqinfo->mode, requests, &cell);
    if (!found && reqinfo->mode == MODE_GETNEXT && passed_slots(jsonmib_table, cell.column) != 0) {
        return SNMP_ERR_NOERROR; /* the search goes on behind the table */
    }
    if (!found || !may_pass_helpers(reqinfo->mode, &cell)) {
        return netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    }
    const netsnmp_mib_handler* above = handler;
    while (above->access_method != jsonmib_seek_helper_handler) {
        above = above->next;
    }
    if (reqinfo->mode == MODE_GETNEXT) {
        name_row(reginfo, jsonmib_table, cell.column, requests->requestvb);
    }
    netsnmp_table_request_info row;
    row_context(jsonmib_table, &row);
    return serve_row(above->next, reginfo, reqinfo, requests, cell.column, &row);
}

/*
 * True when one GET or GETNEXT begins with the name of a column of the table,
 * or comes before its first column while walks go past unreadable cells.
 */
static bool name_cell(const jsonmib_table_info_t* jsonmib_table,
                      const netsnmp_handler_registration* reginfo, int mode,
                      const netsnmp_request_info* request, named_cell_t* cell)
{
    const netsnmp_variable_list* var = request->requestvb;
    const size_t root_len = reginfo->rootoid_len;
    if ((mode != MODE_GET && mode != MODE_GETNEXT) || request->processed != 0 ||
        request->next != nullptr || request->parent_data != nullptr ||
        (mode == MODE_GET && var->type != ASN_NULL)) {
        return false;
    }
    const size_t common = std::min<size_t>(var->name_length, root_len);
    const bool inside = std::equal(var->name, var->name + common, reginfo->rootoid);
    if (inside && var->name_length >= root_len + INDEX_OFS && var->name[root_len] == ENTRY &&
        var->name[root_len + 1] >= 1 && var->name[root_len + 1] <= jsonmib_table->param_total) {
        *cell = {static_cast<uint32_t>(var->name[root_len + 1]), var->name + root_len + INDEX_OFS,
                 var->name_length - root_len - INDEX_OFS, false};
        return true;
    }
    *cell = {1, nullptr, 0, false};
    return mode == MODE_GETNEXT && jsonmib_table->tpg_context->jsonmib_later.skip_unreadable &&
           (inside ? var->name_length <= root_len + 1 &&
                         (var->name_length <= root_len || var->name[root_len] <= ENTRY)
                   : snmp_oid_compare(var->name, var->name_length, reginfo->rootoid, root_len) < 0);
}

/*
 * Whoever reads debug texts shall read those of the table helper, the iterator
 * and its callbacks too. They cannot serve the very row that a GETNEXT names.
 */
static bool may_pass_helpers(int mode, const named_cell_t* cell)
{
    return snmp_get_do_debugging() == 0 || (mode == MODE_GETNEXT && cell->exact);
}

/* Finds the row that answers, in this column or the next that has one, which is put in *cell. */
static bool find_row(jsonmib_table_info_t* jsonmib_table, int mode,
                     const netsnmp_request_info* request, named_cell_t* cell)
{
    jsonmib_seek_t* seek = &jsonmib_table->seek;
    seek->passed_slots = mode == MODE_GET ? 0 : passed_slots(jsonmib_table, cell->column);
    if ((mode == MODE_GET || request->inclusive != 0) &&
        jsonmib_seek_exact(jsonmib_table, cell->suffix, cell->len, seek)) {
        cell->exact = true;
        return true;
    }
    while (mode != MODE_GET) {
        if (jsonmib_seek_next(jsonmib_table, cell->suffix, cell->len, seek)) {
            return true;
        }
        if (cell->column >= jsonmib_table->param_total) {
            break;
        }
        *cell = {cell->column + 1, nullptr, 0, false};
        seek->passed_slots = passed_slots(jsonmib_table, cell->column);
    }
    return false;
}

/* The slots whose cells of this column a walk goes past; the agent's own values are always there.
 */
static uint32_t passed_slots(const jsonmib_table_info_t* jsonmib_table, uint32_t column)
{
    tpg_context_t* ctx = jsonmib_table->tpg_context;
    const jsonmib_table_param_info_t* param = &jsonmib_table->param_info[column - 1];
    const bool passes = ctx->jsonmib_later.skip_unreadable && !jsonmib_column_is_own(param);
    return passes ? jsonmib_queue_unreadable(ctx) : 0;
}

/* The record has room for a whole OID, which nobody looks at: clearing that for each cell would
 * cost. */
static void clear(netsnmp_table_request_info* info)
{
    info->colnum = 0;
    info->number_indexes = 0;
    info->indexes = nullptr;
    info->index_oid_len = 0;
    info->reg_info = nullptr;
}

/* Fills in the row that was found, as the iterator's callbacks would hand it out, but without
 * memory: an integer has its place in the record. */
static void row_context(const jsonmib_table_info_t* jsonmib_table, netsnmp_table_request_info* row)
{
    static netsnmp_variable_list indexes[JSONMIB_INDEX_MAX + 1];
    clear(row);
    for (size_t i = jsonmib_table->index_used; i-- > 0;) {
        const long value = static_cast<long>(jsonmib_table->seek.values[i]);
        if (indexes[i].type == ASN_INTEGER) {
            *indexes[i].val.integer = value;
        } else {
            snmp_set_var_typed_value(&indexes[i], ASN_INTEGER, &value, sizeof(value));
        }
        indexes[i].next_variable = row->indexes;
        row->indexes = &indexes[i];
    }
    row->number_indexes = jsonmib_table->index_used;
}

/*
 * Hands the request to the handler behind the iterator, with what the table
 * helper and the iterator would leave beside it.
 */
static int serve_row(netsnmp_mib_handler* iterator, netsnmp_handler_registration* reginfo,
                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                     uint32_t column, netsnmp_table_request_info* row)
{
    static char table_name[] = TABLE_HANDLER_NAME;
    static char iterator_name[] = TABLE_ITERATOR_NAME;
    netsnmp_table_request_info asked;
    clear(&asked);
    asked.colnum = column;
    netsnmp_data_list beside_row = {nullptr, iterator_name, row, nullptr};
    netsnmp_data_list beside = {&beside_row, table_name, &asked, nullptr};
    request->parent_data = &beside;
    const int mode = reqinfo->mode;
    reqinfo->mode = MODE_GET; /* as the iterator has it */
    const int status = netsnmp_call_next_handler(iterator, reginfo, reqinfo, request);
    reqinfo->mode = mode;
    request->parent_data = nullptr;
    return status;
}

/* Gives the variable the name of the cell that was found. */
static void name_row(const netsnmp_handler_registration* reginfo,
                     const jsonmib_table_info_t* jsonmib_table, uint32_t column,
                     netsnmp_variable_list* var)
{
    oid name[MAX_OID_LEN];
    oid* end = std::copy_n(reginfo->rootoid, reginfo->rootoid_len, name);
    *end++ = ENTRY;
    *end++ = column;
    end = std::copy_n(jsonmib_table->seek.values, jsonmib_table->index_used, end);
    snmp_set_var_objid(var, name, static_cast<size_t>(end - name));
}

/* ---- the only row to be shown ---- */

int jsonmib_seek_helper_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                                netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    auto* jsonmib_table = static_cast<jsonmib_table_info_t*>(handler->myvoid);
    aim(jsonmib_table, reginfo, reqinfo->mode, requests);
    const int status = netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    jsonmib_table->seek.active = false;
    return status;
}

/* True when somebody reads the debug texts of the iterator's steps. */
static bool is_listened_to()
{
    return snmp_get_do_debugging() != 0 && debug_is_token_registered("jsonmib") == SNMPERR_SUCCESS;
}

/* In the other phases of a SET the iterator goes by the row that it found in the first. */
static void aim(jsonmib_table_info_t* jsonmib_table, const netsnmp_handler_registration* reginfo,
                int mode, netsnmp_request_info* request)
{
    jsonmib_seek_t* seek = &jsonmib_table->seek;
    const bool exact = mode == MODE_GET || mode == MODE_SET_RESERVE1;
    if ((!exact && mode != MODE_GETNEXT) || request->processed != 0 || request->next != nullptr) {
        return;
    }
    const netsnmp_variable_list* var = request->requestvb;
    const size_t fixed = reginfo->rootoid_len + INDEX_OFS;
    const size_t len = var->name_length > fixed ? var->name_length - fixed : 0;
    const oid* suffix = var->name + std::min(fixed, var->name_length);
    seek->active = true;
    seek->passed_slots = 0;
    seek->aloud = is_listened_to() ? JSONMIB_ALOUD_MAX : 0;
    if (exact) {
        seek->found = jsonmib_seek_exact(jsonmib_table, suffix, len, seek);
    } else {
        /* Behind the last row comes the first one, of the next column. */
        seek->found = jsonmib_seek_next(jsonmib_table, suffix, len, seek) ||
                      jsonmib_seek_next(jsonmib_table, nullptr, 0, seek);
    }
}

/* ---- values of one index ---- */

/* The lowest value of the i-th index that is not below from; false when there is none. */
static bool next_value(const jsonmib_table_info_t* jsonmib_table, size_t i, oid from,
                       uint32_t* value)
{
    const jsonmib_index_info_t* info = &jsonmib_table->index_info[jsonmib_table->index_pos[i]];
    if ((info->flags & JSONMIB_INDEX_SLOT) != 0) {
        return next_slot(jsonmib_table, info, from, value);
    }
    const oid candidate = std::max<oid>(from, info->range[0]);
    if (candidate > std::max(info->range[0], info->range[1])) {
        return false;
    }
    *value = static_cast<uint32_t>(candidate);
    return true;
}

static bool next_slot(const jsonmib_table_info_t* jsonmib_table, const jsonmib_index_info_t* info,
                      oid from, uint32_t* value)
{
    if (from > info->range[1]) {
        return false;
    }
    const char* family = jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family;
    *value = static_cast<uint32_t>(from > 0 ? from - 1 : 0);
    do {
        *value = jsonmib_get_next_instance(jsonmib_table->tpg_context, family, *value);
    } while ((jsonmib_table->seek.passed_slots & (1U << *value)) != 0);
    return *value != 0;
}

/*
 * The lowest value of the i-th index above before; false when there is none.
 * Nothing is above the last number, which stands in a manager's 4294967295
 * however wide the library's numbers are.
 */
static bool value_behind(const jsonmib_table_info_t* jsonmib_table, size_t i, oid before,
                         uint32_t* value)
{
    return before != ~oid{0} && next_value(jsonmib_table, i, before + 1, value);
}

/* ---- rows ---- */

/* How many of suffix's leading sub-identifiers are values of their index; those go to *seek. */
static size_t leading_values(const jsonmib_table_info_t* jsonmib_table, const oid* suffix,
                             size_t len, jsonmib_seek_t* seek)
{
    const size_t most = std::min<size_t>(len, jsonmib_table->index_used);
    for (size_t i = 0; i < most; i++) {
        uint32_t value = 0;
        if (!next_value(jsonmib_table, i, suffix[i], &value) || value != suffix[i]) {
            return i;
        }
        seek->values[i] = value;
    }
    return most;
}

/* The lowest values from the i-th index on; false when the table has no row. */
static bool fill_lowest(const jsonmib_table_info_t* jsonmib_table, size_t i, jsonmib_seek_t* seek)
{
    for (; i < jsonmib_table->index_used; i++) {
        if (!next_value(jsonmib_table, i, 0, &seek->values[i])) {
            return false;
        }
    }
    return true;
}

bool jsonmib_seek_exact(const jsonmib_table_info_t* jsonmib_table, const oid* suffix, size_t len,
                        jsonmib_seek_t* seek)
{
    return len == jsonmib_table->index_used &&
           leading_values(jsonmib_table, suffix, len, seek) == len;
}

bool jsonmib_seek_next(const jsonmib_table_info_t* jsonmib_table, const oid* suffix, size_t len,
                       jsonmib_seek_t* seek)
{
    const size_t used = jsonmib_table->index_used;
    const size_t same = leading_values(jsonmib_table, suffix, len, seek);
    if (same == len && len < used) {
        return fill_lowest(jsonmib_table, same, seek); /* the rows below suffix follow it */
    }
    /* The last position whose value can be raised decides; those behind it start over. */
    for (size_t i = std::min(same + 1, used); i-- > 0;) {
        if (value_behind(jsonmib_table, i, suffix[i], &seek->values[i])) {
            return fill_lowest(jsonmib_table, i + 1, seek);
        }
    }
    return false;
}
