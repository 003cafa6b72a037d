/* Reads the tables of a document, with their indexes and columns, and its trap bindings. */
#include "tpg_jsonmib_parse.h"

#include "tpg_file.h"
#include "tpg_json.h"
#include "tpg_jsonmib_column.h"
#include "tpg_jsonmib_table.h"
#include "tpg_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

static int require_type(tpg_context_t*, json_object*, json_type, const char* where, size_t i);
static int parse_table(tpg_context_t*, json_object*, jsonmib_table_info_t*);
static int parse_table_array(tpg_context_t*, const char*, json_object*, jsonmib_table_info_t*);
static int parse_table_oid(tpg_context_t*, json_object*, jsonmib_table_info_t*);
static int parse_table_indexes(tpg_context_t*, json_object*, jsonmib_table_info_t*);
static int parse_table_params(tpg_context_t*, const char*, json_object*, jsonmib_table_info_t*);
static void parse_table_string(tpg_context_t*, const char*, json_object*, jsonmib_table_info_t*);
static void parse_trap_info(tpg_context_t*, json_object*, jsonmib_table_trap_info_t*);
static int parse_index(tpg_context_t*, json_object*, size_t, jsonmib_table_info_t*);
static void append_slot_index(jsonmib_table_info_t*, size_t);
static void parse_param(tpg_context_t*, json_object*, size_t, jsonmib_table_param_info_t*);
static bool parse_param_int(tpg_context_t*, const char*, json_object*, size_t,
                            jsonmib_table_param_info_t*);
static void repair_param_range(tpg_context_t*, const jsonmib_table_info_t*,
                               jsonmib_table_param_info_t*);
static int validate_table(tpg_context_t*, const jsonmib_table_info_t*);
static void parse_binding(tpg_context_t*, json_object*, jsonmib_trap_bindings_info_t*);
static void parse_binding_oid(tpg_context_t*, json_object*, jsonmib_trap_bindings_info_t*);
static int grow_specific_list(tpg_context_t*, jsonmib_trap_bindings_info_t*, size_t*);
static void warn_of_equal_names(tpg_context_t*, const tpg_jsonmib_register_info_t*);
static jsonmib_table_info_t* new_table(tpg_context_t*, tpg_jsonmib_register_info_t*, uint32_t);
static jsonmib_table_info_t* parse_one_table(tpg_context_t*, json_object*,
                                             tpg_jsonmib_register_info_t*, uint32_t);
static bool is_fault_table(const jsonmib_table_info_t* jsonmib_table)
{
    return (jsonmib_table->flags & JSONMIB_TABLE_FAULT) != 0;
}

/* 0 when jobj, element i of the array called where, has the type; otherwise -1 (logged). */
static int require_type(tpg_context_t* ctx, json_object* jobj, json_type type, const char* where,
                        size_t i)
{
    if (json_object_get_type(jobj) == type) {
        return 0;
    }
    TPG_ERROR(ctx, "%s[%zu] is of json type %d, expected %d (%s)", where, i,
              json_object_get_type(jobj), type, json_type_to_name(type));
    return -1;
}

void jsonmib_read_oid(json_object* jobj_array, uint32_t* subids, uint32_t* len)
{
    const size_t arraylen = json_object_array_length(jobj_array);
    for (size_t i = 0; i < arraylen; i++) {
        subids[i] =
            static_cast<uint32_t>(json_object_get_int(json_object_array_get_idx(jobj_array, i)));
    }
    *len = static_cast<uint32_t>(arraylen);
}

/* ---- tables ---- */

int jsonmib_proc_gen_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                 tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const size_t n = json_object_array_length(jobj_array);
    jsonmib_reginfo->gen_table_reginfo_sum = static_cast<uint32_t>(n);
    jsonmib_reginfo->gen_table_reginfo = static_cast<netsnmp_handler_registration**>(
        calloc(std::max<size_t>(n, 1), sizeof(netsnmp_handler_registration*)));
    if (jsonmib_reginfo->gen_table_reginfo == nullptr) {
        TPG_ERROR(ctx, "calloc failed for gen_table_reginfo, %s", strerror(errno));
        return -1;
    }
    for (size_t i = 0; i < n; i++) {
        json_object* jobj = json_object_array_get_idx(jobj_array, i);
        if (require_type(ctx, jobj, json_type_object, "gen_table_array", i) != 0 ||
            jsonmib_proc_one_gen_table(ctx, jobj, &jsonmib_reginfo->gen_table_reginfo[i],
                                       jsonmib_reginfo) != 0) {
            TPG_ERROR(ctx, "jsonmib_proc_gen_table_array failed! prod_family %s, array index %zu",
                      jsonmib_reginfo->libmib_reginfo.prod_family, i);
            return -1;
        }
    }
    TPG_DEBUG(ctx, "jsonmib_proc_gen_table_array successful");
    return 0;
}

int jsonmib_proc_fault_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                   tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const size_t n = json_object_array_length(jobj_array);
    const size_t places = std::max<size_t>(n, 1);
    jsonmib_reginfo->fault_table_reginfo_sum = static_cast<uint32_t>(n);
    jsonmib_reginfo->fault_table_reginfo = static_cast<netsnmp_handler_registration**>(
        calloc(places, sizeof(netsnmp_handler_registration*)));
    jsonmib_reginfo->fault_json_table = static_cast<jsonmib_table_info_t**>(
        calloc(places, sizeof(jsonmib_table_info_t*))) /* NOLINT(bugprone-sizeof-expression) */;
    if (jsonmib_reginfo->fault_table_reginfo == nullptr ||
        jsonmib_reginfo->fault_json_table == nullptr) {
        TPG_ERROR(ctx, "calloc failed for fault_table_reginfo, %s", strerror(errno));
        return -1;
    }
    for (size_t i = 0; i < n; i++) {
        json_object* jobj = json_object_array_get_idx(jobj_array, i);
        if (require_type(ctx, jobj, json_type_object, "fault_table_array", i) != 0 ||
            jsonmib_proc_one_fault_table(ctx, jobj, &jsonmib_reginfo->fault_table_reginfo[i],
                                         jsonmib_reginfo,
                                         &jsonmib_reginfo->fault_json_table[i]) != 0) {
            TPG_ERROR(ctx, "jsonmib_proc_one_fault_table failed! prod_family %s, array index %zu",
                      jsonmib_reginfo->libmib_reginfo.prod_family, i);
            return -1;
        }
    }
    warn_of_equal_names(ctx, jsonmib_reginfo);
    return 0;
}

/* Switches are stored under the name of their table, so tables of one name share them. */
static void warn_of_equal_names(tpg_context_t* ctx,
                                const tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    using table_t = const jsonmib_table_info_t*;
    const size_t n = jsonmib_reginfo->fault_table_reginfo_sum;
    auto* sorted = static_cast<table_t*>(
        calloc(std::max<size_t>(n, 1), sizeof(table_t))) /* NOLINT(bugprone-sizeof-expression) */;
    if (sorted == nullptr) {
        TPG_ERROR(ctx, "calloc failed for the names of fault tables, %s", strerror(errno));
        return;
    }
    std::copy_n(jsonmib_reginfo->fault_json_table, n, sorted);
    const auto order = [](table_t a, table_t b) {
        return memcmp(a->name, b->name, JSONMIB_NAME_MAX) < 0;
    };
    std::sort(sorted, sorted + n, order);
    for (size_t i = 0, end = 0; i < n; i = end) {
        end = static_cast<size_t>(std::upper_bound(sorted + i, sorted + n, sorted[i], order) -
                                  sorted);
        if (end - i > 1) {
            TPG_WARN(ctx, "%zu fault tables are named \"%s\": they share their stored switches",
                     end - i, jsonmib_table_name(sorted[i]).text);
        }
    }
    free(sorted);
}

int jsonmib_proc_one_gen_table(tpg_context_t* ctx, json_object* jobj,
                               netsnmp_handler_registration** reginfo,
                               tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    jsonmib_table_info_t* jsonmib_table = parse_one_table(ctx, jobj, jsonmib_reginfo, 0);
    if (jsonmib_table == nullptr) {
        return -1;
    }
    *reginfo = jsonmib_register_gen_table(ctx, jsonmib_table);
    if (*reginfo == nullptr) {
        TPG_ERROR(ctx, "jsonmib_register_gen_table failed");
        return -1;
    }
    return 0;
}

int jsonmib_proc_one_fault_table(tpg_context_t* ctx, json_object* jobj,
                                 netsnmp_handler_registration** reginfo,
                                 tpg_jsonmib_register_info_t* jsonmib_reginfo,
                                 jsonmib_table_info_t** json_table)
{
    jsonmib_table_info_t* jsonmib_table =
        parse_one_table(ctx, jobj, jsonmib_reginfo, JSONMIB_TABLE_FAULT);
    if (jsonmib_table == nullptr) {
        return -1;
    }
    *reginfo = jsonmib_register_fault_table(ctx, jsonmib_table);
    if (*reginfo == nullptr) {
        TPG_ERROR(ctx, "jsonmib_register_fault_table failed!");
        return -1;
    }
    *json_table = jsonmib_table;
    return 0;
}

/* A new table record with one reference, the caller's; null (logged) without memory. */
static jsonmib_table_info_t* new_table(tpg_context_t* ctx,
                                       tpg_jsonmib_register_info_t* jsonmib_reginfo, uint32_t flags)
{
    auto* jsonmib_table =
        static_cast<jsonmib_table_info_t*>(calloc(1, sizeof(jsonmib_table_info_t)));
    if (jsonmib_table == nullptr) {
        TPG_ERROR(ctx, "calloc for jsonmib_table failed, %s", strerror(errno));
        return nullptr;
    }
    jsonmib_table->refcnt = 1;
    jsonmib_table->tpg_context = ctx;
    jsonmib_table->jsonmib_reginfo = jsonmib_reginfo;
    jsonmib_table->flags = flags;
    return jsonmib_table;
}

/* A new table record from its definition, read and validated; null (logged) on failure. */
static jsonmib_table_info_t* parse_one_table(tpg_context_t* ctx, json_object* jobj,
                                             tpg_jsonmib_register_info_t* jsonmib_reginfo,
                                             uint32_t flags)
{
    jsonmib_table_info_t* jsonmib_table = new_table(ctx, jsonmib_reginfo, flags);
    if (jsonmib_table == nullptr) {
        return nullptr;
    }
    if (parse_table(ctx, jobj, jsonmib_table) != 0 || validate_table(ctx, jsonmib_table) != 0) {
        jsonmib_table_free(jsonmib_table);
        return nullptr;
    }
    return jsonmib_table;
}

static int parse_table(tpg_context_t* ctx, json_object* jobj, jsonmib_table_info_t* jsonmib_table)
{
    json_object_object_foreach(jobj, key, value)
    {
        const json_type type = json_object_get_type(value);
        if (type == json_type_array) {
            if (parse_table_array(ctx, key, value, jsonmib_table) != 0) {
                return -1;
            }
        } else if (type == json_type_string) {
            parse_table_string(ctx, key, value, jsonmib_table);
        } else if (type == json_type_object && is_fault_table(jsonmib_table)) {
            if (strcmp(key, "trap_info") == 0) {
                TPG_DEBUG(ctx, "json object %s", key);
                parse_trap_info(ctx, value, &jsonmib_table->trap_info);
            } else {
                TPG_WARN(ctx, "unknown key %s", key);
            }
        } else {
            TPG_WARN(ctx, "unknown json type %d", type);
        }
    }
    if (std::ranges::none_of(jsonmib_table->index_info, [](const jsonmib_index_info_t& index) {
            return (index.flags & JSONMIB_INDEX_SLOT) != 0;
        })) {
        append_slot_index(jsonmib_table, 0); /* no "index_array": a row for each slot */
    }
    return 0;
}

static int parse_table_array(tpg_context_t* ctx, const char* key, json_object* value,
                             jsonmib_table_info_t* jsonmib_table)
{
    TPG_DEBUG(ctx, "%s: arraylen %zu", key, json_object_array_length(value));
    if (strcmp(key, "oid") == 0) {
        return parse_table_oid(ctx, value, jsonmib_table);
    }
    if (strcmp(key, "index_array") == 0) {
        return parse_table_indexes(ctx, value, jsonmib_table);
    }
    if (strcmp(key, "param_array") == 0) {
        return parse_table_params(ctx, key, value, jsonmib_table);
    }
    return 0;
}

static int parse_table_oid(tpg_context_t* ctx, json_object* value,
                           jsonmib_table_info_t* jsonmib_table)
{
    const size_t arraylen = json_object_array_length(value);
    if (arraylen > TPG_OID_MAX) {
        TPG_ERROR(ctx, "arraylen %zu > oid_max_len %d", arraylen, TPG_OID_MAX);
        return -1;
    }
    jsonmib_read_oid(value, jsonmib_table->oid, &jsonmib_table->oid_len);
    return 0;
}

static int parse_table_indexes(tpg_context_t* ctx, json_object* value,
                               jsonmib_table_info_t* jsonmib_table)
{
    const size_t arraylen = json_object_array_length(value);
    if (arraylen > JSONMIB_INDEX_MAX) {
        TPG_ERROR(ctx, "arraylen %zu > index_info_max %d", arraylen, JSONMIB_INDEX_MAX);
        return -1;
    }
    if (is_fault_table(jsonmib_table)) {
        jsonmib_table->index_total = static_cast<uint8_t>(arraylen);
    }
    return jsonmib_proc_table_index_array(ctx, value, jsonmib_table);
}

static int parse_table_params(tpg_context_t* ctx, const char* key, json_object* value,
                              jsonmib_table_info_t* jsonmib_table)
{
    const size_t arraylen = json_object_array_length(value);
    TPG_DEBUG(ctx, "table_info.param_total %zu", arraylen);
    jsonmib_table->param_total = static_cast<uint32_t>(arraylen);
    jsonmib_table->param_info = static_cast<jsonmib_table_param_info_t*>(
        calloc(std::max<size_t>(arraylen, 1), sizeof(jsonmib_table_param_info_t)));
    if (jsonmib_table->param_info == nullptr) {
        TPG_ERROR(ctx, "%s: calloc size %zu faile, %s", key,
                  arraylen * sizeof(jsonmib_table_param_info_t), strerror(errno));
        return -1;
    }
    return jsonmib_proc_table_param_array(ctx, value, jsonmib_table);
}

static void parse_table_string(tpg_context_t* ctx, const char* key, json_object* value,
                               jsonmib_table_info_t* jsonmib_table)
{
    const char* text = json_object_get_string(value);
    if (strcmp(key, "name") != 0) {
        TPG_WARN(ctx, "unknown key %s, value %s", key, text);
        return;
    }
    memcpy(jsonmib_table->name, text, strnlen(text, JSONMIB_NAME_MAX));
    TPG_DEBUG(ctx, "table_info.name %s", jsonmib_table_name(jsonmib_table).text);
}

static void parse_trap_info(tpg_context_t* ctx, json_object* jobj,
                            jsonmib_table_trap_info_t* trap_info)
{
    static constexpr struct {
        const char* key;
        uint32_t jsonmib_table_trap_info_t::*field;
    } MEMBERS[] = {
        {"fault_present_var_id", &jsonmib_table_trap_info_t::fault_present_var_id},
        {"specific_start", &jsonmib_table_trap_info_t::specific_start},
        {"index_ofs_1", &jsonmib_table_trap_info_t::index_ofs_1},
        {"index_ofs_2", &jsonmib_table_trap_info_t::index_ofs_2},
    };
    json_object_object_foreach(jobj, key, value)
    {
        const json_type type = json_object_get_type(value);
        if (type != json_type_int) {
            TPG_WARN(ctx, "Unknown trap_info_type %d", type);
            continue;
        }
        TPG_DEBUG(ctx, "trap_info: key %s, value %s", key, json_object_get_string(value));
        const std::string_view name(key);
        const auto* member =
            std::ranges::find_if(MEMBERS, [name](const auto& m) { return name == m.key; });
        if (member == std::end(MEMBERS)) {
            TPG_WARN(ctx, "Unknown trap_info_key %s", key);
        } else {
            trap_info->*member->field = static_cast<uint32_t>(json_object_get_int(value));
        }
    }
}

static int validate_table(tpg_context_t* ctx, const jsonmib_table_info_t* jsonmib_table)
{
    const bool incomplete = jsonmib_table->oid[0] == 0 || jsonmib_table->param_info == nullptr;
    const jsonmib_table_name_t name = jsonmib_table_name(jsonmib_table);
    if (!is_fault_table(jsonmib_table)) {
        if (incomplete) {
            TPG_ERROR(ctx, "Validation jsonmib_table failed! name[%s], oid0[%d], param_info[%p]",
                      name.text, jsonmib_table->oid[0],
                      static_cast<const void*>(jsonmib_table->param_info));
        }
        return incomplete ? -1 : 0;
    }
    if (incomplete || jsonmib_table->trap_info.fault_present_var_id == 0) {
        TPG_ERROR(ctx,
                  "Validation jsonmib_table failed! name[%s], oid0[%d], param_info[%p], "
                  "fault_present_var_id[%d]",
                  name.text, jsonmib_table->oid[0],
                  static_cast<const void*>(jsonmib_table->param_info),
                  jsonmib_table->trap_info.fault_present_var_id);
        return -1;
    }
    return 0;
}

/* ---- indexes ---- */

int jsonmib_proc_table_index_array(tpg_context_t* ctx, json_object* jobj_array,
                                   jsonmib_table_info_t* jsonmib_table)
{
    const size_t n = json_object_array_length(jobj_array);
    for (size_t i = 0; i < n; i++) {
        json_object* jobj = json_object_array_get_idx(jobj_array, i);
        if (require_type(ctx, jobj, json_type_object, "index_array", i) != 0 ||
            parse_index(ctx, jobj, i, jsonmib_table) != 0) {
            return -1;
        }
    }
    append_slot_index(jsonmib_table, n);
    return 0;
}

static int parse_index(tpg_context_t* ctx, json_object* jobj, size_t i,
                       jsonmib_table_info_t* jsonmib_table)
{
    int found = 0;
    json_object_object_foreach(jobj, key, value)
    {
        const bool low = strcmp(key, "range0") == 0;
        if (!low && strcmp(key, "range1") != 0) {
            TPG_WARN(ctx, "unknown key %s", key);
            continue;
        }
        if (i >= JSONMIB_INDEX_MAX) {
            TPG_ERROR(ctx, "key %s, index is out of max %d", key, JSONMIB_INDEX_MAX);
            return -1;
        }
        const int number = json_object_get_int(value);
        jsonmib_table->index_info[i].range[low ? 0 : 1] = static_cast<uint32_t>(number);
        TPG_DEBUG(ctx, "%s:%d", key, number);
        found++;
    }
    if (found != 2) {
        TPG_ERROR(ctx, "missing index pair, find %d", found);
        return -1;
    }
    return 0;
}

/* The card slot is every table's last index. */
static void append_slot_index(jsonmib_table_info_t* jsonmib_table, size_t position)
{
    jsonmib_table->index_info[position] = {{1, TPG_SLOT_MAX}, JSONMIB_INDEX_SLOT};
}

/* ---- columns ---- */

int jsonmib_proc_table_param_array(tpg_context_t* ctx, json_object* jobj_array,
                                   jsonmib_table_info_t* jsonmib_table)
{
    const size_t n = json_object_array_length(jobj_array);
    if (n == 0) {
        TPG_ERROR(ctx, "param arraylen is zero");
        return -1;
    }
    for (size_t i = 0; i < n; i++) {
        json_object* jobj = json_object_array_get_idx(jobj_array, i);
        if (require_type(ctx, jobj, json_type_object, "param_array", i) != 0) {
            return -1;
        }
        jsonmib_table_param_info_t* param = &jsonmib_table->param_info[i];
        param->access = JSONMIB_ACCESS_RW;
        parse_param(ctx, jobj, i, param);
        jsonmib_column_decide(jsonmib_table->flags, param);
        repair_param_range(ctx, jsonmib_table, param);
    }
    return 0;
}

static void parse_param(tpg_context_t* ctx, json_object* jobj, size_t i,
                        jsonmib_table_param_info_t* param)
{
    json_object_object_foreach(jobj, key, value)
    {
        if (strcmp(key, "read_only") == 0) {
            if (json_object_get_boolean(value) != 0) {
                param->access = JSONMIB_ACCESS_RO;
                TPG_DEBUG(ctx, "param_info[%zu] is readonly", i);
            }
        } else if (strcmp(key, "table_index") == 0) {
            if (json_object_get_boolean(value) != 0) {
                param->flags |= JSONMIB_PARAM_INDEX;
                TPG_DEBUG(ctx, "param_info[%zu] is table index", i);
            }
        } else if (strcmp(key, "name") == 0 && value != nullptr) {
            TPG_DEBUG(ctx, "param_info[%zu] name %s", i, json_object_get_string(value));
        } else if (!parse_param_int(ctx, key, value, i, param)) {
            TPG_WARN(ctx, "unknown key %s", key);
        }
    }
}

/* False when key names no integer member of a column. */
static bool parse_param_int(tpg_context_t* ctx, const char* key, json_object* value, size_t i,
                            jsonmib_table_param_info_t* param)
{
    const int number = json_object_get_int(value);
    if (strcmp(key, "var_id") == 0) {
        param->var_id = static_cast<uint32_t>(number);
        TPG_DEBUG(ctx, "param_info[%zu].var_id %d", i, number);
    } else if (strcmp(key, "type") == 0) {
        param->type = static_cast<uint8_t>(number);
        TPG_DEBUG(ctx, "param_info[%zu].type %d", i, param->type);
    } else if (strcmp(key, "range0") == 0) {
        param->range[0] = number;
        TPG_DEBUG(ctx, "param_info[%zu].range[0] %d", i, number);
    } else if (strcmp(key, "range1") == 0) {
        param->range[1] = number;
        TPG_DEBUG(ctx, "param_info[%zu].range[1] %d", i, number);
    } else {
        return false;
    }
    return true;
}

/* A writable integer of a generic table whose range admits no value is given the range from 0 up.
 */
static void repair_param_range(tpg_context_t* ctx, const jsonmib_table_info_t* jsonmib_table,
                               jsonmib_table_param_info_t* param)
{
    const bool is_int = jsonmib_column_takes_integers(param);
    const bool wrong =
        (param->range[0] == 0 && param->range[1] == 0) || param->range[1] < param->range[0];
    if (is_fault_table(jsonmib_table) || param->access != JSONMIB_ACCESS_RW || !is_int || !wrong) {
        return;
    }
    TPG_WARN(ctx, "Fixing wrong range[%d:%d] for varid[%d] in table %s.", param->range[0],
             param->range[1], param->var_id, jsonmib_table_name(jsonmib_table).text);
    param->range[0] = 0;
    param->range[1] = INT32_MAX;
}

/* ---- trap bindings ---- */

int jsonmib_proc_var_bindings_array(tpg_context_t* ctx, json_object* jobj_array,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const size_t n = json_object_array_length(jobj_array);
    jsonmib_reginfo->trap_bindings_len = static_cast<uint32_t>(n);
    jsonmib_reginfo->trap_bindings_info = static_cast<jsonmib_trap_bindings_info_t*>(
        calloc(std::max<size_t>(n, 1), sizeof(jsonmib_trap_bindings_info_t)));
    if (jsonmib_reginfo->trap_bindings_info == nullptr) {
        TPG_ERROR(ctx, "calloc failed for trap_bindings_info, %s", strerror(errno));
        return -1;
    }
    for (size_t i = 0; i < n; i++) {
        json_object* jobj = json_object_array_get_idx(jobj_array, i);
        if (json_object_get_type(jobj) != json_type_object) {
            TPG_WARN(ctx, "Unknown json type %d for trap bindings.", json_object_get_type(jobj));
            continue;
        }
        parse_binding(ctx, jobj, &jsonmib_reginfo->trap_bindings_info[i]);
    }
    return 0;
}

static void parse_binding(tpg_context_t* ctx, json_object* jobj,
                          jsonmib_trap_bindings_info_t* trap_bindings_info)
{
    json_object_object_foreach(jobj, key, value)
    {
        const json_type type = json_object_get_type(value);
        if (type == json_type_array) {
            TPG_DEBUG(ctx, "%s: arraylen %zu", key, json_object_array_length(value));
            if (strcmp(key, "oid") == 0) {
                parse_binding_oid(ctx, value, trap_bindings_info);
            } else {
                TPG_ERROR(ctx, "unknown key %s for trap bindings object.", key);
            }
        } else if (type == json_type_string) {
            const char* text = json_object_get_string(value);
            if (strcmp(key, "specific") == 0) {
                TPG_DEBUG(ctx, "specific string %s", text);
                jsonmib_parse_specific_string(ctx, trap_bindings_info, text);
            } else {
                TPG_WARN(ctx, "unknown key %s, value %s for trap bindings object.", key, text);
            }
        } else {
            TPG_WARN(ctx, "Unknown json type %d for trap bindings.", type);
        }
    }
}

/* An OID that is too long is logged and left empty; the card is registered all the same. */
static void parse_binding_oid(tpg_context_t* ctx, json_object* value,
                              jsonmib_trap_bindings_info_t* trap_bindings_info)
{
    const size_t arraylen = json_object_array_length(value);
    if (arraylen > TPG_OID_MAX) {
        TPG_ERROR(ctx, "arraylen %zu > oid_max_len %d", arraylen, TPG_OID_MAX);
        return;
    }
    jsonmib_read_oid(value, trap_bindings_info->oid, &trap_bindings_info->oid_len);
}

/* Makes room for 16 more ranges. Without memory the list stays as it is; -1 (logged). */
static int grow_specific_list(tpg_context_t* ctx, jsonmib_trap_bindings_info_t* trap_bindings_info,
                              size_t* specific_max)
{
    constexpr size_t STEP = 16;
    void* list = realloc(trap_bindings_info->specific_list,
                         (*specific_max + STEP) * sizeof(specific_range_t));
    if (list == nullptr) {
        TPG_ERROR(ctx, "Parse specific: realloc failed. %s.", strerror(errno));
        return -1;
    }
    trap_bindings_info->specific_list = static_cast<specific_range_t*>(list);
    *specific_max += STEP;
    return 0;
}

/* A number ends at its first character that is no digit, and wraps around at 16 bits. */
int jsonmib_parse_specific_string(tpg_context_t* ctx,
                                  jsonmib_trap_bindings_info_t* trap_bindings_info,
                                  const char* specific_string)
{
    const tpg_heap_chars copy(strdup(specific_string));
    size_t specific_max = 0;
    if (copy == nullptr) {
        TPG_ERROR(ctx, "Parse specific: realloc failed. %s.", strerror(errno));
        return -1;
    }
    if (grow_specific_list(ctx, trap_bindings_info, &specific_max) != 0) {
        return -1;
    }
    uint32_t total = 0;
    char* rest = nullptr;
    for (const char* token = strtok_r(copy.get(), ", ", &rest); token != nullptr;
         token = strtok_r(nullptr, ", ", &rest)) {
        const char* minus = strchr(token, '-');
        if (minus == nullptr) {
            TPG_WARN(ctx, "Invalid token %s", token);
            continue;
        }
        TPG_DEBUG(ctx, "range specific string %s", token);
        if (total >= specific_max) {
            if (grow_specific_list(ctx, trap_bindings_info, &specific_max) != 0) {
                return -1;
            }
            TPG_DEBUG(ctx, "Realloc memory for specific_list. specific_max is %zu", specific_max);
        }
        specific_range_t* range = &trap_bindings_info->specific_list[total];
        range->low = static_cast<uint16_t>(strtol(token, nullptr, 10));
        range->high = static_cast<uint16_t>(strtol(minus + 1, nullptr, 10));
        TPG_DEBUG(ctx, "range_specific[%d]: [%d-%d]", total, range->low, range->high);
        total++;
    }
    trap_bindings_info->specific_list_len = total;
    TPG_DEBUG(ctx, "Var bindings specific total %d.", total);
    return 0;
}
