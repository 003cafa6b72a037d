#ifndef TPG_JSONMIB_INDEX_H
#define TPG_JSONMIB_INDEX_H

/*
 * A row's index as cards count it, the same for cells, send-trap switches and
 * fault notifies: of the indexes in front of the slot each counts from 0 and has
 * a byte, the first one the highest.
 */

#include "tpg.h"

/* The card's index of the row with these SNMP values; total of them, at most JSONMIB_CARD_INDEXES.
 */
uint32_t jsonmib_index_of(const uint32_t* values, uint32_t total);

/* One number for each of a row's indexes, from 0; those that it has not are 0. */
struct jsonmib_index_parts_t {
    uint32_t part[JSONMIB_CARD_INDEXES];
};

/* Takes a card's index apart. The first part is all that stands above the others' bytes. */
jsonmib_index_parts_t jsonmib_index_parts(uint32_t index, uint32_t total);

/* What a row of so many indexes keeps of the card's index when each has its byte and no more. */
uint32_t jsonmib_index_bytes(uint32_t index, uint32_t total);

/* The row's position among all rows of its slot; the last index turns fastest. */
uint64_t jsonmib_index_position(const jsonmib_table_info_t* jsonmib_table, uint32_t index,
                                uint32_t total);

#endif
