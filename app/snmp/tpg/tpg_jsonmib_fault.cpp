/* Columns of fault tables, and the send-trap switches. */
#include "tpg_jsonmib_fault.h"

#include "tpg_db.h"
#include "tpg_jsonmib_index.h"
#include "tpg_jsonmib_rows.h"
#include "tpg_log.h"

static int unread(tpg_context_t*, const jsonmib_ask_t*, int);
static int string_unwritten(tpg_context_t*, const jsonmib_ask_t*, int);
static int switch_position(const jsonmib_cell_t*, uint32_t*);
static int get_switch(const jsonmib_cell_t*);
static int set_switch(const jsonmib_cell_t*);

/* ---- columns ---- */

/* Those of the card that are no fault state; managers' tools read the texts. */
static void debug_regular(const jsonmib_table_param_info_t* param)
{
    DEBUGMSGTL(("jsonmib", "regular trap table param var_id %d range[%d:%d]\n", param->var_id,
                param->range[0], param->range[1]));
}

int jsonmib_fault_get(const jsonmib_cell_t* cell, jsonmib_ask_t* ask, bool* asks)
{
    const jsonmib_table_param_info_t* param = cell->param;
    if (param->kind == jsonmib_kind_t::send_trap) {
        return get_switch(cell);
    }
    if (param->kind == jsonmib_kind_t::variable) {
        debug_regular(param);
        TPG_ERROR(cell->ctx, "regular trap table param var_id %d range[%d:%d] ,type=%d",
                  param->var_id, param->range[0], param->range[1], param->type);
    }
    *ask = jsonmib_cell_ask(cell, param->range[1]);
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
    const jsonmib_kind_t kind = cell->param->kind;
    if (kind == jsonmib_kind_t::send_trap) {
        return set_switch(cell);
    }
    if (kind == jsonmib_kind_t::variable) {
        debug_regular(cell->param);
    }
    return jsonmib_cell_write(cell, string_unwritten);
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
 * The position of the row's send-trap switch. It is told from as many bytes of
 * the card's index as the row has indexes: of a table's only index, the values
 * above 256 share the switches of those below. Out of the slot's row it is
 * refused with tooBig, a status that managers of these cards have come to know.
 */
static int switch_position(const jsonmib_cell_t* cell, uint32_t* position)
{
    const uint32_t total = cell->row->number_indexes - 1; /* the last one is the slot */
    const uint32_t index = jsonmib_index_bytes(cell->index, total);
    const uint64_t flat = jsonmib_index_position(cell->table, index, total);
    if (flat >= JSONMIB_SENDTRAP_POSITIONS) {
        const jsonmib_index_parts_t parts = jsonmib_index_parts(index, total);
        TPG_ERROR(cell->ctx,
                  "xxxSendTrap index Out of range. index2(%d)*index2_max(%d)+index1(%d) >= (%d)",
                  parts.part[0], cell->table->index_info[1].range[1], parts.part[1],
                  JSONMIB_SENDTRAP_POSITIONS);
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
