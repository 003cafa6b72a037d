#ifndef AUTHOR_MIB_H
#define AUTHOR_MIB_H

/*
 * The MIB module of a document: what the agent reads of it, given names and
 * places that SMI takes, and written out.
 */

#include "author.h"
#include "tpg.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/* ---- names (author_mib_names.cpp) ---- */

constexpr size_t MIB_NAME_MAX = 64;

/* Names in use, in lower case: two of them must not differ in case alone. */
using mib_names_t = std::set<std::string>;

/* The names that modules must not define: those of the modules that all others are built on. */
mib_names_t mib_names_reserved();

/*
 * What is left of a document's name in SMI: letters and digits, words joined by
 * capitals, in front a small letter; at most MIB_NAME_MAX - 20 characters, so that
 * endings fit. Empty when nothing is left.
 */
std::string mib_name_of(std::string_view text);

/*
 * Takes the first free one of wanted + ending, second + ending, and these with
 * numbers from 2 on; second may be empty. Returns it without its ending.
 */
std::string mib_name_take(mib_names_t* names, const std::string& wanted,
                          const std::string& second = "",
                          const std::vector<std::string>& endings = {""});

/* The first letter as a capital. */
std::string mib_capital(std::string name);

/*
 * A module's name from what was asked for, or from the file's; "-MIB" is put
 * behind it if missing. Empty when SMI does not take what was asked for.
 */
std::string mib_module_name(const std::string& asked, const std::string& file);

/* A document's text as a module can show it: printable ASCII without quotes. */
std::string mib_quotable(std::string_view text);

/* ---- places (author_mib_oids.cpp) ---- */

using mib_oid_t = std::vector<uint32_t>;

enum class mib_kind { node, object, row };

/* A named OID. Directly below an object (table, row, column, scalar) no other one may stand. */
struct mib_place_t {
    std::string name;
    mib_kind kind;
    bool standard; /* imported: nothing else can have this OID */
};
using mib_places_t = std::map<mib_oid_t, mib_place_t>;

/* The roots, and the nodes that SNMPv2-SMI defines. */
mib_places_t mib_places_standard();

mib_oid_t mib_oid(const uint32_t* subids, size_t length);
mib_oid_t mib_below(mib_oid_t oid, uint32_t subid);
mib_oid_t mib_above(mib_oid_t oid);

/* True when oid is within, or at, the subtree of top. */
bool mib_is_within(const mib_oid_t& oid, const mib_oid_t& top);

/* Why SMI does not let an object stand at this OID; null when it does. */
const char* mib_place_fault(const mib_places_t& places, const mib_oid_t& oid);

/* True when a named OID lies below this one. */
bool mib_place_holds(const mib_places_t& places, const mib_oid_t& oid);

/* "{ parent 1 2 }"; the parent is the nearest named OID above, and is noted if it is imported. */
std::string mib_place_text(const mib_places_t& places, const mib_oid_t& oid,
                           std::set<std::string>* imports);

/* ---- what the agent reads (author_mib_load.cpp) ---- */

struct mib_source_table_t {
    const jsonmib_table_info_t* record;
    std::string name;
    std::vector<std::string> columns; /* their names; empty: none */
};

struct mib_source_t {
    tpg_jsonmib_register_info_t* card; /* the agent's record; it lives until the program ends */
    std::string description, organization, contact;
    std::vector<mib_source_table_t> tables;
};

/* Has the agent's own code read a document. 0, or -1 with the agent's lines on standard error. */
int mib_load(const std::string& text, mib_source_t* source);

/* ---- the module (author_mib_model.cpp, author_mib_traps.cpp) ---- */

struct mib_object_t {
    std::string name, syntax, access, description;
    mib_oid_t oid;
};

struct mib_table_t {
    const mib_source_table_t* source;
    std::string name, row;
    mib_oid_t oid;
    std::vector<mib_object_t> columns; /* those that only are indexes behind the others */
    std::vector<std::string> index;
    std::string description;
};

struct mib_trap_t {
    std::string name, description;
    std::vector<std::string> objects;
};

struct mib_t {
    std::string module, prefix; /* the prefix of names that the document has none for */
    mib_names_t names;
    mib_places_t places;
    std::vector<mib_table_t> tables;
    std::vector<mib_object_t> scalars; /* that come with traps only */
    std::map<uint32_t, mib_trap_t> traps;
    mib_oid_t identity, conformance;
    std::vector<std::string> notes; /* what the reader has to know, and what was left out */
};

constexpr const char* MIB_NOT_ACCESSIBLE = "not-accessible";
constexpr const char* MIB_FOR_NOTIFY = "accessible-for-notify";
constexpr const char* MIB_READ_ONLY = "read-only";
constexpr const char* MIB_READ_WRITE = "read-write";

/* Says on standard error and in the module what is not in it. */
void mib_leave_out(mib_t* mib, const std::string& what, const std::string& why);

/* Names and places for all that the source has. 0, or -1 with a line when it has nothing. */
int mib_build(const mib_source_t& source, mib_t* mib);

/* The traps, their slot and their texts. */
void mib_build_traps(const mib_source_t& source, mib_t* mib);

/* ---- the text (author_mib_text.cpp) ---- */

/* The module as text. time: its date, in seconds since 1970. */
std::string mib_text(const mib_source_t& source, const mib_t& mib, time_t time);

#endif
