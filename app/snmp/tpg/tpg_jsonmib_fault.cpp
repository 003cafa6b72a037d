#include "tpg_jsonmib_fault.h"

#include "tpg_db.h"
#include "tpg_jsonmib_rows.h"
#include "tpg_log.h"

static int unread(tpg_context_t*, const jsonmib_ask_t*, int);
static int string_unwritten(tpg_context_t*, const jsonmib_ask_t*, int);
static int switch_position(const jsonmib_cell_t*, uint32_t*);
static int get_switch(const jsonmib_cell_t*);
static int set_switch(const jsonmib_cell_t*);

/* ---- columns ---- */

/* What a column of a fault table is. */
enum class column_kind {
    state,     /* a card variable counted from 0 */
    send_trap, /* the agent's own switch */
    regular,
};

static column_kind kind_of(const jsonmib_table_param_info_t* param)
{
    if (param->var_id != 0 && param->range[0] == 0 && param->range[1] == 0) {
        return column_kind::state;
    }
    if (param->var_id == 0 && param->range[0] != 0 && param->range[1] != 0) {
        return column_kind::send_trap;
    }
    return column_kind::regular;
}

bool jsonmib_fault_is_switch(const jsonmib_table_param_info_t* param)
{
    return kind_of(param) == column_kind::send_trap;
}

bool jsonmib_fault_is_state(const jsonmib_table_param_info_t* param)
{
    return kind_of(param) == column_kind::state;
}

int jsonmib_fault_get(const jsonmib_cell_t* cell, jsonmib_ask_t* ask, bool* asks)
{
    const jsonmib_table_param_info_t* param = cell->param;
    if ((param->flags & JSONMIB_PARAM_INDEX) != 0) {
        return jsonmib_cell_serve_index(cell);
    }
    DEBUGMSGTL((
        "jsonmib", "MODE_GET: param_info: type %d, access %d, flags %d, var_id %d, range[%d:%d]\n",
        param->type, param->access, param->flags, param->var_id, param->range[0], param->range[1]));
    const column_kind kind = kind_of(param);
    if (kind == column_kind::send_trap) {
        return get_switch(cell);
    }
    *ask = jsonmib_cell_ask(cell, param->range[1]);
    if (kind == column_kind::state) {
        ask->type = ASN_INTEGER;
        ask->length = sizeof(int32_t);
        ask->shift = 1;
    } else {
        DEBUGMSGTL(("jsonmib", "regular trap table param var_id %d range[%d:%d]\n", param->var_id,
                    param->range[0], param->range[1]));
        TPG_ERROR(cell->ctx, "regular trap table param var_id %d range[%d:%d] ,type=%d",
                  param->var_id, param->range[0], param->range[1], param->type);
    }
    ask->failed = unread;
    *asks = true;
    return SNMP_ERR_NOERROR;
}

static int unread(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)result;
    TPG_ERROR(ctx, "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x", ask->slot_no,
              ask->var_id, ask->index);
    return SNMP_ERR_GENERR;
}

int jsonmib_fault_set(const jsonmib_cell_t* cell)
{
    const jsonmib_table_param_info_t* param = cell->param;
    const column_kind kind = kind_of(param);
    if (kind == column_kind::state) {
        const auto written = static_cast<uint32_t>(jsonmib_cell_written_integer(cell));
        return jsonmib_cell_write_integer(cell, static_cast<int32_t>(written - 1));
    }
    if (kind == column_kind::send_trap) {
        return set_switch(cell);
    }
    DEBUGMSGTL(("jsonmib", "regular trap table param var_id %d range[%d:%d]\n", param->var_id,
                param->range[0], param->range[1]));
    if (jsonmib_cell_is_integer(param)) {
        return jsonmib_cell_write_integer(cell, jsonmib_cell_card_integer(cell));
    }
    return jsonmib_cell_write_string(cell, string_unwritten);
}

static int string_unwritten(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)result;
    TPG_ERROR(ctx, "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x, value %.*s",
              ask->slot_no, ask->var_id, ask->index, static_cast<int>(JSONMIB_CELL_MAX),
              reinterpret_cast<const char*>(ask->data));
    return SNMP_ERR_GENERR;
}

/* ---- send-trap switches ---- */

/*
 * The flat position of the row's send-trap switch. Out of the slot's row it is
 * refused with tooBig, a status that managers of these cards have come to know.
 */
static int switch_position(const jsonmib_cell_t* cell, uint32_t* position)
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

static int get_switch(const jsonmib_cell_t* cell)
{
    uint32_t position = 0;
    const int status = switch_position(cell, &position);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    const uint8_t* row = jsonmib_sendtrap_row(cell->table, cell->instance);
    return jsonmib_cell_serve_integer(cell, jsonmib_sendtrap_test(row, position) ? SWITCH_ON
                                                                                 : SWITCH_OFF);
}

static int set_switch(const jsonmib_cell_t* cell)
{
    uint32_t position = 0;
    const int status = switch_position(cell, &position);
    if (status != SNMP_ERR_NOERROR) {
        return status;
    }
    uint8_t* row = jsonmib_sendtrap_row(cell->table, cell->instance);
    jsonmib_sendtrap_store(row, position, jsonmib_cell_written_integer(cell) != SWITCH_OFF);
    tpg_db_update_sendtrap_persistence(cell->ctx, cell->table, static_cast<int>(cell->instance));
    return SNMP_ERR_NOERROR;
}
