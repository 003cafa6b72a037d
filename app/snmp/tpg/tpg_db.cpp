/* Reads and writes the files of the send-trap switches, and keeps a slot's document in step. */
#include "tpg_db.h"

#include "tpg_file.h"
#include "tpg_json.h"
#include "tpg_jsonmib_table.h"
#include "tpg_log.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <unistd.h>

/*
 * The slot's file and its companions. A new text is written to the stage,
 * which is never read. Renaming makes it the spare, and at once the file. So
 * file and spare are always whole, and a spare is only there when it could not
 * be renamed to the file: then it is the newer one.
 */
struct db_paths_t {
    char folder[TPG_CMD_MAX];
    char file[TPG_CMD_MAX];
    char spare[TPG_CMD_MAX];
    char stage[TPG_CMD_MAX];
};

/* How reading a switch file ended. */
enum class db_read {
    ok,
    missing,
    corrupted,
    unreadable, /* reading failed: the file may hold good switches */
};

/* Where a text stands after saving. */
enum class db_saved {
    nowhere,
    spare,
    file,
};

static db_paths_t db_paths(const tpg_jsonmib_register_info_t*);
static int db_choose(tpg_context_t*, tpg_jsonmib_register_info_t*, const db_paths_t*);
static db_read db_read_file(tpg_context_t*, const char*, tpg_json_t*);
static db_read db_parse(tpg_context_t*, int fd, size_t size, tpg_json_t*);
static int db_create(tpg_context_t*, tpg_jsonmib_register_info_t*, const db_paths_t*);
static bool db_create_late(tpg_context_t*, tpg_jsonmib_register_info_t*);
static const char* db_text(json_object*);
static int db_write_text(const char* path, const char* text);
static db_saved db_save(const db_paths_t*, const char* text, const char** failed);
static json_object* db_find_array(tpg_context_t*, json_object*, const char*, tpg_log_end);
static void db_copy_to_row(tpg_context_t*, json_object*, const char*, uint8_t*);
static bool db_add_array(tpg_context_t*, tpg_jsonmib_register_info_t*, jsonmib_table_info_t*);
static json_object* db_new_array(const uint8_t*);
static bool db_store_row(json_object*, const uint8_t*);

/* The shortest definition of a fault table, and the longest entry of one in the file. */
constexpr size_t DB_TABLE_MIN =
    sizeof(R"({"name":"","oid":[1],"param_array":[{}],"trap_info":{"fault_present_var_id":1}},)") -
    1;
constexpr size_t DB_ESCAPED = 6; /* a character of a name as \u001f */
constexpr size_t DB_MEMBER_MAX = sizeof(R"("": [  ], )") + DB_ESCAPED * JSONMIB_NAME_MAX +
                                 JSONMIB_SENDTRAP_ROW * (sizeof("255, ") - 1);
/* Files above this size are refused; those of the largest document are smaller. */
constexpr size_t DB_FILE_MAX = TPG_FILE_MAX / DB_TABLE_MIN * DB_MEMBER_MAX;
static_assert(DB_FILE_MAX <= INT_MAX);
constexpr size_t DB_PIECE = size_t{16} * 1024; /* bytes read at a time */

static db_paths_t db_paths(const tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const tpg_libmib_register_info_t* card = &jsonmib_reginfo->libmib_reginfo;
    db_paths_t paths = {};
    const auto fill = [card](char* path, const char* name) {
        snprintf(path, TPG_CMD_MAX, "%s/%s_slot%02d%s", TPG_FLASH_DIR, card->prod_family,
                 card->slot_no, name);
    };
    fill(paths.folder, "");
    fill(paths.file, "/sendtrap.json");
    fill(paths.spare, "/sendtrap.json.last");
    fill(paths.stage, "/sendtrap.json.new");
    return paths;
}

/* ---- load ---- */

int tpg_db_load_sendtrap_db_file(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    if (jsonmib_reginfo->sendtrap_json_db != nullptr) {
        if (jsonmib_reginfo->sendtrap_state != tpg_db_state::saved) {
            return 0; /* the newest changes are in no file */
        }
        TPG_ERROR(ctx, "%s(%d): free target sendtrap_json_db (%p)", __func__,
                  jsonmib_reginfo->libmib_reginfo.slot_no,
                  static_cast<void*>(jsonmib_reginfo->sendtrap_json_db));
        json_object_put(jsonmib_reginfo->sendtrap_json_db);
        jsonmib_reginfo->sendtrap_json_db = nullptr;
    }
    const db_paths_t paths = db_paths(jsonmib_reginfo);
    unlink(paths.stage); /* left by a save that was cut off */
    return db_choose(ctx, jsonmib_reginfo, &paths);
}

/* Takes the spare, which is newer, if it is whole; else the file; without either, a new document.
 */
static int db_choose(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo,
                     const db_paths_t* paths)
{
    tpg_json_t in_file;
    tpg_json_t in_spare;
    const db_read file = db_read_file(ctx, paths->file, &in_file);
    const db_read spare = db_read_file(ctx, paths->spare, &in_spare);
    if (spare == db_read::unreadable) {
        return -1;
    }
    if (spare == db_read::ok && json_object_is_type(in_spare.get(), json_type_object) != 0) {
        TPG_WARN(ctx, "%s is %s, its switches come from %s", paths->file,
                 file == db_read::ok ? "out of date" : "unusable", paths->spare);
        jsonmib_reginfo->sendtrap_json_db = in_spare.release();
        tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo);
        return 0;
    }
    if (file == db_read::missing) {
        return db_create(ctx, jsonmib_reginfo, paths);
    }
    if (file != db_read::ok) {
        return -1;
    }
    if (spare != db_read::missing) {
        unlink(paths->spare);
    }
    jsonmib_reginfo->sendtrap_json_db = in_file.release();
    jsonmib_reginfo->sendtrap_state = tpg_db_state::saved;
    TPG_INFO(ctx, "Successfully loaded sendtrap json db file %s.", paths->file);
    return 0;
}

/* Reads one file into *db. Failures are logged, but for a missing file. */
static db_read db_read_file(tpg_context_t* ctx, const char* path, tpg_json_t* db)
{
    off_t size = 0;
    const tpg_fd_t file = {tpg_file_open_read(path, tpg_links::refuse, &size)};
    if (file.fd < 0 && errno == ENOENT) {
        return db_read::missing;
    }
    if (file.fd < 0) {
        TPG_ERROR(ctx, "Failed to open %s, %s", path, strerror(errno));
        return db_read::unreadable;
    }
    if (size < 1 || static_cast<uint64_t>(size) > DB_FILE_MAX) {
        TPG_ERROR(ctx, "Corrupted persistence json file!");
        TPG_ERROR(ctx, "%s has %lld bytes, from 1 to %zu are allowed", path,
                  static_cast<long long>(size), DB_FILE_MAX);
        return db_read::corrupted;
    }
    return db_parse(ctx, file.fd, static_cast<size_t>(size), db);
}

/* Reads piece by piece, so that a large file that is no JSON takes no memory. */
static db_read db_parse(tpg_context_t* ctx, int fd, size_t size, tpg_json_t* db)
{
    char piece[DB_PIECE];
    const tpg_json_tokener_t tok(json_tokener_new());
    assert((tok));
    json_tokener_error error = json_tokener_continue;
    while (*db == nullptr && size > 0 && error == json_tokener_continue) {
        const size_t length = std::min(size, sizeof(piece));
        if (tpg_file_read(fd, piece, length) != 0) {
            TPG_ERROR(ctx, "...........fread failed, %s", strerror(errno));
            TPG_ERROR(ctx, "...........Losing persistence storage capability!");
            return db_read::unreadable;
        }
        size -= length;
        db->reset(json_tokener_parse_ex(tok.get(), piece, static_cast<int>(length)));
        error = json_tokener_get_error(tok.get());
    }
    if (*db == nullptr) {
        TPG_ERROR(ctx, "...........json_tokener_parse_ex failed, %s",
                  json_tokener_error_desc(error));
        TPG_ERROR(ctx, "...........Corrupted persistence json file!");
        return db_read::corrupted;
    }
    return db_read::ok;
}

/* Starts with an empty document. The file is made by the first save, with all tables in it. */
static int db_create(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo,
                     const db_paths_t* paths)
{
    TPG_INFO(ctx, "Creating %s", paths->file);
    tpg_json_t empty(json_object_new_object());
    if (empty == nullptr) {
        errno = ENOMEM;
    }
    if (empty == nullptr || access(paths->folder, W_OK | X_OK) != 0) {
        TPG_ERROR(ctx, "Failed to open %s, %s", paths->file, strerror(errno));
        return -1;
    }
    jsonmib_reginfo->sendtrap_json_db = empty.release();
    jsonmib_reginfo->sendtrap_state = tpg_db_state::fresh;
    return 0;
}

/*
 * For a change in a slot without a document. If that is because its file could
 * not be created, a document is made from the present switches of all tables.
 * If there is a file, it could not be read, and is left to whoever repairs it.
 */
static bool db_create_late(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const db_paths_t paths = db_paths(jsonmib_reginfo);
    const auto is_missing = [](const char* path) {
        return access(path, F_OK) != 0 && errno == ENOENT;
    };
    const tpg_jsonmib_register_info_t* master = jsonmib_reginfo->actual_reginfo;
    if (master == nullptr || master->fault_json_table == nullptr || !is_missing(paths.file) ||
        !is_missing(paths.spare) || db_create(ctx, jsonmib_reginfo, &paths) != 0) {
        return false;
    }
    for (uint32_t i = 0; i < master->fault_table_reginfo_sum; i++) {
        if (master->fault_json_table[i] != nullptr) {
            db_add_array(ctx, jsonmib_reginfo, master->fault_json_table[i]);
        }
    }
    return true;
}

/* ---- save ---- */

/* The document as text, which the document owns; null with errno set without memory. */
static const char* db_text(json_object* db)
{
    const char* text = json_object_to_json_string_ext(db, JSON_C_TO_STRING_SPACED);
    if (text == nullptr) {
        errno = ENOMEM;
    }
    return text;
}

/* Writes the text and a line feed to the file, and the file to the disk; -1 with errno set. */
static int db_write_text(const char* path, const char* text)
{
    const tpg_fd_t file = {tpg_file_open_write(path)};
    if (file.fd < 0 || tpg_file_write(file.fd, text, strlen(text)) != 0 ||
        tpg_file_write(file.fd, "\n", 1) != 0 || fsync(file.fd) != 0) {
        return -1;
    }
    return 0;
}

/*
 * Saves a text. A power cut at any moment leaves the old text or the new one,
 * and so does a flash without room for both. Unless the result is file, errno
 * is set, and *failed is the path that could not be written.
 */
static db_saved db_save(const db_paths_t* paths, const char* text, const char** failed)
{
    const bool staged = text != nullptr && db_write_text(paths->stage, text) == 0;
    *failed = staged ? paths->spare : paths->stage;
    if (!staged || rename(paths->stage, paths->spare) != 0) {
        const int error = errno;
        unlink(paths->stage);
        errno = error;
        return db_saved::nowhere;
    }
    *failed = paths->file;
    if (rename(paths->spare, paths->file) == 0) {
        return tpg_file_sync_dir(paths->file) == 0 ? db_saved::file : db_saved::nowhere;
    }
    const int error = errno;
    const bool kept = tpg_file_sync_dir(paths->spare) == 0;
    errno = error;
    return kept ? db_saved::spare : db_saved::nowhere;
}

void tpg_db_update_sendtrap_db_file(tpg_context_t* ctx,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const db_paths_t paths = db_paths(jsonmib_reginfo);
    const char* failed = nullptr;
    const db_saved saved = db_save(&paths, db_text(jsonmib_reginfo->sendtrap_json_db), &failed);
    if (saved != db_saved::file) {
        TPG_ERROR(ctx, "Failed to open %s, %s", failed, strerror(errno));
        TPG_ERROR(ctx, "Losing persistence storage capability!");
    }
    if (saved == db_saved::spare) {
        TPG_WARN(ctx, "the switches are kept in %s", paths.spare);
    }
    tpg_db_state* state = &jsonmib_reginfo->sendtrap_state;
    if (saved == db_saved::file && *state == tpg_db_state::fresh) {
        TPG_INFO(ctx, "Created empty persistent file %s", paths.file);
    }
    if (saved != db_saved::nowhere) {
        *state = tpg_db_state::saved;
    } else if (*state == tpg_db_state::saved) {
        *state = tpg_db_state::unsaved;
    }
}

void tpg_db_release(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    if (jsonmib_reginfo->sendtrap_json_db != nullptr &&
        jsonmib_reginfo->sendtrap_state != tpg_db_state::saved) {
        tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo);
    }
    json_object_put(jsonmib_reginfo->sendtrap_json_db);
    jsonmib_reginfo->sendtrap_json_db = nullptr;
    jsonmib_reginfo->sendtrap_state = tpg_db_state::saved;
}

/* ---- tables ---- */

/* The array stored under the table's name, or null. matched: how the debug line about it ends. */
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

/* Puts the row's bytes into the array; false without memory. */
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

/* Adds the table's row for the slot to the document; false (logged) without memory. */
static bool db_add_array(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo,
                         jsonmib_table_info_t* jsonmib_table)
{
    const jsonmib_table_name_t name = jsonmib_table_name(jsonmib_table);
    const uint8_t* row =
        jsonmib_sendtrap_row(jsonmib_table, jsonmib_reginfo->libmib_reginfo.slot_no);
    json_object* array = db_new_array(row);
    if (array == nullptr ||
        json_object_object_add(jsonmib_reginfo->sendtrap_json_db, name.text, array) != 0) {
        json_object_put(array);
        TPG_ERROR(ctx, "no memory for the stored switches of table %s", name.text);
        return false;
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
    if (row == nullptr) { /* the card is in no slot that has switches */
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
    if (!db_add_array(ctx, jsonmib_reginfo, jsonmib_table)) {
        return;
    }
    TPG_INFO(ctx, "Created default send_trap_storage for table %s", name.text);
    if (jsonmib_reginfo->sendtrap_state == tpg_db_state::saved) {
        jsonmib_reginfo->sendtrap_state = tpg_db_state::unsaved;
    }
}

void tpg_db_update_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        int slot_no)
{
    tpg_jsonmib_register_info_t* jsonmib_reginfo = &ctx->jsonmib_reg_info[slot_no - 1];
    const jsonmib_table_name_t name = jsonmib_table_name(jsonmib_table);
    if (jsonmib_reginfo->sendtrap_json_db == nullptr && !db_create_late(ctx, jsonmib_reginfo)) {
        TPG_ERROR(ctx, "NULL sendtrap_json_db for table %s of slot %d!", name.text, slot_no);
        return;
    }
    json_object* db = jsonmib_reginfo->sendtrap_json_db;
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
