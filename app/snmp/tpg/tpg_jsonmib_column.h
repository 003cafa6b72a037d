#ifndef TPG_JSONMIB_COLUMN_H
#define TPG_JSONMIB_COLUMN_H

/*
 * What a column's cells are, decided once, when its document is read; all that
 * serves or writes cells goes by that.
 */

#include "tpg.h"

/* Fills kind and coding from the other members, which are final in a fault table (flags). */
void jsonmib_column_decide(uint32_t table_flags, jsonmib_table_param_info_t* param);

/* True for a column of a row's index values. It is read from these; written, it is like others. */
bool jsonmib_column_is_index(const jsonmib_table_param_info_t* param);

/* True for a column of one of the integer types: it may be an index or the agent's own. */
bool jsonmib_column_takes_integers(const jsonmib_table_param_info_t* param);

/* True for a column whose values the agent has without asking a card. */
bool jsonmib_column_is_own(const jsonmib_table_param_info_t* param);

#endif
