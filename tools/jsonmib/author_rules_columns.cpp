/* Rules on columns: types, ranges, variables. */

#include "author_check.h"
#include "author_keys.h"

#include "tpg_jsonmib_column.h"

#include <algorithm>

namespace
{
/* A column and where it stands. */
struct place_t {
    author_doc_t* doc;
    const author_table_t* table;
    const author_column_t* column;
    const jsonmib_table_param_info_t* param;
    size_t number; /* from 1 */
};
} // namespace

static void warn(const place_t& place, std::string_view key, const std::string& text)
{
    author_warn(place.doc, author_member_at(*place.column->node, key),
                {place.table->label, place.column->label}, text);
}

static bool is_integer(const jsonmib_table_param_info_t& param)
{
    return jsonmib_column_takes_integers(&param);
}

static bool is_writable(const jsonmib_table_param_info_t& param)
{
    return param.access == JSONMIB_ACCESS_RW;
}

static std::string range_text(const jsonmib_table_param_info_t& param)
{
    return std::to_string(param.range[0]) + " to " + std::to_string(param.range[1]);
}

/* ---- index columns ---- */

static void check_index(const place_t& place)
{
    constexpr size_t SHOWN = 2; /* the agent shows the first two indexes of a row */
    const auto listed =
        static_cast<size_t>(std::ranges::count(place.table->indexes, true, &author_index_t::used));
    if (place.number > SHOWN) {
        warn(place, "table_index",
             "an index column has to be column 1 or 2, not " + std::to_string(place.number) +
                 ": it cannot be read");
    } else if (place.number > listed + 1) {
        warn(place, "table_index", "the rows have no second index to show: it cannot be read");
    }
    if (!is_integer(*place.param)) {
        warn(place, "type", "an index is an integer, its column's type has to be 1");
    }
    if (is_writable(*place.param)) {
        warn(place, "table_index", "an index column that can be written: no \"read_only\"");
    }
}

/* ---- columns of fault tables ---- */

static void check_state(const place_t& place)
{
    if (!is_integer(*place.param)) {
        warn(place, "type",
             "range 0 to 0 makes this a fault state, which is an integer, whatever its type");
    }
    if (is_writable(*place.param)) {
        warn(place, "range0",
             "a fault state that can be written, but only with 0: no \"read_only\"");
    }
}

static void check_switch(const place_t& place)
{
    if (place.param->range[0] != 1 || place.param->range[1] != 2) {
        warn(place, "range0",
             "a send-trap switch has the range 1 to 2, not " + range_text(*place.param));
    }
    if (!is_integer(*place.param)) {
        warn(place, "type", "a send-trap switch is an integer: its type has to be 1");
    }
    if (!is_writable(*place.param)) {
        warn(place, "read_only", "a send-trap switch that cannot be written");
    }
}

/* ---- ranges ---- */

static void check_string_range(const place_t& place)
{
    if (place.param->range[1] > AUTHOR_STRING_MAX) {
        warn(place, "range1",
             "strings have at most " + std::to_string(AUTHOR_STRING_MAX) + " bytes, not " +
                 std::to_string(place.param->range[1]));
    } else if (place.param->range[1] <= 0) {
        warn(place, "range1", "no room for a string: \"range1\" is its greatest length");
    } else if (place.param->range[0] > place.param->range[1]) {
        warn(place, "range0", "the range " + range_text(*place.param) + " is reversed");
    }
}

static void check_integer_range(const place_t& place)
{
    const jsonmib_table_param_info_t& param = *place.param;
    const bool reversed = param.range[1] < param.range[0];
    const bool repaired = !place.table->fault && is_writable(param) &&
                          (reversed || (param.range[0] == 0 && param.range[1] == 0));
    if (repaired) {
        warn(place, "range0",
             (reversed ? "the range " + range_text(param) + " is reversed"
                       : std::string("the range is 0 to 0")) +
                 "; the agent takes 0 to 2147483647");
    } else if (reversed) {
        warn(place, "range0",
             "the range " + range_text(param) + " is reversed" +
                 (is_writable(param) ? ": nothing can be written" : ""));
    } else if (param.type == JSONMIB_TYPE_INT_SHIFTED && is_writable(param) && param.range[0] < 1) {
        warn(place, "range0",
             "type 2 counts from 1: the range cannot begin with " + std::to_string(param.range[0]));
    }
}

static void check_range(const place_t& place)
{
    if (is_integer(*place.param)) {
        check_integer_range(place);
    } else {
        check_string_range(place);
    }
}

/* ---- all of a column ---- */

static void check_column(const place_t& place)
{
    const jsonmib_kind_t kind = place.param->kind;
    if (place.column->type != place.param->type) {
        warn(place, "type", "it counts as " + std::to_string(place.param->type));
    }
    if (jsonmib_column_is_index(place.param)) {
        check_index(place);
        return;
    }
    if (kind == jsonmib_kind_t::fault_state) {
        check_state(place);
    } else if (kind == jsonmib_kind_t::send_trap) {
        check_switch(place);
    } else {
        check_range(place);
    }
    if (kind == jsonmib_kind_t::variable && place.param->var_id == 0) {
        warn(place, "var_id",
             place.table->fault ? "no \"var_id\", though this is neither an index nor a switch"
                                : "no \"var_id\", though this is no index");
    }
}

/* Two columns of a table that show the same variable. */
static void check_variables(author_doc_t* doc, const author_table_t& table)
{
    std::vector<const author_column_t*> columns;
    for (const author_column_t& column : table.columns) {
        if (column.as_read.var_id != 0 && !jsonmib_column_is_index(&column.as_read)) {
            columns.push_back(&column);
        }
    }
    const auto var_id = [](const author_column_t* column) { return column->as_read.var_id; };
    std::ranges::stable_sort(columns, {}, var_id);
    for (size_t i = 1; i < columns.size(); i++) {
        if (var_id(columns[i]) == var_id(columns[i - 1])) {
            author_warn(doc, author_member_at(*columns[i]->node, "var_id"),
                        {table.label, columns[i]->label},
                        "variable " + std::to_string(var_id(columns[i])) +
                            " is also that of column " + author_quoted(columns[i - 1]->label));
        }
    }
}

void author_rules_columns(author_doc_t* doc)
{
    for (const author_table_t& table : doc->tables) {
        for (size_t i = 0; i < table.columns.size(); i++) {
            const author_column_t& column = table.columns[i];
            check_column({doc, &table, &column, &column.as_read, i + 1});
        }
        check_variables(doc, table);
    }
}
