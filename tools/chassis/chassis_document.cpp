#include "chassis_document.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

static int file_read(const std::string& path, std::string* content);
static void document_tables(chassis_vars_t* vars, json_object* root, const char* key, bool fault);
static std::vector<chassis_range_t> table_indexes(json_object* table);
static void document_column(chassis_vars_t* vars, json_object* param,
                            const std::vector<chassis_range_t>& indexes, bool fault);
static bool column_is_integer(json_object* param, bool fault);
static int32_t column_start(json_object* param, bool fault);
static json_object* member(json_object* obj, const char* key, json_type type);
static int64_t member_int(json_object* obj, const char* key);
static bool member_true(json_object* obj, const char* key);

/* The kinds of value a document's "type" tells. */
constexpr int64_t TYPE_INT = 1;
constexpr int64_t TYPE_INT_SHIFTED = 2; /* a card's 0 is SNMP's 1 */
constexpr int64_t TYPE_MASK = 0xff;

/* Longer values never reach SNMP. */
constexpr int64_t TEXT_MAX = 255;

chassis_json_t chassis_json_load(const std::string& path, int flags, std::string* error)
{
    std::string content;
    if (file_read(path, &content) != 0) {
        *error = strerror(errno);
        return nullptr;
    }
    json_tokener* tok = json_tokener_new();
    if (tok == nullptr || content.size() > INT_MAX) {
        *error = strerror(ENOMEM);
        return nullptr;
    }
    json_tokener_set_flags(tok, flags);
    chassis_json_t root(
        json_tokener_parse_ex(tok, content.data(), static_cast<int>(content.size())));
    const json_tokener_error result = json_tokener_get_error(tok);
    if (result != json_tokener_success) {
        *error = "byte " + std::to_string(json_tokener_get_parse_end(tok)) + ": ";
        *error += result == json_tokener_continue ? "the text ends too early"
                                                  : json_tokener_error_desc(result);
        root.reset();
    } else if (!json_object_is_type(root.get(), json_type_object)) {
        *error = "not a JSON object";
        root.reset();
    }
    json_tokener_free(tok);
    return root;
}

/* 0, or -1 with errno set. */
static int file_read(const std::string& path, std::string* content)
{
    const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "re"), fclose);
    if (!file) {
        return -1;
    }
    char block[4096];
    size_t count = 0;
    while ((count = fread(block, 1, sizeof(block), file.get())) > 0) {
        content->append(block, count);
    }
    return ferror(file.get()) != 0 ? -1 : 0;
}

int chassis_document_load(chassis_vars_t* vars, const std::string& path, std::string* error)
{
    const chassis_json_t root = chassis_json_load(path, 0, error);
    if (!root) {
        return -1;
    }
    document_tables(vars, root.get(), "gen_table_array", false);
    document_tables(vars, root.get(), "fault_table_array", true);
    return 0;
}

static void document_tables(chassis_vars_t* vars, json_object* root, const char* key, bool fault)
{
    json_object* tables = member(root, key, json_type_array);
    for (size_t t = 0; tables != nullptr && t < json_object_array_length(tables); t++) {
        json_object* table = json_object_array_get_idx(tables, t);
        json_object* params = member(table, "param_array", json_type_array);
        const std::vector<chassis_range_t> indexes = table_indexes(table);
        for (size_t p = 0; params != nullptr && p < json_object_array_length(params); p++) {
            document_column(vars, json_object_array_get_idx(params, p), indexes, fault);
        }
    }
}

/* The listed indexes that SNMP rows have: an index with a zero bound is none. */
static std::vector<chassis_range_t> table_indexes(json_object* table)
{
    std::vector<chassis_range_t> indexes;
    json_object* list = member(table, "index_array", json_type_array);
    for (size_t i = 0; list != nullptr && i < json_object_array_length(list); i++) {
        json_object* entry = json_object_array_get_idx(list, i);
        const auto low = static_cast<uint32_t>(member_int(entry, "range0"));
        const auto high = static_cast<uint32_t>(member_int(entry, "range1"));
        if (low != 0 && high != 0) {
            indexes.push_back({low, high});
        }
    }
    return indexes;
}

static void document_column(chassis_vars_t* vars, json_object* param,
                            const std::vector<chassis_range_t>& indexes, bool fault)
{
    const int64_t var = member_int(param, "var_id");
    const int64_t range1 = member_int(param, "range1");
    const bool send_trap_switch =
        fault && var == 0 && range1 != 0 && member_int(param, "range0") != 0;
    if (member_true(param, "table_index") || send_trap_switch) {
        return; /* the agent's own */
    }
    json_object* name = member(param, "name", json_type_string);
    chassis_column_t column = {};
    column.name = name != nullptr ? json_object_get_string(name) : "var" + std::to_string(var);
    column.kind = column_is_integer(param, fault) ? chassis_kind::integer : chassis_kind::text;
    column.number = column_start(param, fault);
    column.text_max = static_cast<size_t>(std::clamp(range1, int64_t{0}, TEXT_MAX));
    column.indexes = indexes;
    vars->columns.emplace(static_cast<uint32_t>(var), std::move(column));
}

/* A fault table's column without a range is a fault state, whatever its type says. */
static bool column_is_integer(json_object* param, bool fault)
{
    const int64_t type = member_int(param, "type") & TYPE_MASK;
    const bool fault_state =
        fault && member_int(param, "range0") == 0 && member_int(param, "range1") == 0;
    return fault_state || type == TYPE_INT || type == TYPE_INT_SHIFTED;
}

/* What the card holds after the low end of the range was written over SNMP. */
static int32_t column_start(json_object* param, bool fault)
{
    const int64_t low = member_int(param, "range0");
    const bool repaired =
        !fault && !member_true(param, "read_only") && member_int(param, "range1") < low;
    if (repaired) {
        return 0;
    }
    const bool shifted = (member_int(param, "type") & TYPE_MASK) == TYPE_INT_SHIFTED;
    return static_cast<int32_t>(shifted && low > 0 ? low - 1 : low);
}

static json_object* member(json_object* obj, const char* key, json_type type)
{
    json_object* value = nullptr;
    if (!json_object_is_type(obj, json_type_object) ||
        !json_object_object_get_ex(obj, key, &value) || !json_object_is_type(value, type)) {
        return nullptr;
    }
    return value;
}

/* The member as the agent reads it: 0 when absent, cut to 32 bits at the ends. */
static int64_t member_int(json_object* obj, const char* key)
{
    json_object* value = member(obj, key, json_type_int);
    return value != nullptr ? json_object_get_int(value) : 0;
}

static bool member_true(json_object* obj, const char* key)
{
    json_object* value = member(obj, key, json_type_boolean);
    return value != nullptr && json_object_get_boolean(value) != 0;
}
