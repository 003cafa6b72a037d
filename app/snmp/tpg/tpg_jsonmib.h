#ifndef TPG_JSONMIB_H
#define TPG_JSONMIB_H

/* The jsonmib, a card's document: reading it, checking it, and its tables in and out. */

#include "tpg.h"

#include <cstddef>

/*
 * Reads a whole file. Returns its bytes (no terminating NUL; the caller frees
 * them) and their number in *json_sz; null when it cannot be read (logged).
 */
char* jsonmib_read_json(tpg_context_t* ctx, const char* libjson_file, size_t* json_sz);

/* 0 when the file is syntactically valid JSON, -1 otherwise (logged). */
int jsonmib_check_jsonfile(tpg_context_t* ctx, const char* json_file);

/*
 * Registers the tables of a jsonmib text of size bytes and fills
 * jsonmib_reginfo. 0, or -1 (logged); what was registered before the failure
 * stays recorded, for jsonmib_proc_unregistration to take out.
 */
int jsonmib_proc_registration(tpg_context_t* ctx, const char* json_string, size_t size,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Unregisters every table recorded in jsonmib_reginfo; the arrays stay the caller's. */
void jsonmib_proc_unregistration(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Unregisters the record's tables and releases them and the trap bindings. */
void jsonmib_release_tables(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Unregisters the record's tables and releases all that it owns: arrays,
 * bindings, send-trap document. Identity, mask, master and counts stay.
 */
void jsonmib_release(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

#endif
