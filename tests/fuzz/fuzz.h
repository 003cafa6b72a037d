#ifndef TPG_FUZZ_H
#define TPG_FUZZ_H

/*
 * What the fuzzers share: a fresh agent context for every input, the input's
 * decoding, and requests to the SNMP library as a master would send them. The
 * programs replace system() and syslog(), and run in scripts/world.sh only.
 */

#include "tpg.h"
#include "tpg_snmp.h"

#include <string_view>

/* What is left of an input. */
struct fuzz_input_t {
    const uint8_t* data;
    size_t size;
};

/* Takes the next bytes as a number, the lowest first; missing ones are 0. */
uint32_t fuzz_number(fuzz_input_t* in, size_t bytes);

/* Takes the next count bytes, or what is left. */
std::string_view fuzz_bytes(fuzz_input_t* in, size_t count);

/* Takes the text up to the next line "----", or what is left. */
std::string_view fuzz_part(fuzz_input_t* in);

/*
 * Empties the context. The input's last byte is taken: it turns the debug
 * level (bit 0), the trace lines (bit 2) and the library's debug output (the
 * highest three bits) on. fuzz_end releases all.
 */
tpg_context_t* fuzz_begin(fuzz_input_t* in);
void fuzz_end(tpg_context_t* ctx);

/* What runs in place of a shell command; null: nothing does, and that is a success. */
extern int (*fuzz_system)(const char* command);

/* Replaces the file by the text; an empty one removes it. */
void fuzz_write_file(const char* path, std::string_view text);

/* A file of the source tree's seeds, as "document/card.json"; ends the program when unreadable. */
std::string_view fuzz_seed(const char* name);

/* A card of this family whose library is at path. */
tpg_libmib_update_t fuzz_card(uint32_t slot, const char* family, const char* path);

/* Leaves the folder of a card's switch file there, and empty. */
void fuzz_clear_switches(const char* family, uint32_t slot);

/* GETNEXT of two cells at a time from name on, while the answers stay below root. */
void fuzz_walk(const oid* root, size_t root_len, const oid* name, size_t name_len, int steps);

/* SET of one cell; then a GET of it together with its neighbour. */
void fuzz_set(const oid* name, size_t name_len, u_char type, const void* value, size_t length);

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
