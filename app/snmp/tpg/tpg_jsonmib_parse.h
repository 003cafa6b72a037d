#ifndef TPG_JSONMIB_PARSE_H
#define TPG_JSONMIB_PARSE_H

/*
 * Reads a document's table definitions and trap bindings into records.
 * Functions that return int return 0, or -1 with an Error line that tells why.
 */

#include "tpg.h"

struct json_object;

/* Reads and registers every table of "gen_table_array". On failure the tables before it stay
 * registered, and stand in the record. */
int jsonmib_proc_gen_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                 tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Reads and registers one generic table; *reginfo becomes its registration, and stays as it is or
 * becomes null on failure. */
int jsonmib_proc_one_gen_table(tpg_context_t* ctx, json_object* jobj,
                               netsnmp_handler_registration_s** reginfo,
                               tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* The same for "fault_table_array". */
int jsonmib_proc_fault_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                   tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* The same for one fault table; *json_table becomes its record, which the registration owns. */
int jsonmib_proc_one_fault_table(tpg_context_t* ctx, json_object* jobj,
                                 netsnmp_handler_registration_s** reginfo,
                                 tpg_jsonmib_register_info_t* jsonmib_reginfo,
                                 jsonmib_table_info_t** json_table);

/* Fills index_info from "index_array" and appends the slot index. */
int jsonmib_proc_table_index_array(tpg_context_t* ctx, json_object* jobj_array,
                                   jsonmib_table_info_t* jsonmib_table);

/* Fills the columns, which the caller has allocated, from "param_array". */
int jsonmib_proc_table_param_array(tpg_context_t* ctx, json_object* jobj_array,
                                   jsonmib_table_info_t* jsonmib_table);

/* Fills trap_bindings_info from "trap_var_bindings"; fails only when memory runs out. */
int jsonmib_proc_var_bindings_array(tpg_context_t* ctx, json_object* jobj_array,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Fills one binding's ranges from text like "1-16, 20-24"; fails only when memory runs out. */
int jsonmib_parse_specific_string(tpg_context_t* ctx,
                                  jsonmib_trap_bindings_info_t* trap_bindings_info,
                                  const char* specific_string);

/* Reads an OID, a JSON array of at most TPG_OID_MAX integers, into subids; *len is its length. The
 * caller has checked that it is not longer. */
void jsonmib_read_oid(json_object* jobj_array, uint32_t* subids, uint32_t* len);

#endif
