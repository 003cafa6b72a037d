#ifndef TPG_JSONMIB_REQUEST_H
#define TPG_JSONMIB_REQUEST_H

/* Requests on generic and fault tables: the library's handlers for them, GET and SET of a cell. */

#include "tpg.h"
#include "tpg_snmp.h"

/* Handler entry points; the handler's private pointer is the table record. */
int jsonmib_gen_table_helper_handler(netsnmp_mib_handler* handler,
                                     netsnmp_handler_registration* reginfo,
                                     netsnmp_agent_request_info* reqinfo,
                                     netsnmp_request_info* requests);
int jsonmib_fault_table_helper_handler(netsnmp_mib_handler* handler,
                                       netsnmp_handler_registration* reginfo,
                                       netsnmp_agent_request_info* reqinfo,
                                       netsnmp_request_info* requests);

/*
 * Serves one varbind of a request on a generic or fault table: reads the cell
 * into var, or writes var to it. table_reqinfo holds the column, iterator_reqinfo
 * the row index. Returns an SNMP error status, 0 for success; a cell that is
 * answered later has its request marked as delegated.
 */
int jsonmib_gen_table_proc_agent_request(netsnmp_variable_list* var,
                                         netsnmp_table_request_info* table_reqinfo,
                                         netsnmp_table_request_info* iterator_reqinfo,
                                         netsnmp_agent_request_info* agent_reqinfo,
                                         jsonmib_table_info_t* jsonmib_table_info);
int jsonmib_fault_table_proc_agent_request(netsnmp_variable_list* var,
                                           netsnmp_table_request_info* table_reqinfo,
                                           netsnmp_table_request_info* iterator_reqinfo,
                                           netsnmp_agent_request_info* agent_reqinfo,
                                           jsonmib_table_info_t* jsonmib_table_info);

#endif
