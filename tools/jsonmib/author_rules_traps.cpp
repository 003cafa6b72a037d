/* Rules on traps: what raises them, their numbers, and the texts that go with them. */

#include "author_check.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace
{
/* The numbers of a table's traps. */
struct span_t {
    author_doc_t* doc;
    const author_table_t* table;
    int64_t low;
    int64_t high;
    int64_t room; /* up to this offset a notify may add without reaching the next row's number */
};
} // namespace

static author_subject_t about(const author_table_t& table)
{
    return {table.label, {}};
}

static std::string range_text(int64_t low, int64_t high)
{
    return low == high ? std::to_string(low) : std::to_string(low) + " to " + std::to_string(high);
}

/* ---- what raises a trap ---- */

/* For each variable of a card, the first table that shows it. */
using shown_t = std::map<uint32_t, const author_table_t*>;

static shown_t tables_by_variable(const author_doc_t& doc)
{
    shown_t shown;
    for (const author_table_t& table : doc.tables) {
        for (const author_column_t& column : table.columns) {
            shown.emplace(column.as_read.var_id, &table);
        }
    }
    return shown;
}

static void check_variable(author_doc_t* doc, const author_table_t& table, const shown_t& shown)
{
    const uint32_t var_id = table.trap.fault_present_var_id;
    const auto other = shown.find(var_id);
    if (std::ranges::any_of(table.columns, [var_id](const author_column_t& column) {
            return column.as_read.var_id == var_id;
        })) {
        return;
    }
    author_warn(doc, author_member_at(*table.trap_node, "fault_present_var_id"), about(table),
                "no column of the table has variable " + std::to_string(var_id) +
                    (other == shown.end()
                         ? ""
                         : ", but table " + author_quoted(other->second->label) + " has one"));
}

static void check_variables(author_doc_t* doc)
{
    const shown_t shown = tables_by_variable(*doc);
    std::map<uint32_t, const author_table_t*> raised;
    for (const author_table_t& table : doc->tables) {
        const uint32_t var_id = table.trap.fault_present_var_id;
        if (!table.fault || table.trap_node == nullptr || var_id == 0) {
            continue;
        }
        check_variable(doc, table, shown);
        const auto [other, is_new] = raised.emplace(var_id, &table);
        if (!is_new) {
            author_warn(doc, author_member_at(*table.trap_node, "fault_present_var_id"),
                        about(table),
                        "variable " + std::to_string(var_id) + " raises the traps of table " +
                            author_quoted(other->second->label) + ", too");
        }
    }
}

/* ---- OIDs of traps ---- */

static void check_oids(author_doc_t* doc)
{
    const author_node_t* faults = author_member(doc->root, "fault_table_array", json_type_array);
    const author_node_t* bindings = author_member(doc->root, "trap_var_bindings", json_type_array);
    if (faults != nullptr && !faults->members.empty()) {
        if (doc->enterprise_oid == nullptr) {
            author_warn(doc, faults->key_at, {}, "traps, but no \"enterprise_oid\" to name them");
        }
        if (doc->instslot_oid == nullptr) {
            author_warn(doc, faults->key_at, {},
                        "traps, but no \"instslot_oid\" to name their slot");
        }
    }
    if (bindings != nullptr && !bindings->members.empty() && doc->enterprise_oid == nullptr) {
        author_warn(doc, bindings->key_at, {}, "trap bindings, but no \"enterprise_oid\"");
    }
}

/* ---- numbers ---- */

/* How many rows an index has, and the first of them as the card counts. */
struct rows_t {
    int64_t first;
    int64_t total;
};

static rows_t rows_of(const author_index_t& index)
{
    const int64_t low = index.range[0];
    const int64_t high = index.range[1];
    return {std::max<int64_t>(low - 1, 0), std::max<int64_t>(high - low + 1, 1)};
}

/* False when the table sends no traps. */
static bool find_span(author_doc_t* doc, const author_table_t& table, span_t* span)
{
    const int64_t steps[] = {table.trap.index_ofs_1, table.trap.index_ofs_2};
    const size_t listed = table.indexes.size();
    if (!table.fault || table.trap_node == nullptr || listed == 0 || listed > std::size(steps)) {
        return false;
    }
    const int64_t start = table.trap.specific_start;
    *span = {doc, &table, start, start, 0};
    int64_t least_step = INT32_MAX;
    for (size_t i = 0; i < listed; i++) {
        const rows_t rows = rows_of(table.indexes[i]);
        span->low += rows.first * steps[i];
        span->high += (rows.first + rows.total - 1) * steps[i];
        least_step = steps[i] == 0 ? least_step : std::min(least_step, steps[i]);
    }
    span->room = least_step == INT32_MAX ? 0 : least_step - 1;
    return true;
}

static std::vector<span_t> spans_of(author_doc_t* doc)
{
    std::vector<span_t> spans;
    for (const author_table_t& table : doc->tables) {
        span_t span = {};
        if (find_span(doc, table, &span)) {
            spans.push_back(span);
        }
    }
    return spans;
}

/*
 * Rows of two indexes: a step of one index makes up for some steps of the other. An
 * offset of 0 is on purpose: the traps of these rows differ by their bindings only.
 */
static void check_rows(author_doc_t* doc, const author_table_t& table)
{
    const int64_t a = table.trap.index_ofs_1;
    const int64_t b = table.trap.index_ofs_2;
    if (table.indexes.size() != 2 || a == 0 || b == 0) {
        return;
    }
    const int64_t common = std::gcd(a, b);
    if (b / common < rows_of(table.indexes[0]).total &&
        a / common < rows_of(table.indexes[1]).total) {
        author_warn(doc, table.trap_node->at, about(table),
                    "rows of the table have the same trap number");
    }
}

/* The tables' numbers, in ascending order, of documents whose traps have the same names. */
static void check_overlaps(std::vector<span_t>* spans)
{
    std::ranges::stable_sort(*spans, {}, &span_t::low);
    const span_t* highest = nullptr;
    for (const span_t& span : *spans) {
        if (highest != nullptr && span.low <= highest->high) {
            const bool elsewhere = highest->doc != span.doc;
            author_warn(span.doc, author_member_at(*span.table->trap_node, "specific_start"),
                        about(*span.table),
                        "trap numbers " + range_text(span.low, span.high) + " overlap those of " +
                            "table " + author_quoted(highest->table->label) +
                            (elsewhere ? " in " + highest->doc->file : "") + ", " +
                            range_text(highest->low, highest->high));
        }
        highest = highest == nullptr || span.high > highest->high ? &span : highest;
    }
}

void author_rules_traps_apart(std::span<author_doc_t> docs)
{
    std::map<std::vector<uint32_t>, std::vector<span_t>> by_name;
    for (author_doc_t& doc : docs) {
        const std::vector<span_t> spans = spans_of(&doc);
        const bool has_name = doc.enterprise_oid != nullptr;
        std::vector<span_t>& all =
            by_name[has_name ? author_oid(*doc.enterprise_oid) : std::vector<uint32_t>{}];
        all.insert(all.end(), spans.begin(), spans.end());
    }
    for (auto& [name, spans] : by_name) {
        check_overlaps(&spans);
    }
}

/* ---- texts that go with traps ---- */

/* Numbers that the document can send, in ascending order, none of them overlapping. */
static std::vector<span_t> joined(std::vector<span_t> spans)
{
    std::vector<span_t> all;
    std::ranges::sort(spans, {}, &span_t::low);
    for (const span_t& span : spans) {
        const int64_t high = span.high + span.room;
        if (all.empty() || span.low > all.back().high) {
            all.push_back(span);
            all.back().high = high;
        } else {
            all.back().high = std::max(all.back().high, high);
        }
    }
    return all;
}

static bool covers(const std::vector<span_t>& spans, uint16_t low, uint16_t high)
{
    const auto reaches = std::ranges::lower_bound(spans, int64_t{low}, {}, &span_t::high);
    return reaches != spans.end() && reaches->low <= high;
}

static bool is_number(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

static void check_token(author_doc_t* doc, size_t at, const std::string& token,
                        const std::vector<span_t>& spans)
{
    const size_t minus = token.find('-');
    const std::string low_text = token.substr(0, minus);
    const std::string high_text = minus == std::string::npos ? "" : token.substr(minus + 1);
    const long low = strtol(low_text.c_str(), nullptr, 10);
    const long high = strtol(high_text.c_str(), nullptr, 10);
    const auto low_taken = static_cast<uint16_t>(low);
    const auto high_taken = static_cast<uint16_t>(high);
    const std::string taken =
        "; it counts as " + std::to_string(low_taken) + "-" + std::to_string(high_taken);
    std::string text;
    if (minus == std::string::npos) {
        text = "is no range; the agent passes it over" +
               (is_number(token) ? ", write " + token + "-" + token : std::string());
    } else if (!is_number(low_text) || !is_number(high_text)) {
        text = "has ends that are no numbers" + taken;
    } else if (low != low_taken || high != high_taken) {
        text = "goes above 65535" + taken;
    } else if (low > high) {
        text = "is reversed, and holds no number";
    } else if (!covers(spans, low_taken, high_taken)) {
        text = "holds no trap number of the document";
    } else {
        return;
    }
    author_warn(doc, at, {}, "the range " + author_quoted(token) + " " + text);
}

/* The string has to stand in the text as it is meant, or the place is its beginning. */
static void check_specific(author_doc_t* doc, const author_node_t& node,
                           const std::vector<span_t>& spans)
{
    constexpr char SEPARATORS[] = ", ";
    const std::string text = json_object_get_string(node.value);
    const bool plain = doc->text.compare(node.at + 1, text.size(), text) == 0;
    if (text.find_first_not_of(SEPARATORS) == std::string::npos) {
        author_warn(doc, node.at, {}, "\"specific\" has no range: the binding goes with no trap");
    }
    for (size_t at = 0; (at = text.find_first_not_of(SEPARATORS, at)) != std::string::npos;) {
        const size_t end = std::min(text.find_first_of(SEPARATORS, at), text.size());
        check_token(doc, plain ? node.at + 1 + at : node.at, text.substr(at, end - at), spans);
        at = end;
    }
}

void author_rules_traps(author_doc_t* doc)
{
    const std::vector<span_t> spans = joined(spans_of(doc));
    check_variables(doc);
    check_oids(doc);
    for (const author_table_t& table : doc->tables) {
        if (table.trap_node != nullptr) {
            check_rows(doc, table);
        }
    }
    for (const author_binding_t& binding : doc->bindings) {
        if (binding.specific_node != nullptr) {
            check_specific(doc, *binding.specific_node, spans);
        }
    }
}
