#ifndef TPG_JSONMIB_SEEK_H
#define TPG_JSONMIB_SEEK_H

/*
 * Straight to the row that answers a request. Row sets are arithmetic, so the
 * iterator, which by itself steps through every row, is shown that row only.
 */

#include "tpg.h"
#include "tpg_snmp.h"

/*
 * Handler entry points; both are given one request at a time, and the
 * handlers' private pointer is the table record. The first, to stand in front
 * of the library's table helper, serves GET and GETNEXT of a row that is in
 * the column asked for, by the handler behind the iterator, past the helpers;
 * all else it hands on. The second, to stand between the table helper and the
 * iterator, has the iterator shown the row that answers, or none.
 */
int jsonmib_row_helper_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                               netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests);
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
