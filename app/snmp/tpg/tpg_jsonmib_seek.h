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
 * handlers' private pointer is the table record. The first serves a GET or
 * GETNEXT for which it finds a row, by the request handler, past the library's
 * helpers; all else it hands on. The second has the iterator shown the row
 * that answers, or none. Where they stand, the chain of handlers says
 * (tpg_jsonmib_table.cpp).
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
