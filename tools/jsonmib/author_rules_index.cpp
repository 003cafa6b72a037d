/* Rules on indexes: their ranges, and the rows of fault tables that switches are kept for. */

#include "author_check.h"

#include <algorithm>

/* What a card is told of two indexes is a byte each. */
constexpr uint32_t PAIR_MAX = 255;
/* A fault table's only index picks its switch by its low byte. */
constexpr uint32_t SWITCHED_MAX = 256;

static void check_range(author_doc_t* doc, const author_table_t& table, const author_index_t& index,
                        size_t used)
{
    if (index.used && index.range[1] < index.range[0]) {
        author_warn(doc, index.node->at, {table.label, {}},
                    "the index range " + std::to_string(index.range[0]) + " to " +
                        std::to_string(index.range[1]) + " is reversed");
    } else if (index.used && used == 2 && index.range[1] > PAIR_MAX) {
        author_warn(doc, author_member_at(*index.node, "range1"), {table.label, {}},
                    "of two indexes each ends at " + std::to_string(PAIR_MAX) +
                        ", for the card is told a byte of it, not at " +
                        std::to_string(index.range[1]));
    }
}

static void check_switches(author_doc_t* doc, const author_table_t& table)
{
    const std::vector<author_index_t>& indexes = table.indexes;
    const size_t listed = indexes.size();
    const size_t at = table.indexes_node == nullptr ? table.node->at : table.indexes_node->at;
    if (listed == 0) {
        author_warn(doc, at, {table.label, {}}, "a fault table without an index sends no traps");
    } else if (listed == 1 && indexes[0].range[1] > SWITCHED_MAX) {
        author_warn(doc, author_member_at(*indexes[0].node, "range1"), {table.label, {}},
                    "rows above " + std::to_string(SWITCHED_MAX) +
                        " share the send-trap switches of those below");
    } else if (listed == 2 &&
               uint64_t{indexes[0].range[1]} * indexes[1].range[1] > JSONMIB_SENDTRAP_POSITIONS) {
        author_warn(doc, at, {table.label, {}},
                    std::to_string(uint64_t{indexes[0].range[1]} * indexes[1].range[1]) +
                        " rows, but only " + std::to_string(JSONMIB_SENDTRAP_POSITIONS) +
                        " have a send-trap switch");
    }
}

void author_rules_indexes(author_doc_t* doc)
{
    for (const author_table_t& table : doc->tables) {
        const auto used =
            static_cast<size_t>(std::ranges::count(table.indexes, true, &author_index_t::used));
        for (const author_index_t& index : table.indexes) {
            check_range(doc, table, index, used);
        }
        if (table.fault) {
            check_switches(doc, table);
        }
    }
}
