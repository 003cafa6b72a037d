#ifndef TPG_JSONMIB_REQUEST_H
#define TPG_JSONMIB_REQUEST_H

/* GET and SET on the cells of generic and fault tables. */

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
 * One request of a generic or fault table: var is answered or written.
 * table_reqinfo tells the column, iterator_reqinfo the row's index values.
 * Returns an SNMP error status, 0 for success; a request of the library's may
 * have been marked as answered later.
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
