#ifndef TPG_FUZZ_H
#define TPG_FUZZ_H

/*
 * What the fuzzers share: a fresh agent context for every input, the input's
 * decoding, and requests to the SNMP library as a master would send them. The
 * programs replace tpg_command_run() and syslog(), and run in scripts/world.sh only.
 */

#include "../support/support.h"
#include "tpg.h"
#include "tpg_snmp.h"

#include <memory>
#include <vector>

using name_t = std::vector<oid>;

/* Each program's own: what it does with an input, in a context that is empty but for the clients'
 * event loop. */
void fuzz_one(tpg_context_t* ctx, std::string_view in);

/* Takes the next count bytes, or what is left. */
std::string_view fuzz_bytes(std::string_view* in, size_t count);

/* Takes the next bytes as a number, the lowest first; missing ones are 0. */
uint32_t fuzz_number(std::string_view* in, size_t bytes = 1);

/* Takes the text up to the next line "----", or what is left. */
std::string_view fuzz_part(std::string_view* in);

/* What runs in place of a shell command; null: nothing does, and that is a success. */
extern int (*fuzz_system)(const char* command);

/* A file of the source tree's seeds, as "document/card.json"; ends the program when unreadable. */
std::string fuzz_seed(const std::string& name);

/* A PDU of the master's, and what the agent has answered; it stays in place until then. */
struct fuzz_request_t {
    std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)> answer = {nullptr, snmp_free_pdu};
};

/* Hands the PDU to the library, on the way that a sub-agent's requests take. */
void fuzz_send(netsnmp_pdu* pdu, fuzz_request_t* request);

/* One turn of the agent's loop; flags are those of event_base_loop. */
void fuzz_turn(tpg_context_t* ctx, int flags);

/* Serves a request for a cell and, but for a SET, for another one; the name that answers the first,
 * which is empty when none does. */
name_t fuzz_ask(int command, const name_t& name, const name_t& other, u_char type = ASN_NULL,
                std::string_view value = "");

/* GETNEXT from name on while the answers stay below root; each answer is also set. */
void fuzz_walk(const name_t& root, name_t name, int steps);

/* Walks and sets cells of all cards' tables. */
void fuzz_use_tables(const tpg_context_t* ctx);

/* Stops the program, so that it counts as a finding. */
#define FUZZ_REQUIRE(condition)                                                                    \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            __builtin_trap();                                                                      \
        }                                                                                          \
    } while (0)

#endif
