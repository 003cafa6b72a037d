#include "tpg_jsonmib_seek.h"

#include "tpg_jsonmib_rows.h"

#include <algorithm>

static void aim(jsonmib_table_info_t*, const netsnmp_handler_registration*, int,
                netsnmp_request_info*);
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
    aim(jsonmib_table, reginfo, reqinfo->mode, requests);
    const int status = netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    jsonmib_table->seek.active = false;
    return status;
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
    const char* family = jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family;
    uint32_t slot = jsonmib_get_next_instance(jsonmib_table->tpg_context, family, 0);
    while (slot != 0 && slot < from) {
        slot = slot >= info->range[1]
                   ? 0
                   : jsonmib_get_next_instance(jsonmib_table->tpg_context, family, slot);
    }
    *value = slot;
    return slot != 0;
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
