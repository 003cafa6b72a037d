#ifndef CHASSIS_VARS_H
#define CHASSIS_VARS_H

/*
 * The variables of one slot: values that were given, and behind them the ones
 * made from the card's document or fixed for the controller board.
 */

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* What a daemon answers; the texts go into the reply to a set. */
enum chassis_code : int8_t {
    CHASSIS_OK = 0,
    CHASSIS_NO_VARIABLE = -1,
    CHASSIS_NO_ROW = -2,
    CHASSIS_BAD_LENGTH = -3,
};

enum class chassis_kind : uint8_t {
    integer,
    text,
};

struct chassis_value_t {
    chassis_kind kind;
    int32_t number;
    std::string text; /* any bytes */
};

/* The values one index of a table takes, counted as SNMP does. */
struct chassis_range_t {
    uint32_t low;
    uint32_t high;
};

/* A column of a document that a card variable stands behind. */
struct chassis_column_t {
    std::string name;
    chassis_kind kind;
    int32_t number; /* start value of an integer, as the card holds it */
    size_t text_max;
    std::vector<chassis_range_t> indexes; /* without the slot */
};

using chassis_var_key_t = std::pair<uint32_t, uint32_t>; /* variable, wire index */

/* Looked up in this order: values, then rows that exist: any_row, location, columns, board. */
struct chassis_vars_t {
    unsigned slot_no;
    bool board; /* the controller board's variables are there too */
    std::map<chassis_var_key_t, chassis_value_t> values;
    std::map<uint32_t, chassis_value_t> any_row;           /* by variable: for every index */
    std::map<chassis_var_key_t, chassis_value_t> location; /* what the board sees plugged */
    std::multimap<uint32_t, chassis_column_t> columns;
};

/* The current value of a variable; CHASSIS_OK, CHASSIS_NO_VARIABLE or CHASSIS_NO_ROW. */
chassis_code chassis_vars_get(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                              chassis_value_t* value);

/* Gives a variable a value, whether it existed before or not. */
void chassis_vars_put(chassis_vars_t* vars, uint32_t var, uint32_t index, chassis_value_t value);

/* Stores what the board's product location table shows for slot_no. */
void chassis_vars_locate(chassis_vars_t* vars, unsigned slot_no, int insertions, int removals,
                         std::string_view product);

/* An integer or text value. */
chassis_value_t chassis_value_int(int32_t number);
chassis_value_t chassis_value_text(std::string_view text);

/* A value as the operator writes it: a number, or a quoted text. */
std::string chassis_value_format(const chassis_value_t& value);

/* The text of a result code; "" for CHASSIS_OK, "refused" for a code it does not know. */
const char* chassis_code_text(int code);

#endif
