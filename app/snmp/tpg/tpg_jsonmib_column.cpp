/* Columns: one row for each type, and what makes a fault state or a switch. */
#include "tpg_jsonmib_column.h"

#include "tpg_snmp.h"

#include <algorithm>
#include <climits>

/* A further type is a further row here, and a number in tpg.h. */
struct column_type_t {
    uint8_t type;
    jsonmib_coding_t coding;
};
constexpr column_type_t TYPES[] = {
    {JSONMIB_TYPE_INT,
     {.served = ASN_INTEGER, .accepted = ASN_INTEGER, .shift = 0, .shift_from = 0}},
    {JSONMIB_TYPE_INT_SHIFTED,
     {.served = ASN_INTEGER, .accepted = ASN_INTEGER, .shift = 1, .shift_from = 1}},
    {JSONMIB_TYPE_STRING,
     {.served = ASN_OCTET_STR, .accepted = ASN_OCTET_STR, .shift = 0, .shift_from = 0}},
};
/* Of any other type: read like a string, written by neither integers nor strings. */
constexpr jsonmib_coding_t OTHER = {
    .served = ASN_OCTET_STR, .accepted = ASN_NULL, .shift = 0, .shift_from = 0};

static jsonmib_kind_t kind_of(uint32_t table_flags, const jsonmib_table_param_info_t* param)
{
    const bool fault = (table_flags & JSONMIB_TABLE_FAULT) != 0;
    if (fault && param->var_id != 0 && param->range[0] == 0 && param->range[1] == 0) {
        return jsonmib_kind_t::fault_state;
    }
    if (fault && param->var_id == 0 && param->range[0] != 0 && param->range[1] != 0) {
        return jsonmib_kind_t::send_trap;
    }
    return jsonmib_kind_t::variable;
}

void jsonmib_column_decide(uint32_t table_flags, jsonmib_table_param_info_t* param)
{
    const auto* known = std::ranges::find(TYPES, param->type, &column_type_t::type);
    param->coding = known == std::end(TYPES) ? OTHER : known->coding;
    param->kind = kind_of(table_flags, param);
    if (param->kind == jsonmib_kind_t::fault_state) {
        /* The card counts from 0 whatever the type; that decides what a manager may write. */
        param->coding.served = ASN_INTEGER;
        param->coding.shift = 1;
        param->coding.shift_from = INT32_MIN;
    }
}

bool jsonmib_column_is_index(const jsonmib_table_param_info_t* param)
{
    return (param->flags & JSONMIB_PARAM_INDEX) != 0;
}

bool jsonmib_column_takes_integers(const jsonmib_table_param_info_t* param)
{
    return param->coding.accepted == ASN_INTEGER;
}

bool jsonmib_column_is_own(const jsonmib_table_param_info_t* param)
{
    return jsonmib_column_is_index(param) || param->kind == jsonmib_kind_t::send_trap;
}
