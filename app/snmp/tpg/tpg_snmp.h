#ifndef TPG_SNMP_H
#define TPG_SNMP_H

/* The SNMP library's headers, in the one order in which they can be included. */

/* clang-format off */
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
/* clang-format on */

#endif
