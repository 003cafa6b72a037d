#ifndef AUTHOR_DOC_H
#define AUTHOR_DOC_H

/*
 * A document as its author wrote it: every value with its place in the text, the
 * tables and bindings as the agent reads them, and what was found to be wrong.
 */

#include "tpg.h"
#include "tpg_json.h"

#include <string>
#include <string_view>
#include <vector>

/* A value of the document. */
struct author_node_t {
    std::string key;    /* empty for an element of an array */
    size_t key_at;      /* where the key begins in the text; of an element, where the value does */
    size_t at;          /* where the value begins */
    json_object* value; /* as the agent has it: the document's; null for JSON's null */
    bool overridden;    /* the same key comes again later, and only that one counts */
    std::vector<author_node_t> members; /* in the order of the text */
};

enum class author_severity {
    warning, /* the agent takes it, though the author can hardly mean it */
    error,   /* the agent refuses the card */
};

struct author_finding_t {
    author_severity severity;
    size_t at;          /* in the text */
    std::string table;  /* its name; empty when no table is meant */
    std::string column; /* its name; empty when no column is meant */
    std::string text;
    std::string agent; /* the line that the agent logs; empty when it logs none */
};

struct author_index_t {
    const author_node_t* node;
    uint32_t range[2];
    bool used; /* it is an index of the SNMP table */
};

struct author_column_t {
    const author_node_t* node;
    std::string label; /* its name, or its place in the array */
    std::string name;  /* empty when it has none */
    jsonmib_table_param_info_t as_read;
    int32_t type; /* before the agent cuts it to a byte */
};

struct author_table_t {
    const author_node_t* node;
    bool fault;
    std::string label; /* its name, or its place in the array */
    std::string name;
    const author_node_t* oid_node; /* null when there is no "oid" that the agent takes */
    std::vector<uint32_t> oid;
    const author_node_t* indexes_node; /* null when there is none */
    std::vector<author_index_t> indexes;
    std::vector<author_column_t> columns;
    const author_node_t* trap_node; /* null when there is no "trap_info" that the agent takes */
    jsonmib_table_trap_info_t trap;
};

struct author_binding_t {
    const author_node_t* node;
    const author_node_t* oid_node;
    const author_node_t* specific_node;
};

struct author_doc_t {
    std::string file; /* as it is to be called */
    std::string text;
    std::vector<size_t> line_starts;
    tpg_json_t json;
    author_node_t root;
    std::vector<author_table_t> tables; /* in the order of the text */
    std::vector<author_binding_t> bindings;
    const author_node_t* enterprise_oid; /* null when there is none */
    const author_node_t* instslot_oid;
    bool refused; /* by the agent */
    std::vector<author_finding_t> findings;
};

/* Line and column of a byte in the text, both counted from 1; the column counts bytes. */
struct author_place_t {
    size_t line;
    size_t column;
};
author_place_t author_place(const author_doc_t& doc, size_t at);

/* A place as "LINE:COLUMN". */
std::string author_place_text(const author_doc_t& doc, size_t at);

/* What a finding is about. */
struct author_subject_t {
    std::string_view table;
    std::string_view column;
};

void author_warn(author_doc_t* doc, size_t at, author_subject_t about, std::string text);
void author_error(author_doc_t* doc, size_t at, author_subject_t about, std::string text);

/*
 * Takes the text in and fills the tree, with findings on the notation. False when
 * the text is no JSON to the agent, with an error that says where.
 */
bool author_doc_scan(author_doc_t* doc);

/* Fills tables, bindings and trap OIDs from the tree. */
void author_doc_model(author_doc_t* doc);

/* The member of an object that the agent sees under the key, or null. */
const author_node_t* author_member(const author_node_t& node, std::string_view key);

/* The same, if it has the JSON type. */
const author_node_t* author_member(const author_node_t& node, std::string_view key, json_type type);

/* Where the value of the member begins; of the object, when it has no such member. */
size_t author_member_at(const author_node_t& node, std::string_view key);

/* The number that the agent makes of the value. */
int32_t author_int(const author_node_t& node);

/* The sub-identifiers that the agent makes of an array, at most TPG_OID_MAX of them. */
std::vector<uint32_t> author_oid(const author_node_t& node);

/* What to call an element of the named array: by its own name, or by its place, ARRAY[I]. */
std::string author_label(const author_node_t& element, std::string_view array, size_t i);

/* A text in quotes, cut when it is very long. */
std::string author_quoted(std::string_view text);

#endif
