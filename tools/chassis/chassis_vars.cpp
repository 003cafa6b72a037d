#include "chassis_vars.h"

#include "chassis_text.h"

#include <algorithm>

static chassis_code vars_made(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                              chassis_value_t* value);
static chassis_code vars_column(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                                chassis_value_t* value);
static chassis_code vars_board(uint32_t var, uint32_t index, chassis_value_t* value);
static bool column_has_row(const chassis_column_t& column, uint32_t index);
static chassis_value_t column_value(const chassis_column_t& column, unsigned slot_no,
                                    uint32_t index);
static bool range_has(const chassis_range_t& range, uint32_t index);

/* Product location, by row. */
constexpr uint32_t VAR_INSERTIONS = 34;
constexpr uint32_t VAR_REMOVALS = 35;
constexpr uint32_t VAR_PRODUCT = 36;

constexpr uint32_t SCALAR = 1;
constexpr uint32_t SLOT_ROWS = 15;
constexpr uint32_t LED_ROWS = 8;
constexpr uint32_t FAULT_ROWS = 21;

/* Variables of the controller board that are alike. */
struct board_vars_t {
    uint32_t first;
    uint32_t last;
    uint32_t rows;
    const char* text; /* their start value; null for integers, which start at 0 */
};

static const board_vars_t board_vars[] = {
    {VAR_INSERTIONS, VAR_REMOVALS, SLOT_ROWS, nullptr},
    {VAR_PRODUCT, VAR_PRODUCT, SLOT_ROWS, ""},
    /* hardware, with the LEDs and the management faults (present, send trap) among them */
    {39, 42, SCALAR, nullptr},
    {43, 43, SCALAR, "board hardware"},
    {44, 44, LED_ROWS, nullptr},
    {45, 45, SCALAR, nullptr},
    {46, 50, SCALAR, "board software"},
    {51, 52, FAULT_ROWS, nullptr},
    {54, 55, SCALAR, nullptr},
    /* network set-up */
    {56, 67, SCALAR, "192.0.2.1"},
    {68, 68, SCALAR, nullptr},
    {69, 69, SCALAR, "192.0.2.1"},
    {70, 70, SCALAR, nullptr},
    /* time management */
    {71, 73, SCALAR, nullptr},
    {74, 74, SCALAR, "192.0.2.1"},
    {75, 75, SCALAR, nullptr},
    {76, 76, SCALAR, "2000-01-01 00:00:00"},
    /* slot addresses, and one more of the software */
    {81, 82, SLOT_ROWS, "192.0.2.1"},
    {83, 83, SCALAR, nullptr},
    {84, 84, SLOT_ROWS, "192.0.2.1"},
    {85, 85, SLOT_ROWS, nullptr},
};

chassis_code chassis_vars_get(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                              chassis_value_t* value)
{
    const auto given = vars->values.find({var, index});
    if (given != vars->values.end()) {
        *value = given->second;
        return CHASSIS_OK;
    }
    const chassis_code code = vars_made(vars, var, index, value);
    const auto any_row = vars->any_row.find(var);
    if (code == CHASSIS_NO_ROW || any_row == vars->any_row.end()) {
        return code;
    }
    *value = any_row->second;
    return CHASSIS_OK;
}

void chassis_vars_put(chassis_vars_t* vars, uint32_t var, uint32_t index, chassis_value_t value)
{
    vars->values[{var, index}] = std::move(value);
}

void chassis_vars_locate(chassis_vars_t* vars, unsigned slot_no, int insertions, int removals,
                         std::string_view product)
{
    vars->location[{VAR_INSERTIONS, slot_no - 1}] = chassis_value_int(insertions);
    vars->location[{VAR_REMOVALS, slot_no - 1}] = chassis_value_int(removals);
    vars->location[{VAR_PRODUCT, slot_no - 1}] = chassis_value_text(product);
}

/* The value that nobody gave. */
static chassis_code vars_made(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                              chassis_value_t* value)
{
    const chassis_code code = vars_column(vars, var, index, value);
    if (code == CHASSIS_OK || !vars->board) {
        return code;
    }
    const auto located = vars->location.find({var, index});
    if (located != vars->location.end()) {
        *value = located->second;
        return CHASSIS_OK;
    }
    const chassis_code board_code = vars_board(var, index, value);
    return board_code == CHASSIS_NO_VARIABLE ? code : board_code;
}

static chassis_code vars_column(const chassis_vars_t* vars, uint32_t var, uint32_t index,
                                chassis_value_t* value)
{
    const auto [first, last] = vars->columns.equal_range(var);
    if (first == last) {
        return CHASSIS_NO_VARIABLE;
    }
    const auto found =
        std::find_if(first, last, [&](const auto& c) { return column_has_row(c.second, index); });
    if (found == last) {
        return CHASSIS_NO_ROW;
    }
    *value = column_value(found->second, vars->slot_no, index);
    return CHASSIS_OK;
}

static chassis_code vars_board(uint32_t var, uint32_t index, chassis_value_t* value)
{
    const auto* found =
        std::find_if(std::begin(board_vars), std::end(board_vars),
                     [&](const board_vars_t& b) { return var >= b.first && var <= b.last; });
    if (found == std::end(board_vars)) {
        return CHASSIS_NO_VARIABLE;
    }
    if (index >= found->rows) {
        return CHASSIS_NO_ROW;
    }
    *value = found->text != nullptr ? chassis_value_text(found->text) : chassis_value_int(0);
    return CHASSIS_OK;
}

/* Whether a row of the column's table leads to this wire index. */
static bool column_has_row(const chassis_column_t& column, uint32_t index)
{
    switch (column.indexes.size()) {
    case 0:
        return index == 0;
    case 1:
        return range_has(column.indexes[0], index);
    case 2:
        return range_has(column.indexes[0], index >> 8U) &&
               range_has(column.indexes[1], index & 0xffU);
    default:
        return false; /* a table that no request can be made of */
    }
}

static bool range_has(const chassis_range_t& range, uint32_t index)
{
    return index >= range.low - 1 && index <= range.high - 1;
}

static chassis_value_t column_value(const chassis_column_t& column, unsigned slot_no,
                                    uint32_t index)
{
    if (column.kind == chassis_kind::integer) {
        return chassis_value_int(column.number);
    }
    const std::string text =
        column.name + "-" + std::to_string(slot_no) + "-" + std::to_string(index);
    return chassis_value_text(std::string_view(text).substr(0, column.text_max));
}

chassis_value_t chassis_value_int(int32_t number)
{
    return {chassis_kind::integer, number, {}};
}

chassis_value_t chassis_value_text(std::string_view text)
{
    return {chassis_kind::text, 0, std::string(text)};
}

std::string chassis_value_format(const chassis_value_t& value)
{
    return value.kind == chassis_kind::integer ? std::to_string(value.number)
                                               : chassis_text_quote(value.text);
}

const char* chassis_code_text(int code)
{
    switch (code) {
    case CHASSIS_OK:
        return "";
    case CHASSIS_NO_VARIABLE:
        return "no such variable";
    case CHASSIS_NO_ROW:
        return "no such index";
    case CHASSIS_BAD_LENGTH:
        return "wrong length for the variable";
    default:
        return "refused";
    }
}
