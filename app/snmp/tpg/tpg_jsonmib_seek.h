#ifndef TPG_JSONMIB_SEEK_H
#define TPG_JSONMIB_SEEK_H

/*
 * Straight to the row that answers a request. Row sets are arithmetic, so the
 * iterator, which by itself steps through every row, is shown that row only.
 */

#include "tpg.h"
#include "tpg_snmp.h"

constexpr char JSONMIB_SEEK_HANDLER_NAME[] = "tpg_seek";

/*
 * Handler entry point, to stand between the library's table helper and its
 * iterator and to be given one request at a time; the handler's private
 * pointer is the table record.
 */
int jsonmib_seek_helper_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                                netsnmp_agent_request_info* reqinfo,
                                netsnmp_request_info* requests);

/* True when suffix, len sub-identifiers behind a column, is a row; its values go to *seek. */
bool jsonmib_seek_exact(const jsonmib_table_info_t* jsonmib_table, const oid* suffix, size_t len,
                        jsonmib_seek_t* seek);

/* True when a row follows suffix in SNMP order; its values go to *seek. Empty: the first row. */
bool jsonmib_seek_next(const jsonmib_table_info_t* jsonmib_table, const oid* suffix, size_t len,
                       jsonmib_seek_t* seek);

#endif
