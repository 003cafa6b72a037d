/* Rules on OIDs: their sub-identifiers, their length, and what lies at the same place. */

#include "author_check.h"
#include "author_keys.h"
#include "tpg_legacymib_kx.h"

#include <algorithm>

namespace
{
/* An OID of a document, and what the agent puts behind it. */
struct named_oid_t {
    const author_node_t* node;
    author_subject_t about;
    bool is_table;
    size_t behind;    /* sub-identifiers */
    const char* what; /* those are for */
};

/* A table among those of all documents. */
struct owner_t {
    author_doc_t* doc;
    const author_table_t* table;
    size_t order; /* in which the agent registers them */
};
} // namespace

/* ---- one OID ---- */

static void check_arc(author_doc_t* doc, const named_oid_t& named, size_t i)
{
    const author_node_t& arc = named.node->members[i];
    const int64_t number = json_object_get_int64(arc.value);
    const auto taken = static_cast<uint32_t>(author_int(arc));
    const bool integer = json_object_is_type(arc.value, json_type_int) != 0;
    const bool first_wrong =
        i == 0 && (taken < AUTHOR_FIRST_ARC_MIN || taken > AUTHOR_FIRST_ARC_MAX);
    std::string text;
    if (!integer) {
        text = "is no integer; it counts as " + std::to_string(taken);
    } else if (first_wrong) {
        text = "is " + std::to_string(number) + ": an OID begins with 1 or 2";
    } else if (number < 0 || number > AUTHOR_ARC_MAX) {
        text = "is " + std::to_string(number) + ", not in 0 to " + std::to_string(AUTHOR_ARC_MAX) +
               "; it counts as " + std::to_string(taken);
    } else if (i == 1 && number >= 40 && author_int(named.node->members[0]) < 2) {
        text = "is " + std::to_string(number) + ": below 1, the second is at most 39";
    } else {
        return;
    }
    (first_wrong && named.is_table ? author_error : author_warn)(
        doc, arc.at, named.about, "sub-identifier " + std::to_string(i + 1) + " " + text);
}

static void check_oid(author_doc_t* doc, const named_oid_t& named)
{
    if (named.node == nullptr) {
        return;
    }
    const size_t length = named.node->members.size();
    for (size_t i = 0; i < length; i++) {
        check_arc(doc, named, i);
    }
    if (length <= TPG_OID_MAX && length + named.behind > TPG_OID_MAX) {
        (named.is_table ? author_error : author_warn)(
            doc, named.node->at, named.about,
            "an OID of " + std::to_string(length) + " sub-identifiers leaves no room for " +
                named.what + ", at most " + std::to_string(TPG_OID_MAX - named.behind));
    }
}

/* ---- the board's own subtree ---- */

static std::vector<uint32_t> board_subtree()
{
    tpg_context_t any_board = {};
    oid name[TPG_OID_MAX];
    const size_t length = tpg_legacymib_kx_oid(&any_board, {}, name) - 1; /* without its node */
    return {name, name + length};
}

static bool begins_with(const std::vector<uint32_t>& name, const std::vector<uint32_t>& with)
{
    return name.size() >= with.size() && std::equal(with.begin(), with.end(), name.begin());
}

static void check_board(author_doc_t* doc, const author_table_t& table,
                        const std::vector<uint32_t>& board)
{
    if (table.oid_node == nullptr || table.oid.empty()) {
        return;
    }
    if (begins_with(table.oid, board)) {
        author_warn(doc, table.oid_node->at, {table.label, {}},
                    "the OID lies in the board's own subtree");
    } else if (begins_with(board, table.oid)) {
        author_warn(doc, table.oid_node->at, {table.label, {}},
                    "the board's own subtree lies in the table's");
    }
}

void author_rules_oids(author_doc_t* doc)
{
    constexpr size_t ENTRY_COLUMN_SLOT = 3;
    const std::vector<uint32_t> board = board_subtree();
    check_oid(doc, {doc->enterprise_oid, {}, false, 2, "a trap's number"});
    check_oid(doc, {doc->instslot_oid, {}, false, 1, "the slot"});
    for (const author_table_t& table : doc->tables) {
        const auto used =
            static_cast<size_t>(std::ranges::count(table.indexes, true, &author_index_t::used));
        check_oid(doc,
                  {table.oid_node, {table.label, {}}, true, ENTRY_COLUMN_SLOT + used, "cells"});
        check_board(doc, table, board);
    }
    for (const author_binding_t& binding : doc->bindings) {
        check_oid(doc, {binding.oid_node, {}, false, 2, "index and slot"});
    }
}

/* ---- tables at the same place ---- */

static std::string named(const owner_t& owner, const author_doc_t* from)
{
    const std::string place = author_place_text(*owner.doc, owner.table->oid_node->at);
    return "table " + author_quoted(owner.table->label) + " at " +
           (owner.doc == from ? "" : owner.doc->file + ":") + place;
}

static std::vector<owner_t> owners_in_order(std::span<author_doc_t> docs)
{
    std::vector<owner_t> owners;
    for (author_doc_t& doc : docs) {
        for (const author_table_t& table : doc.tables) {
            if (!table.oid.empty()) {
                owners.push_back({&doc, &table, owners.size()});
            }
        }
    }
    std::ranges::sort(owners, [](const owner_t& a, const owner_t& b) {
        return a.table->oid != b.table->oid ? a.table->oid < b.table->oid : a.order < b.order;
    });
    return owners;
}

void author_rules_oids_apart(std::span<author_doc_t> docs)
{
    std::vector<const owner_t*> around; /* whose OIDs the next one may lie in */
    const std::vector<owner_t> owners = owners_in_order(docs);
    for (const owner_t& owner : owners) {
        const author_table_t& table = *owner.table;
        while (!around.empty() && !begins_with(table.oid, around.back()->table->oid)) {
            around.pop_back();
        }
        if (around.empty()) {
            around.push_back(&owner);
            continue;
        }
        const bool same = around.back()->table->oid.size() == table.oid.size();
        (same ? author_error
              : author_warn)(owner.doc, table.oid_node->at, {table.label, {}},
                             (same ? "the OID is that of " : "the OID lies inside that of ") +
                                 named(*around.back(), owner.doc));
        if (!same) {
            around.push_back(&owner);
        }
    }
}
