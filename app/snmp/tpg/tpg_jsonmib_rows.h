#ifndef TPG_JSONMIB_ROWS_H
#define TPG_JSONMIB_ROWS_H

/* The rows of a table: computed from its index ranges and the family's slots, never stored. */

#include "tpg.h"
#include "tpg_snmp.h"

/* Fills index_used and index_pos: which of the listed indexes are indexes of the SNMP table. */
void jsonmib_find_used_indexes(jsonmib_table_info_t* jsonmib_table);

/*
 * The next slot above current (0 for the first) in which a card of the family
 * is served, or 0. In the built-in family slot 1 always is.
 */
uint32_t jsonmib_get_next_instance(tpg_context_t* ctx, const char* family_string, uint32_t current);

/*
 * The library's iteration callbacks: index list of the first and of the next
 * row, or null. While a row is sought the set is that row, behind those that
 * are stepped through aloud.
 */
netsnmp_variable_list* jsonmib_table_get_first_data_point(void** loop_context, void** data_context,
                                                          netsnmp_variable_list* index_data,
                                                          netsnmp_iterator_info* iterator_info);
netsnmp_variable_list* jsonmib_table_get_next_data_point(void** loop_context, void** data_context,
                                                         netsnmp_variable_list* index_data,
                                                         netsnmp_iterator_info* iterator_info);

/*
 * Release the row context (a table request record) that a row step made. The
 * second is the library's for contexts of a whole iteration: no step makes one,
 * but whatever the library should hand in is released like the others.
 */
void jsonmib_table_free_data_context(void* data_context, netsnmp_iterator_info* iterator_info);
void jsonmib_table_free_loop_context_at_end(void* loop_context,
                                            netsnmp_iterator_info* iterator_info);

/* The table's name with a terminating zero, which a name of 64 characters lacks. */
struct jsonmib_table_name_t {
    char text[JSONMIB_NAME_MAX + 1];
};
jsonmib_table_name_t jsonmib_table_name(const jsonmib_table_info_t* jsonmib_table);

/* The slot's row of send-trap switches, or null for anything but slots 1 to 15. */
uint8_t* jsonmib_sendtrap_row(jsonmib_table_info_t* jsonmib_table, uint32_t slot_no);

#endif
