/* A card's document: read, checked, its members told apart; its tables out again. */
#include "tpg_jsonmib.h"

#include "tpg_db.h"
#include "tpg_file.h"
#include "tpg_json.h"
#include "tpg_jsonmib_parse.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"
#include "tpg_snmp.h"

#include <cassert>
#include <cerrno>
#include <cstring>

static int proc_member(tpg_context_t*, const char*, json_object*, tpg_jsonmib_register_info_t*);
static int proc_array_member(tpg_context_t*, const char*, json_object*,
                             tpg_jsonmib_register_info_t*);
static int proc_oid_member(tpg_context_t*, const char*, json_object*, uint32_t*, uint32_t*);
static void release_trap_bindings(tpg_jsonmib_register_info_t*);
static void unregister_tables(tpg_context_t*, const char*, netsnmp_handler_registration**,
                              uint32_t);

char* jsonmib_read_json(tpg_context_t* ctx, const char* libjson_file, size_t* json_sz)
{
    if (!tpg_file_exists(libjson_file)) {
        TPG_ERROR(ctx, "Cannot find jsonmib file, %s", libjson_file);
        return nullptr;
    }
    off_t size = 0;
    const tpg_fd_t file = {tpg_file_open_read(libjson_file, tpg_links::follow, &size)};
    if (file.fd < 0) {
        TPG_ERROR(ctx, "open %s failed, %s", libjson_file, strerror(errno));
        return nullptr;
    }
    if (size <= 0) {
        TPG_ERROR(ctx, "invalid file size for %s", libjson_file);
        return nullptr;
    }
    if (static_cast<uint64_t>(size) > TPG_FILE_MAX) {
        TPG_ERROR(ctx, "invalid file size for %s: %lld bytes, the limit is %zu", libjson_file,
                  static_cast<long long>(size), TPG_FILE_MAX);
        return nullptr;
    }
    const auto length = static_cast<size_t>(size);
    tpg_heap_chars text(static_cast<char*>(calloc(1, length)));
    if (text == nullptr) {
        TPG_ERROR(ctx, "calloc failed, %s", strerror(errno));
        return nullptr;
    }
    if (tpg_file_read(file.fd, text.get(), length) != 0) {
        TPG_ERROR(ctx, "fread failed, %s", strerror(errno));
        return nullptr;
    }
    *json_sz = length;
    return text.release();
}

int jsonmib_check_jsonfile(tpg_context_t* ctx, const char* json_file)
{
    size_t size = 0;
    const tpg_heap_chars text(jsonmib_read_json(ctx, json_file, &size));
    if (text == nullptr) {
        TPG_ERROR(ctx, "%s(): invalid json string", __func__);
        return -1;
    }
    const tpg_json_tokener_t tok(json_tokener_new());
    if (tok == nullptr) {
        TPG_ERROR(ctx, "%s(): cannot allocate json tokener", __func__);
        return -1;
    }
    const tpg_json_t root(json_tokener_parse_ex(tok.get(), text.get(), static_cast<int>(size)));
    if (root == nullptr) {
        TPG_ERROR(ctx, "%s(): %s", __func__, tpg_json_error(tok.get()));
        return -1;
    }
    return 0;
}

int jsonmib_proc_registration(tpg_context_t* ctx, const char* json_string, size_t size,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const tpg_json_tokener_t json_tok(json_tokener_new());
    assert((json_tok));
    const tpg_json_t root(
        json_tokener_parse_ex(json_tok.get(), json_string, static_cast<int>(size)));
    if (root == nullptr) {
        TPG_ERROR(ctx, "json_tokener_parse_ex failed, %s", tpg_json_error(json_tok.get()));
        return -1;
    }
    if (json_object_get_type(root.get()) != json_type_object) {
        TPG_ERROR(ctx, "the document is of json type %d, expected an object",
                  json_object_get_type(root.get()));
        return -1;
    }
    json_object_object_foreach(root.get(), key, value)
    {
        if (proc_member(ctx, key, value, jsonmib_reginfo) != 0) {
            return -1;
        }
    }
    return 0;
}

static int proc_member(tpg_context_t* ctx, const char* key, json_object* value,
                       tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const json_type type = json_object_get_type(value);
    switch (type) {
    case json_type_array:
        return proc_array_member(ctx, key, value, jsonmib_reginfo);
    case json_type_string:
        TPG_DEBUG(ctx, "%s: %s", key, json_object_get_string(value));
        return 0;
    case json_type_int:
        TPG_DEBUG(ctx, "%s: %d", key, json_object_get_int(value));
        return 0;
    default:
        TPG_WARN(ctx, "unknown json type %d", type);
        return 0;
    }
}

static int proc_array_member(tpg_context_t* ctx, const char* key, json_object* value,
                             tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    if (strcmp(key, "gen_table_array") == 0) {
        return jsonmib_proc_gen_table_array(ctx, value, jsonmib_reginfo);
    }
    if (strcmp(key, "fault_table_array") == 0) {
        return jsonmib_proc_fault_table_array(ctx, value, jsonmib_reginfo);
    }
    if (strcmp(key, "enterprise_oid") == 0) {
        return proc_oid_member(ctx, "enterprise", value, jsonmib_reginfo->enterprise_oid,
                               &jsonmib_reginfo->enterprise_oid_len);
    }
    if (strcmp(key, "instslot_oid") == 0) {
        return proc_oid_member(ctx, "instslot", value, jsonmib_reginfo->instslot_oid,
                               &jsonmib_reginfo->instslot_oid_len);
    }
    if (strcmp(key, "trap_var_bindings") == 0) {
        return jsonmib_proc_var_bindings_array(ctx, value, jsonmib_reginfo);
    }
    TPG_WARN(ctx, "unknown array key %s", key);
    return 0;
}

static int proc_oid_member(tpg_context_t* ctx, const char* what, json_object* value,
                           uint32_t* subids, uint32_t* subids_len)
{
    const size_t arraylen = json_object_array_length(value);
    if (arraylen > TPG_OID_MAX) {
        TPG_ERROR(ctx, "arraylen %zu > %s oid_max_len %u", arraylen, what, TPG_OID_MAX);
        return -1;
    }
    jsonmib_read_oid(value, subids, subids_len);
    return 0;
}

void jsonmib_proc_unregistration(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    unregister_tables(ctx, "gen", jsonmib_reginfo->gen_table_reginfo,
                      jsonmib_reginfo->gen_table_reginfo_sum);
    unregister_tables(ctx, "fault", jsonmib_reginfo->fault_table_reginfo,
                      jsonmib_reginfo->fault_table_reginfo_sum);
}

/* The count outlives the array, which is null once it has been released. */
static void unregister_tables(tpg_context_t* ctx, const char* kind,
                              netsnmp_handler_registration** reginfo, uint32_t sum)
{
    for (uint32_t i = 0; reginfo != nullptr && i < sum; i++) {
        if (reginfo[i] == nullptr) {
            TPG_WARN(ctx, "%s_table_reginfo[%u] is NULL", kind, i);
            continue;
        }
        jsonmib_tomb_withdraw(ctx, reginfo[i]);
        reginfo[i] = nullptr;
    }
}

void jsonmib_release_tables(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    jsonmib_proc_unregistration(ctx, jsonmib_reginfo);
    free(jsonmib_reginfo->fault_table_reginfo);
    jsonmib_reginfo->fault_table_reginfo = nullptr;
    free(jsonmib_reginfo->fault_json_table);
    jsonmib_reginfo->fault_json_table = nullptr;
    free(jsonmib_reginfo->gen_table_reginfo);
    jsonmib_reginfo->gen_table_reginfo = nullptr;
    release_trap_bindings(jsonmib_reginfo);
}

void jsonmib_release(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    jsonmib_release_tables(ctx, jsonmib_reginfo);
    tpg_db_release(ctx, jsonmib_reginfo);
}

static void release_trap_bindings(tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    if (jsonmib_reginfo->trap_bindings_info == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < jsonmib_reginfo->trap_bindings_len; i++) {
        free(jsonmib_reginfo->trap_bindings_info[i].specific_list);
        jsonmib_reginfo->trap_bindings_info[i].specific_list = nullptr;
    }
    free(jsonmib_reginfo->trap_bindings_info);
    jsonmib_reginfo->trap_bindings_info = nullptr;
}
