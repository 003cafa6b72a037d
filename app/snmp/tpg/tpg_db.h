#ifndef TPG_DB_H
#define TPG_DB_H

/*
 * Send-trap switches on flash. Each slot has a JSON file: an object that holds,
 * for every fault table, an array of 1024 bytes under the table's name.
 */

#include "tpg.h"

/*
 * Loads the slot's file into the record's sendtrap_json_db; without a file the
 * document is empty. A document whose changes could not be saved is kept
 * instead. Returns 0, or -1 (logged; the record then holds no document).
 */
int tpg_db_load_sendtrap_db_file(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Copies the stored switches of one table into its row for the record's slot.
 * If none are stored, the row as it is goes into the document, which then has
 * to be saved (sendtrap_state).
 */
void tpg_db_recall_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Puts the table's row for the slot (1 to 15) into the slot's document and
 * writes the file, with any earlier changes that could not be saved. A file
 * that could not be created before is created now. Failures are logged.
 */
void tpg_db_update_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        int slot_no);

/* Writes the record's document to its file. A failure is logged, and noted in sendtrap_state. */
void tpg_db_update_sendtrap_db_file(tpg_context_t* ctx,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Frees the record's document, after saving it if it has unsaved changes. */
void tpg_db_release(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

#endif
