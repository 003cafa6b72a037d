#ifndef TPG_DB_H
#define TPG_DB_H

/*
 * Send-trap switches on flash: one JSON file a card slot, an object with an
 * array of 1024 bytes for every fault table.
 */

#include "tpg.h"

/*
 * Loads the slot's file into sendtrap_json_db, or an empty document where there
 * is no file yet; a document with changes that could not be saved stays. 0, or
 * -1 (logged; the record then holds no document).
 */
int tpg_db_load_sendtrap_db_file(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Copies the stored switches of one table into its row for the record's slot;
 * a table that has none stored gets an array of what the row holds, which waits
 * to be saved (sendtrap_state).
 */
void tpg_db_recall_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        tpg_jsonmib_register_info_t* jsonmib_reginfo);

/*
 * Stores the table's row for the slot (1 to 15) and writes the slot's file. What
 * could not be saved before is saved with it, even if there was no file at all.
 */
void tpg_db_update_sendtrap_persistence(tpg_context_t* ctx, jsonmib_table_info_t* jsonmib_table,
                                        int slot_no);

/* Writes the record's document to its file; failures are logged, and kept in sendtrap_state. */
void tpg_db_update_sendtrap_db_file(tpg_context_t* ctx,
                                    tpg_jsonmib_register_info_t* jsonmib_reginfo);

/* Saves what has not been, and releases the document. */
void tpg_db_release(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo);

#endif
