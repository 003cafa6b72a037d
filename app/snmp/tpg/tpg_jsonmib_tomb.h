#ifndef TPG_JSONMIB_TOMB_H
#define TPG_JSONMIB_TOMB_H

/*
 * Registrations in and out of the SNMP library, by way of tombstones. A stock
 * master that learns of a withdrawal while it waits for an answer from the
 * table goes on with memory that it has freed. So a withdrawn table leaves its
 * registration behind, empty, until no manager has asked for a while.
 */

#include "tpg.h"
#include "tpg_snmp.h"

/* Seconds without any request after which tombstones go. */
constexpr uint32_t JSONMIB_TOMB_QUIET = 1;

/*
 * Registers a table. A tombstone with its OID comes to serve it; tombstones
 * inside or around it go. Takes registration over. Returns the registration
 * that serves the table, or null, with registration and its handlers released.
 */
netsnmp_handler_registration* jsonmib_tomb_register(tpg_context_t* ctx,
                                                    netsnmp_handler_registration* registration);

/*
 * Releases the table's handlers, and with them its record; its registration
 * becomes a tombstone. A table inside or around another one is unregistered.
 */
void jsonmib_tomb_withdraw(tpg_context_t* ctx, netsnmp_handler_registration* registration);

/* Unregisters all tombstones, unless a request has come since the last call or withdrawal. */
void jsonmib_tomb_sweep(tpg_context_t* ctx);

#endif
