#include "tpg_jsonmib_seek.h"

#include "tpg_jsonmib_rows.h"

#include <algorithm>

/* What is known of the row that answers a request. */
enum class aim_t {
    every_row,     /* nothing */
    one_row,       /* it is the only one to be shown, if there is one */
    row_of_column, /* it is there, in the column that the request names */
};

static aim_t take_aim(jsonmib_table_info_t*, const netsnmp_handler_registration*, int,
                      netsnmp_request_info*);
static bool names_column(const netsnmp_handler_registration*, const netsnmp_variable_list*);
static int serve_row(netsnmp_mib_handler*, netsnmp_handler_registration*,
                     netsnmp_agent_request_info*, netsnmp_request_info*, int*);
static void name_row(const netsnmp_handler_registration*, const netsnmp_iterator_info*,
                     netsnmp_variable_list*);
static bool next_value(const jsonmib_table_info_t*, size_t, uint64_t, uint32_t*);
static bool next_slot(const jsonmib_table_info_t*, const jsonmib_index_info_t*, uint64_t,
                      uint32_t*);
static size_t leading_values(const jsonmib_table_info_t*, const oid*, size_t, jsonmib_seek_t*);
static bool fill_lowest(const jsonmib_table_info_t*, size_t, jsonmib_seek_t*);

/* Entry and column stand between a table's OID and the row's index values. */
constexpr size_t INDEX_OFS = 2;

int jsonmib_seek_helper_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                                netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    auto* jsonmib_table = static_cast<jsonmib_table_info_t*>(handler->myvoid);
    int status = SNMP_ERR_NOERROR;
    const aim_t aim = take_aim(jsonmib_table, reginfo, reqinfo->mode, requests);
    jsonmib_table->seek.active = aim != aim_t::every_row;
    if (aim != aim_t::row_of_column ||
        serve_row(handler->next, reginfo, reqinfo, requests, &status) != 0) {
        status = netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    }
    jsonmib_table->seek.active = false;
    return status;
}

/* In the other phases of a SET the iterator goes by the row that it found in the first. */
static aim_t take_aim(jsonmib_table_info_t* jsonmib_table,
                      const netsnmp_handler_registration* reginfo, int mode,
                      netsnmp_request_info* request)
{
    jsonmib_seek_t* seek = &jsonmib_table->seek;
    const bool exact = mode == MODE_GET || mode == MODE_SET_RESERVE1;
    if ((!exact && mode != MODE_GETNEXT) || request->processed != 0 || request->next != nullptr) {
        return aim_t::every_row;
    }
    const netsnmp_variable_list* var = request->requestvb;
    const size_t fixed = reginfo->rootoid_len + INDEX_OFS;
    const size_t len = var->name_length > fixed ? var->name_length - fixed : 0;
    const oid* suffix = var->name + std::min(fixed, var->name_length);
    if (exact) {
        seek->found = jsonmib_seek_exact(jsonmib_table, suffix, len, seek);
        return seek->found && mode == MODE_GET ? aim_t::row_of_column : aim_t::one_row;
    }
    seek->found = jsonmib_seek_next(jsonmib_table, suffix, len, seek);
    if (seek->found && names_column(reginfo, var)) {
        return aim_t::row_of_column;
    }
    if (!seek->found) {
        /* Behind the last row comes the first one, of the next column. */
        seek->found = jsonmib_seek_next(jsonmib_table, nullptr, 0, seek);
    }
    return aim_t::one_row;
}

/* The table helper has seen to the column number itself; a name may end in front of it. */
static bool names_column(const netsnmp_handler_registration* reginfo,
                         const netsnmp_variable_list* var)
{
    return var->name_length >= reginfo->rootoid_len + INDEX_OFS;
}

/*
 * Answers from the row that the iteration callback shows, as the iterator
 * would, which copies a row several times on the way. -1: nothing was done.
 */
static int serve_row(netsnmp_mib_handler* iterator, netsnmp_handler_registration* reginfo,
                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                     int* status)
{
    auto* iterator_info = static_cast<netsnmp_iterator_info*>(iterator->myvoid);
    const netsnmp_table_request_info* asked = netsnmp_extract_table_info(request);
    void* loop_context = nullptr;
    void* row = nullptr;
    if (asked == nullptr || jsonmib_table_get_first_data_point(&loop_context, &row, asked->indexes,
                                                               iterator_info) == nullptr) {
        return -1;
    }
    netsnmp_data_list* node = netsnmp_create_data_list(TABLE_ITERATOR_NAME, row, nullptr);
    if (node == nullptr) {
        jsonmib_table_free_data_context(row, iterator_info);
        return -1;
    }
    netsnmp_request_add_list_data(request, node);
    const int mode = reqinfo->mode;
    if (mode == MODE_GETNEXT) {
        name_row(reginfo, iterator_info, request->requestvb);
        reqinfo->mode = MODE_GET;
    }
    *status = netsnmp_call_next_handler(iterator, reginfo, reqinfo, request);
    reqinfo->mode = mode;
    netsnmp_request_remove_list_data(request, TABLE_ITERATOR_NAME);
    jsonmib_table_free_data_context(row, iterator_info);
    return 0;
}

/* Gives the variable, which names a column of the table, the name of the row that was found. */
static void name_row(const netsnmp_handler_registration* reginfo,
                     const netsnmp_iterator_info* iterator_info, netsnmp_variable_list* var)
{
    const auto* jsonmib_table = static_cast<const jsonmib_table_info_t*>(iterator_info->myvoid);
    oid name[MAX_OID_LEN];
    oid* end = std::copy_n(var->name, reginfo->rootoid_len + INDEX_OFS, name);
    end = std::copy_n(jsonmib_table->seek.values, jsonmib_table->index_used, end);
    snmp_set_var_objid(var, name, static_cast<size_t>(end - name));
}

/* ---- values of one index ---- */

/* The lowest value of the i-th index that is not below from; false when there is none. */
static bool next_value(const jsonmib_table_info_t* jsonmib_table, size_t i, uint64_t from,
                       uint32_t* value)
{
    const jsonmib_index_info_t* info = &jsonmib_table->index_info[jsonmib_table->index_pos[i]];
    if ((info->flags & JSONMIB_INDEX_SLOT) != 0) {
        return next_slot(jsonmib_table, info, from, value);
    }
    const uint64_t candidate = std::max<uint64_t>(from, info->range[0]);
    if (candidate > std::max(info->range[0], info->range[1])) {
        return false;
    }
    *value = static_cast<uint32_t>(candidate);
    return true;
}

static bool next_slot(const jsonmib_table_info_t* jsonmib_table, const jsonmib_index_info_t* info,
                      uint64_t from, uint32_t* value)
{
    if (from > info->range[1]) {
        return false;
    }
    const char* family = jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family;
    const auto below = static_cast<uint32_t>(from > 0 ? from - 1 : 0);
    *value = jsonmib_get_next_instance(jsonmib_table->tpg_context, family, below);
    return *value != 0;
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
        if (next_value(jsonmib_table, i, static_cast<uint64_t>(suffix[i]) + 1, &seek->values[i])) {
            return fill_lowest(jsonmib_table, i + 1, seek);
        }
    }
    return false;
}
