#include "tpg_db.h"

#include "tpg_file.h"
#include "tpg_json.h"
#include "tpg_jsonmib_table.h"
#include "tpg_log.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

/* The slot's file, and the newest good text of it while the file itself is being rewritten. */
struct db_paths_t {
    char file[TPG_CMD_MAX];
    char spare[TPG_CMD_MAX];
};

/* How reading a switch file ended. */
enum class db_read {
    ok,
    missing,
    broken,
};

static db_paths_t db_paths(const tpg_jsonmib_register_info_t*);
static db_read db_read_file(tpg_context_t*, const char*, uint32_t, json_object**);
static int db_create(tpg_context_t*, tpg_jsonmib_register_info_t*, const db_paths_t*);
static int db_load_spare(tpg_context_t*, tpg_jsonmib_register_info_t*, const db_paths_t*);
static int db_write_text(const char*, const char*);
static const char* db_text(json_object*);
static json_object* db_find_array(tpg_context_t*, json_object*, const char*, tpg_log_end);
static void db_copy_to_row(tpg_context_t*, json_object*, const char*, uint8_t*);
static json_object* db_new_array(const uint8_t*);
static bool db_store_row(json_object*, const uint8_t*);

static db_paths_t db_paths(const tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    db_paths_t paths = {};
    snprintf(paths.file, sizeof(paths.file), "%s/%s_slot%02d/sendtrap.json", TPG_FLASH_DIR,
             jsonmib_reginfo->libmib_reginfo.prod_family, jsonmib_reginfo->libmib_reginfo.slot_no);
    snprintf(paths.spare, sizeof(paths.spare), "%s/%s_slot%02d/sendtrap.json.last", TPG_FLASH_DIR,
             jsonmib_reginfo->libmib_reginfo.prod_family, jsonmib_reginfo->libmib_reginfo.slot_no);
    return paths;
}

/* ---- load ---- */

int tpg_db_load_sendtrap_db_file(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const uint32_t slot = jsonmib_reginfo->libmib_reginfo.slot_no;
    if (jsonmib_reginfo->sendtrap_json_db != nullptr) {
        TPG_ERROR(ctx, "%s(%d): free target sendtrap_json_db (%p)", __func__, slot,
                  static_cast<void*>(jsonmib_reginfo->sendtrap_json_db));
        json_object_put(jsonmib_reginfo->sendtrap_json_db);
        jsonmib_reginfo->sendtrap_json_db = nullptr;
    }
    const db_paths_t paths = db_paths(jsonmib_reginfo);
    switch (db_read_file(ctx, paths.file, slot, &jsonmib_reginfo->sendtrap_json_db)) {
    case db_read::ok:
        unlink(paths.spare); /* of a rewrite that never came to the file */
        TPG_INFO(ctx, "Successfully loaded sendtrap json db file %s.", paths.file);
        return 0;
    case db_read::missing:
        if (access(paths.spare, F_OK) != 0) {
            return db_create(ctx, jsonmib_reginfo, &paths);
        }
        break;
    case db_read::broken:
        break;
    }
    return db_load_spare(ctx, jsonmib_reginfo, &paths);
}

/* Reads one file into a document that the caller comes to own; what is wrong with it is logged. */
static db_read db_read_file(tpg_context_t* ctx, const char* path, uint32_t slot, json_object** db)
{
    off_t size = 0;
    const tpg_fd_t file = {tpg_file_open_read(path, tpg_links::refuse, &size)};
    if (file.fd < 0 && errno == ENOENT) {
        return db_read::missing;
    }
    if (file.fd < 0) {
        TPG_ERROR(ctx, "Failed to open %s, %s", path, strerror(errno));
        return db_read::broken; /* out of descriptors, say: what it holds must stay */
    }
    if (size < 1 || static_cast<size_t>(size) > TPG_FILE_MAX) {
        TPG_ERROR(ctx, "Corrupted persistence json file!");
        return db_read::broken;
    }
    const auto length = static_cast<size_t>(size);
    const tpg_heap_chars text(static_cast<char*>(calloc(1, length)));
    if (text == nullptr) {
        TPG_ERROR(ctx, "tpg_db_load_sendtrap_db_file(%u): calloc failed, %s", slot,
                  strerror(errno));
        return db_read::broken;
    }
    if (tpg_file_read(file.fd, text.get(), length) != 0) {
        TPG_ERROR(ctx, "...........fread failed, %s", strerror(errno));
        TPG_ERROR(ctx, "...........Losing persistence storage capability!");
        return db_read::broken;
    }
    const tpg_json_tokener_t tok(json_tokener_new());
    assert((tok));
    *db = json_tokener_parse_ex(tok.get(), text.get(), static_cast<int>(length));
    if (*db == nullptr) {
        TPG_ERROR(ctx, "...........json_tokener_parse_ex failed, %s",
                  json_tokener_error_desc(json_tokener_get_error(tok.get())));
        TPG_ERROR(ctx, "...........Corrupted persistence json file!");
        return db_read::broken;
    }
    return db_read::ok;
}

static int db_create(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo,
                     const db_paths_t* paths)
{
    TPG_INFO(ctx, "Creating %s", paths->file);
    tpg_json_t empty(json_object_new_object());
    const char* text = empty == nullptr ? nullptr : db_text(empty.get());
    if (text == nullptr || db_write_text(paths->file, text) != 0) {
        TPG_ERROR(ctx, "Failed to open %s, %s", paths->file, strerror(errno));
        unlink(paths->file); /* half a file would count as a broken one at the next load */
        return -1;
    }
    jsonmib_reginfo->sendtrap_json_db = empty.release();
    TPG_INFO(ctx, "Created empty persistent file %s", paths->file);
    return 0;
}

/* The file was cut off while it was rewritten: the text that was to stand in it is beside it. */
static int db_load_spare(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo,
                         const db_paths_t* paths)
{
    if (access(paths->spare, F_OK) != 0 ||
        db_read_file(ctx, paths->spare, jsonmib_reginfo->libmib_reginfo.slot_no,
                     &jsonmib_reginfo->sendtrap_json_db) != db_read::ok) {
        return -1;
    }
    TPG_WARN(ctx, "%s is unusable, its switches come from %s", paths->file, paths->spare);
    tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo);
    return 0;
}

/* ---- write ---- */

/* The text belongs to the document; null with errno set when there is no memory for it. */
static const char* db_text(json_object* db)
{
    const char* text = json_object_to_json_string_ext(db, JSON_C_TO_STRING_SPACED);
    if (text == nullptr) {
        errno = ENOMEM;
    }
    return text;
}

/* 0 when the text stands in the file as a line and on the disk, -1 with errno set otherwise. */
static int db_write_text(const char* path, const char* text)
{
    const tpg_fd_t file = {tpg_file_open_write(path)};
    if (file.fd < 0 || tpg_file_write(file.fd, text, strlen(text)) != 0 ||
        tpg_file_write(file.fd, "\n", 1) != 0 || fsync(file.fd) != 0) {
        return -1;
    }
    return tpg_file_sync_dir(path);
}

/*
 * The file is rewritten in place. Its new text goes to the spare first, so
 * that a power cut at any moment leaves one of the two whole; a flash without
 * room for the spare keeps the old file. A spare that stands from before holds
 * the only good text, the file's being broken: it stays until the file is whole.
 */
void tpg_db_update_sendtrap_db_file(tpg_context_t* ctx,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const db_paths_t paths = db_paths(jsonmib_reginfo);
    const char* text = db_text(jsonmib_reginfo->sendtrap_json_db);
    const bool spare_stands = access(paths.spare, F_OK) == 0;
    const char* failed = nullptr;
    if (text == nullptr || (!spare_stands && db_write_text(paths.spare, text) != 0)) {
        failed = paths.spare;
    } else if (db_write_text(paths.file, text) != 0) {
        failed = paths.file;
    }
    if (failed != nullptr) {
        TPG_ERROR(ctx, "Failed to open %s, %s", failed, strerror(errno));
        TPG_ERROR(ctx, "Losing persistence storage capability!");
    }
    if (failed == nullptr || (failed == paths.spare && !spare_stands)) {
        unlink(paths.spare);
    }
}

/* ---- tables ---- */

/* The array stored under the table's name, or null. matched: how the line that says so ends. */
static json_object* db_find_array(tpg_context_t* ctx, json_object* db, const char* name,
                                  tpg_log_end matched)
{
    if (json_object_get_type(db) != json_type_object) {
        return nullptr;
    }
    json_object_object_foreach(db, key, value)
    {
        if (strcmp(key, name) != 0) {
            continue;
        }
        TPG_LOG_AT(ctx, tpg_log_level::debug, matched, "Matched table name %s", name);
        if (json_object_get_type(value) == json_type_array) {
            return value;
        }
        TPG_ERROR(ctx, "Invalid json type %d for table %s", json_object_get_type(value), name);
    }
    return nullptr;
}

static void db_copy_to_row(tpg_context_t* ctx, json_object* array, const char* name, uint8_t* row)
{
    const size_t length = json_object_array_length(array);
    if (length > JSONMIB_SENDTRAP_ROW) {
        TPG_WARN(ctx, "%zu stored switch bytes for table %s, %u are used", length, name,
                 JSONMIB_SENDTRAP_ROW);
    }
    memset(row, 0, JSONMIB_SENDTRAP_ROW);
    for (size_t k = 0; k < std::min<size_t>(length, JSONMIB_SENDTRAP_ROW); k++) {
        row[k] = static_cast<uint8_t>(json_object_get_int(json_object_array_get_idx(array, k)));
    }
    if (tpg_token_enabled("mibregister") != 0) {
        TPG_ERROR(ctx, "Successfully loaded send_trap_storage for table %s", name);
    }
}

/* Puts the row's bytes into entries 0 to 1023; false when memory runs out. */
static bool db_store_row(json_object* array, const uint8_t* row)
{
    for (size_t k = 0; k < JSONMIB_SENDTRAP_ROW; k++) {
        json_object* byte = json_object_new_int(row[k]);
        if (byte == nullptr || json_object_array_put_idx(array, k, byte) != 0) {
            json_object_put(byte);
            return false;
        }
    }
    return true;
}

static json_object* db_new_array(const uint8_t* row)
{
    tpg_json_t array(json_object_new_array());
    if (array == nullptr || !db_store_row(array.get(), row)) {
        return nullptr;
    }
    return array.release();
}

void tpg_db_recall_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    json_object* db = jsonmib_reginfo->sendtrap_json_db;
    uint8_t* row = jsonmib_sendtrap_row(jsonmib_table, jsonmib_reginfo->libmib_reginfo.slot_no);
    if (db == nullptr) {
        TPG_ERROR(ctx, "sendtrap_json_db is NULL");
        return;
    }
    if (row == nullptr) {
        return;
    }
    const jsonmib_table_name_t name = jsonmib_table_name(jsonmib_table);
    json_object* stored = db_find_array(ctx, db, name.text, tpg_log_end::line);
    if (stored != nullptr) {
        db_copy_to_row(ctx, stored, name.text, row);
        return;
    }
    if (json_object_get_type(db) != json_type_object) {
        TPG_ERROR(ctx, "stored switches are of json type %d, expected an object: none for table %s",
                  json_object_get_type(db), name.text);
        return;
    }
    json_object* array = db_new_array(row);
    if (array == nullptr || json_object_object_add(db, name.text, array) != 0) {
        json_object_put(array);
        TPG_ERROR(ctx, "no memory for the stored switches of table %s", name.text);
        return;
    }
    TPG_INFO(ctx, "Created default send_trap_storage for table %s", name.text);
    tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo);
}

void tpg_db_update_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        int slot_no)
{
    tpg_jsonmib_register_info_t* jsonmib_reginfo = &ctx->jsonmib_reg_info[slot_no - 1];
    const jsonmib_table_name_t name = jsonmib_table_name(jsonmib_table);
    json_object* db = jsonmib_reginfo->sendtrap_json_db;
    if (db == nullptr) {
        TPG_ERROR(ctx, "NULL sendtrap_json_db for table %s of slot %d!", name.text, slot_no);
        return;
    }
    json_object* stored = db_find_array(ctx, db, name.text, tpg_log_end::open);
    if (stored == nullptr) {
        TPG_ERROR(ctx, "Cannot find sendtrap for table %s!", name.text);
        return;
    }
    if (!db_store_row(stored, jsonmib_table->send_trap_storage[slot_no - 1])) {
        TPG_ERROR(ctx, "no memory for the stored switches of table %s", name.text);
        return;
    }
    tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo);
}
