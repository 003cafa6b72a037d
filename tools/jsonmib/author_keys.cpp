/* The keys of documents. */

#include "author_keys.h"

#include "tpg.h"

#include <algorithm>
#include <numeric>
#include <vector>

using need = author_need;
using misfit = author_misfit;

static_assert(AUTHOR_STRING_MAX == JSONMIB_CELL_MAX - 1); /* a zero byte ends it */

constexpr author_limits_t ANY = {INT32_MIN, INT32_MAX};
constexpr author_limits_t COUNT = {0, INT32_MAX};
constexpr author_limits_t OID = {1, TPG_OID_MAX, TPG_OID_MAX};
constexpr author_limits_t TABLE_OID = {1, TPG_OID_MAX, TPG_OID_MAX, true};
constexpr author_limits_t BINDING_OID = {1, TPG_OID_MAX};
constexpr author_limits_t LIST = {0, INT32_MAX};
constexpr author_limits_t COLUMNS = {1, INT32_MAX, INT64_MAX, true};
constexpr author_limits_t NAME = {1, JSONMIB_NAME_MAX - 1};
constexpr author_limits_t TEXT = {0, INT32_MAX};
constexpr author_limits_t INDEXES = {0, 2, JSONMIB_INDEX_MAX};
constexpr author_limits_t INDEX_END = {1, INT32_MAX};
constexpr author_limits_t TYPE = {JSONMIB_TYPE_INT, JSONMIB_TYPE_STRING};
constexpr author_limits_t FAULT_VAR = {1, INT32_MAX, INT64_MAX, true};

const author_shape_t author_oid_shape = {
    "oid", "an OID", "An OID, one sub-identifier after the other.", {}, false, false};

constexpr author_key_t index_keys[] = {
    {"range0", json_type_int, need::required, misfit::converted, INDEX_END, nullptr,
     "The lowest index, counted from 1.", "a range with 0 is no index at all"},
    {"range1", json_type_int, need::required, misfit::converted, INDEX_END, nullptr,
     "The highest index.", "a range with 0 is no index at all"},
};
const author_shape_t index_shape = {
    "index",    "an index", "A range of indexes, from 1; the card counts them from 0.",
    index_keys, false,      true};

constexpr author_key_t column_keys[] = {
    {"name", json_type_string, need::optional, misfit::passed_over, TEXT, nullptr,
     "The column's name, for the reader.", ""},
    {"var_id", json_type_int, need::optional, misfit::converted, COUNT, nullptr,
     "The card's number of the variable. 0 in a fault table, with a range of 1 to 2: the "
     "send-trap switch.",
     ""},
    {"type", json_type_int, need::wanted, misfit::converted, TYPE, nullptr,
     "1: INTEGER. 2: INTEGER, the card's value + 1. 3: OCTET STRING.",
     "any other type is read as a string and cannot be written"},
    {"range0", json_type_int, need::optional, misfit::converted, ANY, nullptr, "The lowest value.",
     ""},
    {"range1", json_type_int, need::optional, misfit::converted, ANY, nullptr,
     "The highest value; of a string, the greatest length in bytes, at most 255.", ""},
    {"read_only",
     json_type_boolean,
     need::optional,
     misfit::converted,
     {},
     nullptr,
     "The column cannot be written.",
     ""},
    {"table_index",
     json_type_boolean,
     need::optional,
     misfit::converted,
     {},
     nullptr,
     "The column shows an index of the row: column 1 the first, column 2 the second.",
     ""},
};
const author_shape_t author_column_shape = {
    "column", "a column", "A column; they are numbered from 1.", column_keys, false, true};

constexpr author_key_t trap_info_keys[] = {
    {"fault_present_var_id", json_type_int, need::required, misfit::passed_over, FAULT_VAR, nullptr,
     "The variable that the card names in its notify.", ""},
    {"specific_start", json_type_int, need::wanted, misfit::passed_over, COUNT, nullptr,
     "The number of the first row's trap.", "it is taken without its sign"},
    {"index_ofs_1", json_type_int, need::optional, misfit::passed_over, COUNT, nullptr,
     "What the number grows by from one first index to the next.", "it is taken without its sign"},
    {"index_ofs_2", json_type_int, need::optional, misfit::passed_over, COUNT, nullptr,
     "What the number grows by from one second index to the next.", "it is taken without its sign"},
};
constexpr author_shape_t trap_info_shape = {
    "trap_info",
    "trap_info",
    "How rows become trap numbers: specific_start + i1 * index_ofs_1 + i2 * index_ofs_2 + what the "
    "notify adds, with indexes counted from 0.",
    trap_info_keys,
    false,
    false};

constexpr author_key_t name_key = {
    "name",
    json_type_string,
    need::wanted,
    misfit::passed_over,
    NAME,
    nullptr,
    "The table's name, unique in the document; a fault table's switches are kept under it.",
    "the rest of it is cut off"};
constexpr author_key_t table_oid_key = {"oid",
                                        json_type_array,
                                        need::required,
                                        misfit::passed_over,
                                        TABLE_OID,
                                        &author_oid_shape,
                                        "The table's OID; its cells are OID.1.COLUMN.INDEXES.SLOT.",
                                        ""};
constexpr author_key_t index_array_key = {
    "index_array",
    json_type_array,
    need::optional,
    misfit::passed_over,
    INDEXES,
    &index_shape,
    "The indexes in front of the slot, which is every table's last index.",
    "rows of more than two indexes and the slot cannot be asked for"};
constexpr author_key_t param_array_key = {
    "param_array", json_type_array,      need::required, misfit::passed_over,
    COLUMNS,       &author_column_shape, "The columns.", ""};

constexpr author_key_t gen_table_keys[] = {name_key, table_oid_key, index_array_key,
                                           param_array_key};
const author_shape_t gen_table_shape = {"gen_table",    "a table", "A table of plain values.",
                                        gen_table_keys, false,     true};

constexpr author_key_t fault_table_keys[] = {name_key,
                                             table_oid_key,
                                             index_array_key,
                                             param_array_key,
                                             {"trap_info",
                                              json_type_object,
                                              need::required,
                                              misfit::passed_over,
                                              {},
                                              &trap_info_shape,
                                              trap_info_shape.text,
                                              ""}};
const author_shape_t fault_table_shape = {
    "fault_table",    "a fault table", "A table of alarms, which raise traps.",
    fault_table_keys, false,           true};

constexpr author_key_t binding_keys[] = {
    {"oid", json_type_array, need::wanted, misfit::passed_over, BINDING_OID, &author_oid_shape,
     "The binding is named OID.INDEX.SLOT.", "the binding goes without an OID"},
    {"specific", json_type_string, need::wanted, misfit::passed_over, TEXT, nullptr,
     "Ranges of trap numbers, \"1-16, 20-24\"; a single number is 7-7.", ""},
};
const author_shape_t binding_shape = {"binding",
                                      "a trap binding",
                                      "A text that goes with the traps of certain numbers.",
                                      binding_keys,
                                      false,
                                      false};

constexpr author_key_t document_keys[] = {
    {"enterprise_oid", json_type_array, need::optional, misfit::passed_over, OID, &author_oid_shape,
     "Traps are named OID.0.NUMBER.", ""},
    {"instslot_oid", json_type_array, need::optional, misfit::passed_over, OID, &author_oid_shape,
     "A trap names the card's slot as OID.SLOT.", ""},
    {"gen_table_array", json_type_array, need::optional, misfit::passed_over, LIST,
     &gen_table_shape, "Tables of plain values.", ""},
    {"fault_table_array", json_type_array, need::optional, misfit::passed_over, LIST,
     &fault_table_shape, "Tables of alarms.", ""},
    {"trap_var_bindings", json_type_array, need::optional, misfit::passed_over, LIST,
     &binding_shape, "Texts that go with traps.", ""},
};
const author_shape_t author_document = {
    "document", "a document", "A card's SNMP tables and traps.", document_keys, true, true};

constexpr const author_shape_t* shapes[] = {
    &author_document, &gen_table_shape,     &fault_table_shape, &trap_info_shape,
    &index_shape,     &author_column_shape, &binding_shape};

/* ---- names of keys ---- */

const author_key_t* author_key(const author_shape_t& shape, std::string_view name)
{
    const auto key = std::ranges::find(shape.keys, name, &author_key_t::name);
    return key == shape.keys.end() ? nullptr : &*key;
}

std::string_view author_key_owner(std::string_view name)
{
    for (const author_shape_t* shape : shapes) {
        if (author_key(*shape, name) != nullptr) {
            return shape->what;
        }
    }
    return {};
}

/* How many letters have to be put in, taken out or changed to make one word of the other. */
static size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < b.size(); j++) {
            const size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

/* Words cut short are meant, too: "var" for "var_id". */
static bool is_beginning(std::string_view name, std::string_view key)
{
    constexpr size_t SHORTEST = 3;
    return name.size() >= SHORTEST && key.starts_with(name);
}

std::string_view author_nearest_key(const author_shape_t& shape, std::string_view name,
                                    author_likeness likeness)
{
    constexpr size_t LONGEST = 64; /* no key is nearly as long */
    constexpr size_t MISSPELT = 2;
    const bool loose = likeness == author_likeness::loose;
    const size_t most = loose ? name.size() / 3 + 1 : MISSPELT;
    std::string_view nearest;
    size_t least = most + 1;
    for (const author_key_t& key : shape.keys) {
        const size_t distance = name.size() > LONGEST ? least
                                : loose && is_beginning(name, key.name)
                                    ? 1
                                    : edit_distance(name, key.name);
        if (distance < least) {
            nearest = key.name;
            least = distance;
        }
    }
    return nearest;
}
