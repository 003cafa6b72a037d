/* Columns of generic tables: what is asked, and what is logged without an answer. */
#include "tpg_jsonmib_gen.h"

#include "tpg_log.h"

static int integer_unread(tpg_context_t*, const jsonmib_ask_t*, int);
static int string_unread(tpg_context_t*, const jsonmib_ask_t*, int);
static int string_unwritten(tpg_context_t*, const jsonmib_ask_t*, int);

int jsonmib_gen_get(const jsonmib_cell_t* cell, jsonmib_ask_t* ask, bool* asks)
{
    const jsonmib_table_param_info_t* param = cell->param;
    TPG_TRACE(cell->ctx, "snmpread",
              "MODE_GET: param_info: type %d, access %d, flags %d, var_id %d, range[%d:%d]",
              param->type, param->access, param->flags, param->var_id, param->range[0],
              param->range[1]);
    const int32_t longest = param->range[1];
    *ask = jsonmib_cell_ask(cell, longest < INT32_MAX ? longest + 1 : longest);
    ask->failed = ask->type == ASN_INTEGER ? integer_unread : string_unread;
    *asks = true;
    return SNMP_ERR_NOERROR;
}

static int integer_unread(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)result;
    TPG_ERROR(ctx, "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x, length 4",
              ask->slot_no, ask->var_id, ask->index);
    return SNMP_ERR_GENERR;
}

static int string_unread(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    constexpr uint32_t QUIET_VAR_ID = 18; /* absent on most cards: its failure is no news */
    if (ask->var_id != QUIET_VAR_ID) {
        TPG_DEBUG(ctx,
                  "jsonmib_ctrl_get failed, instance %d, var_id %d, index 0x%x, length %d, ret=%d",
                  ask->slot_no, ask->var_id, ask->index, ask->range_max, result);
    }
    return SNMP_ERR_GENERR;
}

int jsonmib_gen_set(const jsonmib_cell_t* cell)
{
    return jsonmib_cell_write(cell, string_unwritten);
}

static int string_unwritten(tpg_context_t* ctx, const jsonmib_ask_t* ask, int result)
{
    (void)result;
    TPG_ERROR(
        ctx, "jsonmib_ctrl_set failed, instance %d, var_id %d, index 0x%x,len=(%d,%zu), value %.*s",
        ask->slot_no, ask->var_id, ask->index, ask->length, ask->written_len,
        static_cast<int>(JSONMIB_CELL_MAX), reinterpret_cast<const char*>(ask->data));
    const uint8_t* byte = ask->data;
    TPG_ERROR(ctx,
              "           hexval: %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x "
              "%02x %02x %02x %02x",
              byte[0], byte[1], byte[2], byte[3], byte[4], byte[5], byte[6], byte[7], byte[8],
              byte[9], byte[10], byte[11], byte[12], byte[13], byte[14], byte[15]);
    return SNMP_ERR_GENERR;
}
