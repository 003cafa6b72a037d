#ifndef TPG_JSONMIB_PARSE_H
#define TPG_JSONMIB_PARSE_H

/*
 * Table definitions and trap bindings of a jsonmib into records. All functions
 * return 0, or -1 with an Error line that tells why.
 */

#include "tpg.h"

struct json_object;

/* Every table of "gen_table_array", registered; what succeeded stays recorded on failure. */
int jsonmib_proc_gen_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                 tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* One generic table; its handler registration goes to *reginfo (null when it failed). */
int jsonmib_proc_one_gen_table(tpg_context_t* ctx, json_object* jobj,
                               netsnmp_handler_registration_s** reginfo,
                               tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Every table of "fault_table_array", registered; what succeeded stays recorded on failure. */
int jsonmib_proc_fault_table_array(tpg_context_t* ctx, json_object* jobj_array,
                                   tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* One fault table; its registration goes to *reginfo, its record to *json_table. */
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

/* Fills trap_bindings_info from "trap_var_bindings"; fails only for want of memory. */
int jsonmib_proc_var_bindings_array(tpg_context_t* ctx, json_object* jobj_array,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Fills one binding's ranges from text like "1-16, 20-24"; -1 only for want of memory. */
int jsonmib_parse_specific_string(tpg_context_t* ctx,
                                  jsonmib_trap_bindings_info_t* trap_bindings_info,
                                  const char* specific_string);

/* Reads a JSON array of at most TPG_OID_MAX integers into subids, their number into *len. */
void jsonmib_read_oid(json_object* jobj_array, uint32_t* subids, uint32_t* len);

#endif
