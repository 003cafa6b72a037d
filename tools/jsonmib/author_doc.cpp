/* The document as the agent reads it. */

#include "author_doc.h"

#include "tpg_jsonmib_column.h"

#include <algorithm>
#include <utility>

/* A name that is longer is cut in messages. */
constexpr size_t SHOWN_MAX = 80;

/* ---- findings ---- */

static void add(author_doc_t* doc, author_severity severity, size_t at, author_subject_t about,
                std::string text)
{
    doc->findings.push_back(
        {severity, at, std::string(about.table), std::string(about.column), std::move(text), ""});
}

void author_warn(author_doc_t* doc, size_t at, author_subject_t about, std::string text)
{
    add(doc, author_severity::warning, at, about, std::move(text));
}

void author_error(author_doc_t* doc, size_t at, author_subject_t about, std::string text)
{
    add(doc, author_severity::error, at, about, std::move(text));
}

static std::string shown(std::string_view text)
{
    return text.size() <= SHOWN_MAX ? std::string(text)
                                    : std::string(text.substr(0, SHOWN_MAX)) + "...";
}

std::string author_quoted(std::string_view text)
{
    return "\"" + shown(text) + "\"";
}

/* ---- the tree ---- */

const author_node_t* author_member(const author_node_t& node, std::string_view key)
{
    const auto member = std::ranges::find_if(
        node.members, [key](const author_node_t& m) { return !m.overridden && m.key == key; });
    return member == node.members.end() ? nullptr : &*member;
}

const author_node_t* author_member(const author_node_t& node, std::string_view key, json_type type)
{
    const author_node_t* member = author_member(node, key);
    return member != nullptr && json_object_is_type(member->value, type) != 0 ? member : nullptr;
}

size_t author_member_at(const author_node_t& node, std::string_view key)
{
    const author_node_t* member = author_member(node, key);
    return member == nullptr ? node.at : member->at;
}

int32_t author_int(const author_node_t& node)
{
    return json_object_get_int(node.value);
}

std::vector<uint32_t> author_oid(const author_node_t& node)
{
    std::vector<uint32_t> subids;
    const size_t length = std::min<size_t>(node.members.size(), TPG_OID_MAX);
    for (size_t i = 0; i < length; i++) {
        subids.push_back(static_cast<uint32_t>(author_int(node.members[i])));
    }
    return subids;
}

/* The text of a member that is a string, up to its first zero, as the agent sees it. */
static std::string string_of(const author_node_t& node, std::string_view key)
{
    const author_node_t* member = author_member(node, key, json_type_string);
    return member == nullptr ? "" : json_object_get_string(member->value);
}

std::string author_label(const author_node_t& element, std::string_view array, size_t i)
{
    const std::string name = string_of(element, "name");
    return name.empty() ? std::string(array) + "[" + std::to_string(i) + "]" : shown(name);
}

/* ---- the model ---- */

/* 0 when there is no such member. */
static int32_t int_of(const author_node_t& node, std::string_view key)
{
    const author_node_t* member = author_member(node, key);
    return member == nullptr ? 0 : author_int(*member);
}

static bool is_true(const author_node_t& node, std::string_view key)
{
    const author_node_t* member = author_member(node, key);
    return member != nullptr && json_object_get_boolean(member->value) != 0;
}

/* An integer of "trap_info"; others are passed over. */
static uint32_t trap_number(const author_node_t& node, std::string_view key)
{
    const author_node_t* member = author_member(node, key, json_type_int);
    return member == nullptr ? 0 : static_cast<uint32_t>(author_int(*member));
}

static author_column_t column_of(const author_node_t& node, size_t i, bool fault)
{
    author_column_t column = {};
    column.node = &node;
    column.label = author_label(node, "param_array", i);
    column.name = string_of(node, "name");
    column.type = int_of(node, "type");
    column.as_read = {
        static_cast<uint8_t>(column.type),
        is_true(node, "read_only") ? JSONMIB_ACCESS_RO : JSONMIB_ACCESS_RW,
        is_true(node, "table_index") ? JSONMIB_PARAM_INDEX : uint8_t{0},
        static_cast<uint32_t>(int_of(node, "var_id")),
        {int_of(node, "range0"), int_of(node, "range1")},
        {},
        {},
    };
    jsonmib_column_decide(fault ? JSONMIB_TABLE_FAULT : 0, &column.as_read);
    return column;
}

static author_index_t index_of(const author_node_t& node)
{
    const auto low = static_cast<uint32_t>(int_of(node, "range0"));
    const auto high = static_cast<uint32_t>(int_of(node, "range1"));
    return {&node, {low, high}, low != 0 && high != 0};
}

static bool is_object(const author_node_t& node)
{
    return json_object_is_type(node.value, json_type_object) != 0;
}

static void read_indexes(author_table_t* table)
{
    table->indexes_node = author_member(*table->node, "index_array", json_type_array);
    if (table->indexes_node == nullptr) {
        return;
    }
    for (const author_node_t& index : table->indexes_node->members) {
        if (is_object(index)) {
            table->indexes.push_back(index_of(index));
        }
    }
}

static void read_columns(author_table_t* table)
{
    const author_node_t* array = author_member(*table->node, "param_array", json_type_array);
    for (size_t i = 0; array != nullptr && i < array->members.size(); i++) {
        if (is_object(array->members[i])) {
            table->columns.push_back(column_of(array->members[i], i, table->fault));
        }
    }
}

static void read_trap_info(author_table_t* table)
{
    const author_node_t* node = author_member(*table->node, "trap_info", json_type_object);
    if (!table->fault || node == nullptr) {
        return;
    }
    table->trap_node = node;
    table->trap = {trap_number(*node, "fault_present_var_id"), trap_number(*node, "specific_start"),
                   trap_number(*node, "index_ofs_1"), trap_number(*node, "index_ofs_2")};
}

static void read_tables(author_doc_t* doc, const author_node_t& array, bool fault)
{
    for (size_t i = 0; i < array.members.size(); i++) {
        const author_node_t& node = array.members[i];
        if (!is_object(node)) {
            continue;
        }
        author_table_t& table = doc->tables.emplace_back();
        table.node = &node;
        table.fault = fault;
        table.label = author_label(node, array.key, i);
        table.name = string_of(node, "name");
        table.oid_node = author_member(node, "oid", json_type_array);
        if (table.oid_node != nullptr) {
            table.oid = author_oid(*table.oid_node);
        }
        read_indexes(&table);
        read_columns(&table);
        read_trap_info(&table);
    }
}

static void read_bindings(author_doc_t* doc, const author_node_t& array)
{
    for (const author_node_t& node : array.members) {
        if (is_object(node)) {
            doc->bindings.push_back({&node, author_member(node, "oid", json_type_array),
                                     author_member(node, "specific", json_type_string)});
        }
    }
}

void author_doc_model(author_doc_t* doc)
{
    doc->enterprise_oid = author_member(doc->root, "enterprise_oid", json_type_array);
    doc->instslot_oid = author_member(doc->root, "instslot_oid", json_type_array);
    for (const author_node_t& member : doc->root.members) {
        if (member.overridden || json_object_is_type(member.value, json_type_array) == 0) {
            continue;
        }
        if (member.key == "gen_table_array" || member.key == "fault_table_array") {
            read_tables(doc, member, member.key == "fault_table_array");
        } else if (member.key == "trap_var_bindings") {
            read_bindings(doc, member);
        }
    }
}
