#ifndef TPG_JSONMIB_TABLE_H
#define TPG_JSONMIB_TABLE_H

/* A table record as a live SNMP table. */

#include "tpg.h"
#include "tpg_jsonmib_rows.h"
#include "tpg_snmp.h"

/*
 * Register one finished record, which passes to the registration (on failure
 * it is released). Return the registration, or null (logged).
 */
netsnmp_handler_registration* jsonmib_register_gen_table(tpg_context_t* ctx,
                                                         jsonmib_table_info_t* jsonmib_table);
netsnmp_handler_registration* jsonmib_register_fault_table(tpg_context_t* ctx,
                                                           jsonmib_table_info_t* jsonmib_table);

/* Lets go of one handler's share in a table record; the last one releases it. */
void jsonmib_table_free(void* table);

#endif
