#ifndef TPG_LEGACYMIB_KX_H
#define TPG_LEGACYMIB_KX_H

/*
 * The controller board's own MIB, fixed in the program. Its values live in
 * the control daemon of slot 1.
 */

#include "tpg.h"
#include "tpg_snmp.h"

#include <span>

/* How a column's value is kept by the control daemon. */
struct legacymib_var_map_t {
    uint32_t varid;   /* the daemon's number of the variable */
    uint32_t is_enum; /* 1: the daemon counts from 0, SNMP from 1; 0 otherwise */
};

/* Registers every group; one that fails is simply absent. */
void tpg_legacymib_kx_init(tpg_context_t* ctx);

/*
 * Writes the board's node in the tree and, behind it, arcs to name, which has
 * room for TPG_OID_MAX sub-identifiers. Returns the length of the name.
 */
size_t tpg_legacymib_kx_oid(const tpg_context_t* ctx, std::span<const oid> arcs, oid* name);

/*
 * Read functions of the groups. They return the value, which stays the
 * function's own and is good until its next call, or null when the name is no
 * instance or the daemon does not deliver it.
 */
FindVarMethod var_kx_networksetuptable;
FindVarMethod var_kx_productlocationtable;
FindVarMethod var_kx_hardwaretable;
FindVarMethod var_kx_ledtable;
FindVarMethod var_kx_softwaretable;
FindVarMethod var_kx_slotiptable;
FindVarMethod var_kx_timemanagementtable;
FindVarMethod var_kx_mgmfaulttable;

/* Write functions of the groups; they return an SNMP error status. */
WriteMethod kx_networksetuptable_write;
WriteMethod kx_hardwaretable_write;
WriteMethod kx_ledtable_write;
WriteMethod kx_softwaretable_write;
WriteMethod kx_slotiptable_write;
WriteMethod kx_timemanagementtable_write;
WriteMethod kx_mgmsendtrap_write;

#endif
