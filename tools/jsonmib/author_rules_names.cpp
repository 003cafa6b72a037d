/* Rules on names: whoever has one has it alone. */

#include "author_check.h"

#include <algorithm>

/* Tells of each element that has the name of one before it. */
template <typename element_t, typename tell_t>
static void find_equal(const std::vector<element_t>& elements, const tell_t& tell)
{
    std::vector<const element_t*> named;
    for (const element_t& element : elements) {
        if (!element.name.empty()) {
            named.push_back(&element);
        }
    }
    const auto name = [](const element_t* element) -> const std::string& { return element->name; };
    std::ranges::stable_sort(named, {}, name);
    for (size_t i = 1; i < named.size(); i++) {
        if (name(named[i]) == name(named[i - 1])) {
            tell(*named[i], *named[i - 1]);
        }
    }
}

void author_rules_names(author_doc_t* doc)
{
    find_equal(doc->tables, [doc](const author_table_t& table, const author_table_t& other) {
        author_warn(doc, author_member_at(*table.node, "name"), {table.label, {}},
                    "the table at " + author_place_text(*doc, other.node->at) +
                        " has the same name" +
                        (table.fault && other.fault ? ": they share their stored switches" : ""));
    });
    for (const author_table_t& table : doc->tables) {
        find_equal(table.columns, [&](const author_column_t& column, const author_column_t& other) {
            author_warn(doc, author_member_at(*column.node, "name"), {table.label, column.label},
                        "the column at " + author_place_text(*doc, other.node->at) +
                            " has the same name");
        });
    }
}
