#ifndef TPG_MAIN_TRAP_H
#define TPG_MAIN_TRAP_H

/* A card's fault notify into an SNMPv2 trap. */

#include "tpg.h"
#include "tpg_snmp.h"

/* Sends the traps of one notify; data_len is within the message. All outcomes are logged. */
void tpg_msg_trap_notify(tpg_context_t* ctx, tpg_msg_trap_notify_t* trap_notify_msg,
                         tpg_ipc_clnt_t* clnt_conn);

/*
 * Makes vars the snmpTrapOID.0 binding of poid (oid_len sub-identifiers), 0
 * and specific. The value stays in enterprise, the caller's buffer of
 * TPG_OID_MAX places. 0, or -1 (logged).
 */
int tpg_set_sendtrapoid(tpg_context_t* ctx, netsnmp_variable_list* vars, const uint32_t* poid,
                        uint32_t oid_len, uint32_t specific, oid* enterprise);

/*
 * The bindings that the card's document declares for this specific number, as
 * a list that the caller frees with snmp_free_varbind; null for none.
 */
netsnmp_variable_list* tpg_msg_trap_var_bindings(tpg_context_t* ctx, uint32_t specific,
                                                 jsonmib_table_info_t* jsonmib_table,
                                                 const tpg_trap_notify_t* trap_notify);

/* A notify of slot 1, the controller board: its traps are fixed in the program. */
void tpg_msg_trap_notify_kx(tpg_context_t* ctx, const tpg_msg_trap_notify_t* trap_notify_msg,
                            tpg_ipc_clnt_t* clnt_conn);

/* Where a notify's row is in the switches, and its trap number before the card's offset. */
struct tpg_trap_row_t {
    uint32_t flat_index;
    uint32_t specific;
};

/* Fills *row from the notify's index; -1 for a table of neither 1 nor 2 indexes (logged). */
int tpg_trap_locate_row(tpg_context_t* ctx, const jsonmib_table_info_t* table,
                        const tpg_trap_notify_t* notify, tpg_trap_row_t* row);

/* True when the switch is on. Beyond the slot's row stands the next slot's, beyond the last, off.
 */
bool tpg_trap_is_enabled(const jsonmib_table_info_t* table, uint32_t slot_no, uint32_t flat_index);

#endif
