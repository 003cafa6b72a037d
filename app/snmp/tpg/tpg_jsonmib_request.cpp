/* Finds the cell that a request is about, by column and row index, and has it read or written. */
#include "tpg_jsonmib_request.h"

#include "tpg_jsonmib_column.h"
#include "tpg_jsonmib_fault.h"
#include "tpg_jsonmib_gen.h"
#include "tpg_jsonmib_index.h"
#include "tpg_log.h"

#include <iterator>

/* What differs between generic and fault tables. */
struct table_kind_t {
    const char* entering;
    const char* leaving;
    int (*proc)(netsnmp_variable_list*, netsnmp_table_request_info*, netsnmp_table_request_info*,
                netsnmp_agent_request_info*, jsonmib_table_info_t*);
};

static int walk_requests(const table_kind_t*, netsnmp_mib_handler*, netsnmp_handler_registration*,
                         netsnmp_agent_request_info*, netsnmp_request_info*);
static int proc_one(const table_kind_t*, netsnmp_request_info*, netsnmp_agent_request_info*,
                    jsonmib_table_info_t*);
static int locate_cell(jsonmib_cell_t*, netsnmp_table_request_info*);
static int locate_row(jsonmib_cell_t*);
static int read_cell(const jsonmib_cell_t*, const netsnmp_agent_request_info*);
static int set_phase(const jsonmib_cell_t*);
static int check_write(const jsonmib_cell_t*);
static int proc_cell(netsnmp_variable_list*, netsnmp_table_request_info*,
                     netsnmp_table_request_info*, netsnmp_agent_request_info*,
                     jsonmib_table_info_t*);
static netsnmp_request_info* request_of(const netsnmp_agent_request_info*,
                                        const netsnmp_variable_list*);

/* ---- handlers ---- */

int jsonmib_gen_table_helper_handler(netsnmp_mib_handler* handler,
                                     netsnmp_handler_registration* reginfo,
                                     netsnmp_agent_request_info* reqinfo,
                                     netsnmp_request_info* requests)
{
    static constexpr table_kind_t KIND = {">>>Entering jsonmib_gen_table_helper_handler\n",
                                          "<<<Leaving jsonmib_gen_table_helper_handler\n",
                                          jsonmib_gen_table_proc_agent_request};
    return walk_requests(&KIND, handler, reginfo, reqinfo, requests);
}

int jsonmib_fault_table_helper_handler(netsnmp_mib_handler* handler,
                                       netsnmp_handler_registration* reginfo,
                                       netsnmp_agent_request_info* reqinfo,
                                       netsnmp_request_info* requests)
{
    static constexpr table_kind_t KIND = {">>>Entering jsonmib_fault_table_helper_handler\n",
                                          "<<<Leaving jsonmib_fault_table_helper_handler\n",
                                          jsonmib_fault_table_proc_agent_request};
    return walk_requests(&KIND, handler, reginfo, reqinfo, requests);
}

static int walk_requests(const table_kind_t* kind, netsnmp_mib_handler* handler,
                         netsnmp_handler_registration* reginfo, netsnmp_agent_request_info* reqinfo,
                         netsnmp_request_info* requests)
{
    auto* jsonmib_table = static_cast<jsonmib_table_info_t*>(handler->myvoid);
    DEBUGMSGTL(("jsonmib", "%s", kind->entering));
    DEBUGMSGTL(("jsonmib", "family_string %s: mib_handler[%p], jsonmib_table[%p]\n",
                jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family,
                static_cast<void*>(handler), static_cast<void*>(jsonmib_table)));
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        if (request->processed != 0) {
            return SNMP_ERR_NOERROR;
        }
        const int status = proc_one(kind, request, reqinfo, jsonmib_table);
        if (status != SNMP_ERR_NOERROR) {
            netsnmp_set_request_error(reqinfo, request, status);
            return status;
        }
    }
    int status = SNMP_ERR_NOERROR;
    if (handler->next != nullptr) {
        status = netsnmp_call_next_handler(handler, reginfo, reqinfo, requests);
    }
    DEBUGMSGTL(("jsonmib", "%s", kind->leaving));
    return status;
}

static void debug_request_info(const char* name, const netsnmp_table_request_info* info)
{
    DEBUGMSGTL(("jsonmib", "%s[%p]: colnum %u, number_indexes %u, index_oid_len %zu\n", name,
                static_cast<const void*>(info), info->colnum, info->number_indexes,
                info->index_oid_len));
}

static int proc_one(const table_kind_t* kind, netsnmp_request_info* request,
                    netsnmp_agent_request_info* reqinfo, jsonmib_table_info_t* jsonmib_table)
{
    netsnmp_variable_list* var = request->requestvb;
    DEBUGMSGTL(("jsonmib", "got request: var-type %d\n", var->type));
    DEBUGMSGTL(("jsonmib", "  oid:"));
    DEBUGMSGOID(("jsonmib", var->name, var->name_length));
    DEBUGMSG(("jsonmib", "\n"));
    netsnmp_table_request_info* table_reqinfo = netsnmp_extract_table_info(request);
    auto* iterator_reqinfo =
        static_cast<netsnmp_table_request_info*>(netsnmp_extract_iterator_context(request));
    if (table_reqinfo == nullptr || iterator_reqinfo == nullptr) {
        DEBUGMSGTL(("jsonmib", "NULL table_reqinfo or iterator_reqinfo\n"));
        return SNMP_ERR_NOERROR;
    }
    debug_request_info("table_reqinfo", table_reqinfo);
    debug_request_info("iterator_reqinfo", iterator_reqinfo);
    return kind->proc(var, table_reqinfo, iterator_reqinfo, reqinfo, jsonmib_table);
}

/* ---- what generic and fault tables share ---- */

/* Debug text about the row index: its number of values, with the slot. */
static void debug_row(const jsonmib_cell_t* cell, uint32_t total)
{
    static constexpr const char* WORDS[] = {"single", "double", "triple"};
    static_assert(std::size(WORDS) == JSONMIB_CARD_INDEXES + 1);
    const jsonmib_table_info_t* table = cell->table;
    const char* word = WORDS[total - 1];
    if (total == 1) {
        DEBUGMSGTL(("jsonmib", "%s indexed\n", word));
    } else if ((table->flags & JSONMIB_TABLE_FAULT) != 0) {
        DEBUGMSGTL(("jsonmib", "%s indexed, index = 0x%x, index_max = %d:%d\n", word, cell->index,
                    table->index_info[0].range[1], total > 2 ? table->index_info[1].range[1] : 0U));
    } else {
        DEBUGMSGTL(("jsonmib", "%s indexed, index = 0x%x\n", word, cell->index));
    }
}

/* Fills instance and index from the row index; an SNMP error status when no card has such a row. */
static int locate_row(jsonmib_cell_t* cell)
{
    uint32_t values[JSONMIB_CARD_INDEXES + 1] = {};
    /* Rows come from the table's own records. Should one of these be wrong, the number of indexes
     * and the slot must still not lead beyond an array. */
    const uint32_t total = cell->row->number_indexes;
    if (total < 1 || total > std::size(values)) {
        DEBUGMSGTL(("jsonmib", "invalid number_indexes = %d\n", total));
        TPG_ERROR(cell->ctx, "invalid number_indexes = %d", total);
        return SNMP_ERR_GENERR;
    }
    const netsnmp_variable_list* value = cell->row->indexes;
    for (uint32_t i = 0; i < total && value != nullptr; i++, value = value->next_variable) {
        values[i] = static_cast<uint32_t>(*value->val.integer);
    }
    cell->instance = values[total - 1];
    cell->index = jsonmib_index_of(values, total - 1);
    debug_row(cell, total);
    if (cell->instance < 1 || cell->instance > TPG_SLOT_MAX) {
        TPG_ERROR(cell->ctx, "invalid instance %u", cell->instance);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* Fills instance, index, colnum and param; an SNMP error status when there can be no such cell. */
static int locate_cell(jsonmib_cell_t* cell, netsnmp_table_request_info* table_reqinfo)
{
    const int status = locate_row(cell);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    cell->colnum = table_reqinfo->colnum; /* the library has checked it, other callers may not */
    if (cell->colnum < 1 || cell->colnum > cell->table->param_total) {
        DEBUGMSGTL(("jsonmib", "invalid table_request->colnum %d\n", cell->colnum));
        TPG_ERROR(cell->ctx, "invalid table_request->colnum %d", cell->colnum);
        return SNMP_ERR_GENERR;
    }
    cell->param = &cell->table->param_info[cell->colnum - 1];
    DEBUGMSGTL(("jsonmib", "mode %d, colnum %d, instance %d, index 0x%x\n", cell->mode,
                cell->colnum, cell->instance, cell->index));
    return SNMP_ERR_NOERROR;
}

static int check_write(const jsonmib_cell_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    const netsnmp_variable_list* var = cell->var;
    if (param->access == JSONMIB_ACCESS_RO) {
        return SNMP_ERR_READONLY;
    }
    if (var->type == ASN_INTEGER) {
        if (!jsonmib_column_takes_integers(param)) {
            return SNMP_ERR_WRONGTYPE;
        }
        const long value = *var->val.integer;
        return value < param->range[0] || value > param->range[1] ? SNMP_ERR_WRONGVALUE
                                                                  : SNMP_ERR_NOERROR;
    }
    if (var->type == ASN_OCTET_STR) {
        if (param->coding.accepted != ASN_OCTET_STR) {
            return SNMP_ERR_WRONGTYPE;
        }
        return static_cast<int64_t>(var->val_len) > param->range[1] ? SNMP_ERR_WRONGLENGTH
                                                                    : SNMP_ERR_NOERROR;
    }
    return SNMP_ERR_NOERROR;
}

static void debug_set_phase(const char* phase, netsnmp_variable_list* var)
{
    DEBUGMSGTL(("jsonmib", "    %s:", phase));
    DEBUGMSGVAR(("jsonmib", var));
    DEBUGMSG(("jsonmib", "\n"));
}

/* The card is written in the action phase; nothing is undone. */
static int set_phase(const jsonmib_cell_t* cell)
{
    switch (cell->mode) {
    case MODE_SET_RESERVE1:
        debug_set_phase("MODE_SET_RESERVE1", cell->var);
        return check_write(cell);
    case MODE_SET_RESERVE2:
        debug_set_phase("MODE_SET_RESERVE2", cell->var);
        break;
    case MODE_SET_ACTION:
        debug_set_phase("MODE_SET_ACTION", cell->var);
        return (cell->table->flags & JSONMIB_TABLE_FAULT) != 0 ? jsonmib_fault_set(cell)
                                                               : jsonmib_gen_set(cell);
    case MODE_SET_COMMIT:
        debug_set_phase("MODE_SET_COMMIT", cell->var);
        break;
    case MODE_SET_FREE:
        debug_set_phase("MODE_SET_FREE", cell->var);
        break;
    case MODE_SET_UNDO:
        debug_set_phase("MODE_SET_UNDO", cell->var);
        break;
    default: /* only if the library should gain another mode */
        DEBUGMSGTL(("jsonmib", "invalid reqinfo->mode %d\n", cell->mode));
        break;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- one request ---- */

int jsonmib_gen_table_proc_agent_request(netsnmp_variable_list* var,
                                         netsnmp_table_request_info* table_reqinfo,
                                         netsnmp_table_request_info* iterator_reqinfo,
                                         netsnmp_agent_request_info* agent_reqinfo,
                                         jsonmib_table_info_t* jsonmib_table_info)
{
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_gen_table_proc_agent_request\n"));
    DEBUGMSGTL(("jsonmib", "table_reqinfo[%p], iterator_reqinfo[%p]\n",
                static_cast<void*>(table_reqinfo), static_cast<void*>(iterator_reqinfo)));
    TPG_DEBUG(jsonmib_table_info->tpg_context, "%s(): num_indexes=%d", __func__,
              iterator_reqinfo->number_indexes);
    const int status =
        proc_cell(var, table_reqinfo, iterator_reqinfo, agent_reqinfo, jsonmib_table_info);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_gen_table_proc_agent_request\n"));
    return status;
}

int jsonmib_fault_table_proc_agent_request(netsnmp_variable_list* var,
                                           netsnmp_table_request_info* table_reqinfo,
                                           netsnmp_table_request_info* iterator_reqinfo,
                                           netsnmp_agent_request_info* agent_reqinfo,
                                           jsonmib_table_info_t* jsonmib_table_info)
{
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_fault_table_proc_agent_request\n"));
    const int status =
        proc_cell(var, table_reqinfo, iterator_reqinfo, agent_reqinfo, jsonmib_table_info);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_fault_table_proc_agent_request\n"));
    return status;
}

static int proc_cell(netsnmp_variable_list* var, netsnmp_table_request_info* table_reqinfo,
                     netsnmp_table_request_info* iterator_reqinfo,
                     netsnmp_agent_request_info* agent_reqinfo, jsonmib_table_info_t* table)
{
    jsonmib_cell_t cell = {};
    cell.ctx = table->tpg_context;
    cell.table = table;
    cell.var = var;
    cell.row = iterator_reqinfo;
    cell.mode = agent_reqinfo->mode;
    const int status = locate_cell(&cell, table_reqinfo);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    const tpg_log_slot_t served = tpg_log_serve(cell.ctx, cell.instance);
    if ((table->flags & JSONMIB_TABLE_FAULT) == 0) {
        TPG_DEBUG(cell.ctx, "mode %d, colnum %d, instance %d, index 0x%x, MOD_GET=%d", cell.mode,
                  cell.colnum, cell.instance, cell.index, MODE_GET);
    }
    return cell.mode == MODE_GET ? read_cell(&cell, agent_reqinfo) : set_phase(&cell);
}

static int read_cell(const jsonmib_cell_t* cell, const netsnmp_agent_request_info* agent_reqinfo)
{
    netsnmp_request_info* request = request_of(agent_reqinfo, cell->var);
    if (request != nullptr && jsonmib_cell_is_beyond(agent_reqinfo, request)) {
        return SNMP_ERR_NOERROR;
    }
    const jsonmib_table_param_info_t* param = cell->param;
    if (jsonmib_column_is_index(param)) {
        return jsonmib_cell_serve_index(cell);
    }
    DEBUGMSGTL((
        "jsonmib", "MODE_GET: param_info: type %d, access %d, flags %d, var_id %d, range[%d:%d]\n",
        param->type, param->access, param->flags, param->var_id, param->range[0], param->range[1]));
    jsonmib_ask_t ask = {};
    bool asks = false;
    const int status = (cell->table->flags & JSONMIB_TABLE_FAULT) != 0
                           ? jsonmib_fault_get(cell, &ask, &asks)
                           : jsonmib_gen_get(cell, &ask, &asks);
    return asks ? jsonmib_cell_read(cell->ctx, agent_reqinfo, request, cell->var, &ask) : status;
}

/* The library's request that var belongs to; null when there is none, and so none can be answered
 * later. */
static netsnmp_request_info* request_of(const netsnmp_agent_request_info* agent_reqinfo,
                                        const netsnmp_variable_list* var)
{
    const netsnmp_agent_session* asp = agent_reqinfo->asp;
    for (int i = 0; asp != nullptr && asp->requests != nullptr && i < asp->vbcount; i++) {
        if (asp->requests[i].requestvb == var) {
            return &asp->requests[i];
        }
    }
    return nullptr;
}
