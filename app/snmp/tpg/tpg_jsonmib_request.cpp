#include "tpg_jsonmib_request.h"

#include "tpg_db.h"
#include "tpg_jsonmib_ctrl.h"
#include "tpg_jsonmib_table.h"
#include "tpg_log.h"

#include <algorithm>
#include <cstring>

constexpr uint32_t CELL_BUF = 256; /* longest string value, in bytes */

/* One cell and what is asked of it. */
struct cell_request_t {
    tpg_context_t* ctx;
    jsonmib_table_info_t* table;
    const jsonmib_table_param_info_t* param;
    netsnmp_variable_list* var;
    const netsnmp_table_request_info* row; /* its index values */
    int mode;
    uint32_t colnum;
    uint32_t instance;   /* card slot */
    uint32_t index;      /* of the variable, as the card counts */
    uint32_t index2_max; /* three-index fault tables: highest second index */
};

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
static int locate_cell(cell_request_t*, netsnmp_table_request_info*);
static int locate_row(cell_request_t*);
static int set_phase(const cell_request_t*, int (*)(const cell_request_t*));
static int check_write(const cell_request_t*);
static int get_index_column(const cell_request_t*);
static int serve_integer(const cell_request_t*, int32_t);
static int serve_string(const cell_request_t*, const char*, uint32_t);
static int32_t written_integer(const netsnmp_variable_list*);
static int32_t to_card_value(const jsonmib_table_param_info_t*, int32_t);
static uint32_t string_length(int32_t);
static int gen_get(const cell_request_t*);
static int gen_get_string(const cell_request_t*);
static int gen_set_action(const cell_request_t*);
static int gen_set_string(const cell_request_t*);
static int fault_get(const cell_request_t*);
static int fault_get_integer(const cell_request_t*, bool);
static int fault_get_string(const cell_request_t*);
static int fault_get_switch(const cell_request_t*);
static int fault_set_action(const cell_request_t*);
static int fault_set_integer(const cell_request_t*, int32_t);
static int fault_set_string(const cell_request_t*);
static int fault_set_switch(const cell_request_t*);
static int switch_position(const cell_request_t*, uint32_t*);

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

/* Index values count from 1 in SNMP and from 0 on the card, the first one in the higher byte. */
static int locate_row(cell_request_t* cell)
{
    const jsonmib_table_info_t* table = cell->table;
    const bool fault = (table->flags & JSONMIB_TABLE_FAULT) != 0;
    const uint32_t total = cell->row->number_indexes;
    uint32_t value[3] = {};
    const netsnmp_variable_list* index = cell->row->indexes;
    for (uint32_t i = 0; i < std::min<uint32_t>(total, 3) && index != nullptr; i++) {
        value[i] = static_cast<uint32_t>(*index->val.integer);
        index = index->next_variable;
    }
    const uint32_t index1_max = table->index_info[0].range[1];
    switch (total) {
    case 1:
        DEBUGMSGTL(("jsonmib", "single indexed\n"));
        cell->instance = value[0];
        break;
    case 2:
        cell->instance = value[1];
        cell->index = value[0] - 1;
        if (fault) {
            DEBUGMSGTL(("jsonmib", "double indexed, index = 0x%x, index_max = %d:%d\n", cell->index,
                        index1_max, 0U));
        } else {
            DEBUGMSGTL(("jsonmib", "double indexed, index = 0x%x\n", cell->index));
        }
        break;
    case 3:
        cell->instance = value[2];
        cell->index = ((value[0] - 1) << 8U) | (value[1] - 1);
        cell->index2_max = table->index_info[1].range[1];
        if (fault) {
            DEBUGMSGTL(("jsonmib", "triple indexed, index = 0x%x, index_max = %d:%d\n", cell->index,
                        index1_max, cell->index2_max));
        } else {
            DEBUGMSGTL(("jsonmib", "triple indexed, index = 0x%x\n", cell->index));
        }
        break;
    default:
        DEBUGMSGTL(("jsonmib", "invalid number_indexes = %d\n", total));
        TPG_ERROR(cell->ctx, "invalid number_indexes = %d", total);
        return SNMP_ERR_GENERR;
    }
    if (cell->instance < 1 || cell->instance > TPG_SLOT_MAX) {
        TPG_ERROR(cell->ctx, "invalid instance %u", cell->instance);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* Fills instance, index, colnum and param; an SNMP error status when the cell cannot be. */
static int locate_cell(cell_request_t* cell, netsnmp_table_request_info* table_reqinfo)
{
    const int status = locate_row(cell);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    cell->colnum = table_reqinfo->colnum;
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

static void debug_param(const jsonmib_table_param_info_t* param)
{
    DEBUGMSGTL((
        "jsonmib", "MODE_GET: param_info: type %d, access %d, flags %d, var_id %d, range[%d:%d]\n",
        param->type, param->access, param->flags, param->var_id, param->range[0], param->range[1]));
}

/* Index columns are expected to be columns 1 and 2. */
static int get_index_column(const cell_request_t* cell)
{
    const auto first = static_cast<unsigned long>(*cell->row->indexes->val.integer);
    DEBUGMSGTL(("jsonmib", "MODE_GET: table index: number_indexes %d, index %lu\n",
                cell->row->number_indexes, first));
    TPG_DEBUG(cell->ctx, "MODE_GET: table index: number_indexes %d, index %lu",
              cell->row->number_indexes, first);
    const netsnmp_variable_list* index = cell->row->indexes;
    if (cell->colnum == 2 && index != nullptr) {
        index = index->next_variable;
    }
    if (cell->colnum > 2 || index == nullptr) {
        TPG_ERROR(cell->ctx, "invalid colnum %d for a index parameter!", cell->colnum);
        return SNMP_ERR_NOACCESS;
    }
    snmp_set_var_typed_value(cell->var, ASN_INTEGER, index->val.integer, sizeof(long));
    return SNMP_ERR_NOERROR;
}

static int serve_integer(const cell_request_t* cell, int32_t value)
{
    snmp_set_var_typed_value(cell->var, ASN_INTEGER, &value, sizeof(value));
    return SNMP_ERR_NOERROR;
}

/* Serves the text up to its first zero byte, or all length bytes when it has none. */
static int serve_string(const cell_request_t* cell, const char* text, uint32_t length)
{
    const size_t used = strnlen(text, length);
    if (snmp_set_var_typed_value(cell->var, ASN_OCTET_STR, text, used) != 0) {
        TPG_ERROR(cell->ctx, "no memory for a string of %zu bytes, instance %u, var_id %u", used,
                  cell->instance, cell->param->var_id);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* The bytes of a string that are asked for, bounded by the buffer they go to. */
static uint32_t string_length(int32_t wanted)
{
    return static_cast<uint32_t>(std::clamp<int32_t>(wanted, 0, CELL_BUF));
}

/* The value as an integer, whatever its type: the leading bytes of it that a long can hold. */
static int32_t written_integer(const netsnmp_variable_list* var)
{
    long value = 0;
    if (var->val.string != nullptr) {
        memcpy(&value, var->val.string, std::min(var->val_len, sizeof(value)));
    }
    return static_cast<int32_t>(value);
}

static int32_t to_card_value(const jsonmib_table_param_info_t* param, int32_t value)
{
    return param->type == JSONMIB_TYPE_INT_SHIFTED && value > 0 ? value - 1 : value;
}

static bool is_integer_param(const jsonmib_table_param_info_t* param)
{
    return param->type == JSONMIB_TYPE_INT || param->type == JSONMIB_TYPE_INT_SHIFTED;
}

static int check_write(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    const netsnmp_variable_list* var = cell->var;
    if (param->access == JSONMIB_ACCESS_RO) {
        return SNMP_ERR_READONLY;
    }
    if (var->type == ASN_INTEGER) {
        if (!is_integer_param(param)) {
            return SNMP_ERR_WRONGTYPE;
        }
        const long value = *var->val.integer;
        return value < param->range[0] || value > param->range[1] ? SNMP_ERR_WRONGVALUE
                                                                  : SNMP_ERR_NOERROR;
    }
    if (var->type == ASN_OCTET_STR) {
        if (param->type != JSONMIB_TYPE_STRING) {
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

/* The card is written in the ACTION phase and never asked to undo. */
static int set_phase(const cell_request_t* cell, int (*action)(const cell_request_t*))
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
        return action(cell);
    case MODE_SET_COMMIT:
        debug_set_phase("MODE_SET_COMMIT", cell->var);
        break;
    case MODE_SET_FREE:
        debug_set_phase("MODE_SET_FREE", cell->var);
        break;
    case MODE_SET_UNDO:
        debug_set_phase("MODE_SET_UNDO", cell->var);
        break;
    default:
        DEBUGMSGTL(("jsonmib", "invalid reqinfo->mode %d\n", cell->mode));
        break;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- generic tables ---- */

int jsonmib_gen_table_proc_agent_request(netsnmp_variable_list* var,
                                         netsnmp_table_request_info* table_reqinfo,
                                         netsnmp_table_request_info* iterator_reqinfo,
                                         netsnmp_agent_request_info* agent_reqinfo,
                                         jsonmib_table_info_t* jsonmib_table_info)
{
    tpg_context_t* ctx = jsonmib_table_info->tpg_context;
    cell_request_t cell = {};
    cell.ctx = ctx;
    cell.table = jsonmib_table_info;
    cell.var = var;
    cell.row = iterator_reqinfo;
    cell.mode = agent_reqinfo->mode;
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_gen_table_proc_agent_request\n"));
    DEBUGMSGTL(("jsonmib", "table_reqinfo[%p], iterator_reqinfo[%p]\n",
                static_cast<void*>(table_reqinfo), static_cast<void*>(iterator_reqinfo)));
    TPG_DEBUG(ctx, "%s(): num_indexes=%d", __func__, iterator_reqinfo->number_indexes);
    int status = locate_cell(&cell, table_reqinfo);
    if (status == SNMP_ERR_NOERROR) {
        TPG_DEBUG(ctx, "mode %d, colnum %d, instance %d, index 0x%x, MOD_GET=%d", cell.mode,
                  cell.colnum, cell.instance, cell.index, MODE_GET);
        status = cell.mode == MODE_GET ? gen_get(&cell) : set_phase(&cell, gen_set_action);
    }
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_gen_table_proc_agent_request\n"));
    return status;
}

static int gen_get(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    if ((param->flags & JSONMIB_PARAM_INDEX) != 0) {
        return get_index_column(cell);
    }
    debug_param(param);
    TPG_TRACE(cell->ctx, "snmpread",
              "MODE_GET: param_info: type %d, access %d, flags %d, var_id %d, range[%d:%d]",
              param->type, param->access, param->flags, param->var_id, param->range[0],
              param->range[1]);
    if (!is_integer_param(param)) {
        return gen_get_string(cell);
    }
    int32_t value = 0;
    if (jsonmib_ctrl_get(cell->ctx, cell->instance, param->var_id, cell->index, &value,
                         sizeof(value)) != 0) {
        TPG_ERROR(cell->ctx,
                  "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x, length 4",
                  cell->instance, param->var_id, cell->index);
        return SNMP_ERR_GENERR;
    }
    const uint32_t shift = param->type == JSONMIB_TYPE_INT_SHIFTED ? 1 : 0;
    return serve_integer(cell, static_cast<int32_t>(static_cast<uint32_t>(value) + shift));
}

static int gen_get_string(const cell_request_t* cell)
{
    constexpr uint32_t QUIET_VAR_ID = 18; /* absent on most cards: its failure is no news */
    const jsonmib_table_param_info_t* param = cell->param;
    char text[CELL_BUF] = {};
    const uint32_t length =
        string_length(param->range[1] < INT32_MAX ? param->range[1] + 1 : param->range[1]);
    const int ret =
        jsonmib_ctrl_get(cell->ctx, cell->instance, param->var_id, cell->index, text, length);
    if (ret != 0) {
        if (param->var_id != QUIET_VAR_ID) {
            TPG_DEBUG(cell->ctx,
                      "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x, length %d, "
                      "ret=%d",
                      cell->instance, param->var_id, cell->index, param->range[1], ret);
        }
        return SNMP_ERR_GENERR;
    }
    return serve_string(cell, text, length);
}

static int gen_set_action(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    if (!is_integer_param(param)) {
        return gen_set_string(cell);
    }
    const int32_t value = to_card_value(param, written_integer(cell->var));
    if (jsonmib_ctrl_set(cell->ctx, cell->instance, param->var_id, cell->index, &value,
                         sizeof(value)) != 0) {
        TPG_ERROR(cell->ctx,
                  "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x, value %d",
                  cell->instance, param->var_id, cell->index, value);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

/* The written bytes, cut to the buffer; returns their number. */
static uint32_t written_string(const netsnmp_variable_list* var, char (*text)[CELL_BUF])
{
    const auto length = static_cast<uint32_t>(std::min<size_t>(var->val_len, CELL_BUF));
    if (var->val.string == nullptr) {
        return 0;
    }
    memcpy(*text, var->val.string, length);
    return length;
}

static int gen_set_string(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    char text[CELL_BUF] = {};
    const uint32_t length = written_string(cell->var, &text);
    if (jsonmib_ctrl_set(cell->ctx, cell->instance, param->var_id, cell->index, text, length) ==
        0) {
        return SNMP_ERR_NOERROR;
    }
    TPG_ERROR(
        cell->ctx,
        "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x,len=(%d,%zu), value %.*s",
        cell->instance, param->var_id, cell->index, length, cell->var->val_len,
        static_cast<int>(CELL_BUF), text);
    const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    TPG_ERROR(cell->ctx,
              "           hexval: %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x "
              "%02x %02x %02x %02x",
              byte(0), byte(1), byte(2), byte(3), byte(4), byte(5), byte(6), byte(7), byte(8),
              byte(9), byte(10), byte(11), byte(12), byte(13), byte(14), byte(15));
    return SNMP_ERR_GENERR;
}

/* ---- fault tables ---- */

/* What a column of a fault table is. */
enum class fault_column {
    state,     /* a card variable counted from 0 */
    send_trap, /* the agent's own switch */
    regular,
};

static fault_column fault_column_kind(const jsonmib_table_param_info_t* param)
{
    if (param->var_id != 0 && param->range[0] == 0 && param->range[1] == 0) {
        return fault_column::state;
    }
    if (param->var_id == 0 && param->range[0] != 0 && param->range[1] != 0) {
        return fault_column::send_trap;
    }
    return fault_column::regular;
}

int jsonmib_fault_table_proc_agent_request(netsnmp_variable_list* var,
                                           netsnmp_table_request_info* table_reqinfo,
                                           netsnmp_table_request_info* iterator_reqinfo,
                                           netsnmp_agent_request_info* agent_reqinfo,
                                           jsonmib_table_info_t* jsonmib_table_info)
{
    cell_request_t cell = {};
    cell.ctx = jsonmib_table_info->tpg_context;
    cell.table = jsonmib_table_info;
    cell.var = var;
    cell.row = iterator_reqinfo;
    cell.mode = agent_reqinfo->mode;
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_fault_table_proc_agent_request\n"));
    int status = locate_cell(&cell, table_reqinfo);
    if (status == SNMP_ERR_NOERROR) {
        status = cell.mode == MODE_GET ? fault_get(&cell) : set_phase(&cell, fault_set_action);
    }
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_fault_table_proc_agent_request\n"));
    return status;
}

static int fault_get(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    if ((param->flags & JSONMIB_PARAM_INDEX) != 0) {
        return get_index_column(cell);
    }
    debug_param(param);
    switch (fault_column_kind(param)) {
    case fault_column::state:
        return fault_get_integer(cell, true);
    case fault_column::send_trap:
        return fault_get_switch(cell);
    case fault_column::regular:
        break;
    }
    DEBUGMSGTL(("jsonmib", "regular trap table param var_id %d range[%d:%d]\n", param->var_id,
                param->range[0], param->range[1]));
    TPG_ERROR(cell->ctx, "regular trap table param var_id %d range[%d:%d] ,type=%d", param->var_id,
              param->range[0], param->range[1], param->type);
    if (!is_integer_param(param)) {
        return fault_get_string(cell);
    }
    return fault_get_integer(cell, param->type == JSONMIB_TYPE_INT_SHIFTED);
}

static int fault_get_failed(const cell_request_t* cell)
{
    TPG_ERROR(cell->ctx, "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x",
              cell->instance, cell->param->var_id, cell->index);
    return SNMP_ERR_GENERR;
}

static int fault_get_integer(const cell_request_t* cell, bool shifted)
{
    int32_t value = 0;
    if (jsonmib_ctrl_get(cell->ctx, cell->instance, cell->param->var_id, cell->index, &value,
                         sizeof(value)) != 0) {
        return fault_get_failed(cell);
    }
    const uint32_t shift = shifted ? 1 : 0;
    return serve_integer(cell, static_cast<int32_t>(static_cast<uint32_t>(value) + shift));
}

static int fault_get_string(const cell_request_t* cell)
{
    char text[CELL_BUF] = {};
    const uint32_t length = string_length(cell->param->range[1]);
    if (jsonmib_ctrl_get(cell->ctx, cell->instance, cell->param->var_id, cell->index, text,
                         length) != 0) {
        return fault_get_failed(cell);
    }
    return serve_string(cell, text, length);
}

/*
 * The flat position of the row's send-trap switch. Out of the slot's row it is
 * refused with tooBig, a status that managers of these cards have come to know.
 */
static int switch_position(const cell_request_t* cell, uint32_t* position)
{
    const uint32_t index1 = cell->index & 0xffU;
    const uint32_t index2 = (cell->index >> 8U) & 0xffU;
    uint64_t flat = 0;
    if (cell->row->number_indexes == 2) {
        flat = index1;
    } else if (cell->row->number_indexes == 3) {
        flat = static_cast<uint64_t>(index2) * cell->index2_max + index1;
    }
    if (flat >= JSONMIB_SENDTRAP_POSITIONS) {
        TPG_ERROR(cell->ctx,
                  "xxxSendTrap index Out of range. index2(%d)*index2_max(%d)+index1(%d) >= (%d)",
                  index2, cell->index2_max, index1, JSONMIB_SENDTRAP_POSITIONS);
        return SNMP_ERR_TOOBIG;
    }
    *position = static_cast<uint32_t>(flat);
    return SNMP_ERR_NOERROR;
}

bool jsonmib_sendtrap_test(const uint8_t* row, uint32_t position)
{
    const unsigned bits = row[position / JSONMIB_SENDTRAP_PER_BYTE];
    return (bits & (1U << (position % JSONMIB_SENDTRAP_PER_BYTE))) != 0;
}

void jsonmib_sendtrap_store(uint8_t* row, uint32_t position, bool on)
{
    uint8_t* bits = &row[position / JSONMIB_SENDTRAP_PER_BYTE];
    const auto bit = static_cast<uint8_t>(1U << (position % JSONMIB_SENDTRAP_PER_BYTE));
    *bits = static_cast<uint8_t>(on ? *bits | bit : *bits & ~bit);
}

constexpr int32_t SWITCH_OFF = 1; /* SNMP values of a send-trap switch */
constexpr int32_t SWITCH_ON = 2;

static int fault_get_switch(const cell_request_t* cell)
{
    uint32_t position = 0;
    const int status = switch_position(cell, &position);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    const uint8_t* row = jsonmib_sendtrap_row(cell->table, cell->instance);
    return serve_integer(cell, jsonmib_sendtrap_test(row, position) ? SWITCH_ON : SWITCH_OFF);
}

static int fault_set_switch(const cell_request_t* cell)
{
    uint32_t position = 0;
    const int status = switch_position(cell, &position);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    uint8_t* row = jsonmib_sendtrap_row(cell->table, cell->instance);
    jsonmib_sendtrap_store(row, position, written_integer(cell->var) != SWITCH_OFF);
    tpg_db_update_sendtrap_persistence(cell->ctx, cell->table, static_cast<int>(cell->instance));
    return SNMP_ERR_NOERROR;
}

static int fault_set_action(const cell_request_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    const fault_column kind = fault_column_kind(param);
    if (kind == fault_column::state) {
        const auto written = static_cast<uint32_t>(written_integer(cell->var));
        return fault_set_integer(cell, static_cast<int32_t>(written - 1));
    }
    if (kind == fault_column::send_trap) {
        return fault_set_switch(cell);
    }
    DEBUGMSGTL(("jsonmib", "regular trap table param var_id %d range[%d:%d]\n", param->var_id,
                param->range[0], param->range[1]));
    if (is_integer_param(param)) {
        return fault_set_integer(cell, to_card_value(param, written_integer(cell->var)));
    }
    return fault_set_string(cell);
}

static int fault_set_integer(const cell_request_t* cell, int32_t value)
{
    if (jsonmib_ctrl_set(cell->ctx, cell->instance, cell->param->var_id, cell->index, &value,
                         sizeof(value)) != 0) {
        TPG_ERROR(cell->ctx,
                  "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x, value %d",
                  cell->instance, cell->param->var_id, cell->index, value);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

static int fault_set_string(const cell_request_t* cell)
{
    char text[CELL_BUF] = {};
    const uint32_t length = written_string(cell->var, &text);
    if (jsonmib_ctrl_set(cell->ctx, cell->instance, cell->param->var_id, cell->index, text,
                         length) != 0) {
        TPG_ERROR(
            cell->ctx, "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x, value %.*s",
            cell->instance, cell->param->var_id, cell->index, static_cast<int>(CELL_BUF), text);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}
