#ifndef TPG_LEGACYMIB_KX_H
#define TPG_LEGACYMIB_KX_H

/*
 * The controller board's own MIB, fixed in the program. Its values live in
 * the control daemon of slot 1.
 */

#include "tpg.h"
#include "tpg_snmp.h"

#include <span>

/* Registers every group; one that fails is simply absent. */
void tpg_legacymib_kx_init(tpg_context_t* ctx);

/*
 * Writes the board's node in the tree and, behind it, arcs to name, which has
 * room for TPG_OID_MAX sub-identifiers. Returns the length of the name.
 */
size_t tpg_legacymib_kx_oid(const tpg_context_t* ctx, std::span<const oid> arcs, oid* name);

#endif
