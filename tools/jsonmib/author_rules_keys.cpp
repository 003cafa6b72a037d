/* Rules on keys: which there are, of which type, how much may stand under them. */

#include "author_check.h"
#include "author_keys.h"

#include <algorithm>

static void check_object(author_doc_t*, const author_node_t&, const author_shape_t&,
                         author_subject_t);

static const char* type_name(const author_node_t& node)
{
    switch (json_object_get_type(node.value)) {
    case json_type_boolean:
        return "true or false";
    case json_type_double:
        return "a number with a fraction";
    case json_type_int:
        return "an integer";
    case json_type_object:
        return "an object";
    case json_type_array:
        return "an array";
    case json_type_string:
        return "a string";
    case json_type_null:
        break;
    }
    return "null";
}

static std::string wanted_name(json_type type)
{
    switch (type) {
    case json_type_boolean:
        return "true or false";
    case json_type_int:
        return "an integer";
    case json_type_string:
        return "a string";
    case json_type_array:
        return "an array";
    default:
        return "an object";
    }
}

static void tell(author_doc_t* doc, bool refused, size_t at, author_subject_t about,
                 const std::string& text)
{
    (refused ? author_error : author_warn)(doc, at, about, text);
}

/* ---- unknown keys ---- */

static bool looks_like_a_table(const author_node_t& node)
{
    const author_node_t& first = node.members.empty() ? node : node.members.front();
    return author_member(node, "param_array") != nullptr ||
           author_member(first, "param_array") != nullptr;
}

static std::string advice(const author_node_t& member, const author_shape_t& shape)
{
    const std::string_view owner = author_key_owner(member.key);
    const std::string_view nearest = author_nearest_key(shape, member.key, author_likeness::loose);
    if (!nearest.empty()) {
        return ", did you mean " + author_quoted(nearest) + "?";
    }
    if (&shape == &author_document && looks_like_a_table(member)) {
        return ", a table stands in \"gen_table_array\" or \"fault_table_array\"";
    }
    return owner.empty() ? "" : ", it belongs into " + std::string(owner);
}

static void check_unknown(author_doc_t* doc, const author_node_t& member,
                          const author_shape_t& shape, author_subject_t about)
{
    const bool plain = json_object_is_type(member.value, json_type_string) != 0 ||
                       json_object_is_type(member.value, json_type_int) != 0;
    const bool allowed = shape.free_keys && plain;
    if (!allowed || !author_nearest_key(shape, member.key, author_likeness::misspelt).empty()) {
        author_warn(doc, member.key_at, about,
                    "unknown key " + author_quoted(member.key) + " in " + std::string(shape.what) +
                        advice(member, shape));
    }
}

/* ---- values ---- */

/* What the agent makes of a value of another type. */
static std::string taken_as(const author_node_t& member, const author_key_t& key)
{
    if (key.misfit == author_misfit::passed_over) {
        return key.need == author_need::required ? "" : "; the agent passes it over";
    }
    if (key.type == json_type_boolean) {
        return json_object_get_boolean(member.value) != 0 ? "; it counts as true"
                                                          : "; it counts as false";
    }
    return "; it counts as " + std::to_string(author_int(member));
}

static void check_misfit(author_doc_t* doc, const author_node_t& member, const author_key_t& key,
                         author_subject_t about)
{
    const bool refused =
        key.need == author_need::required && key.misfit == author_misfit::passed_over;
    tell(doc, refused, member.at, about,
         author_quoted(key.name) + " has to be " + wanted_name(key.type) + ", not " +
             type_name(member) + taken_as(member, key));
}

struct amount_t {
    int64_t number;
    const char* unit;
};

static amount_t amount_of(const author_node_t& member, const author_key_t& key)
{
    switch (key.type) {
    case json_type_int:
        return {json_object_get_int64(member.value), ""};
    case json_type_array:
        return {static_cast<int64_t>(member.members.size()), " elements"};
    case json_type_string:
        return {json_object_get_string_len(member.value), " bytes"};
    default:
        return {0, ""};
    }
}

static void check_limits(author_doc_t* doc, const author_node_t& member, const author_key_t& key,
                         author_subject_t about)
{
    const auto [number, unit] = amount_of(member, key);
    const bool below = number < key.limits.least;
    if (!below && number <= key.limits.most) {
        return;
    }
    const bool cut = key.type == json_type_int && number != author_int(member);
    const bool refused =
        number > key.limits.refused_above || (number == 0 && key.limits.zero_refused);
    const int64_t limit = below     ? key.limits.least
                          : refused ? key.limits.refused_above
                                    : key.limits.most;
    const std::string why = cut ? "it counts as " + std::to_string(author_int(member))
                                : std::string(refused ? "" : key.beyond);
    tell(doc, refused, member.at, about,
         author_quoted(key.name) + (*unit == '\0' ? " is " : " has ") + std::to_string(number) +
             unit + (below ? ", at least " : ", at most ") + std::to_string(limit) +
             (why.empty() ? "" : "; " + why));
}

static author_subject_t subject_of(const author_shape_t& shape, author_subject_t about,
                                   std::string_view label)
{
    if (&shape == &author_column_shape) {
        return {about.table, label};
    }
    return author_key(shape, "param_array") != nullptr ? author_subject_t{label, {}} : about;
}

static void check_elements(author_doc_t* doc, const author_node_t& array, const author_key_t& key,
                           author_subject_t about)
{
    for (size_t i = 0; i < array.members.size(); i++) {
        const author_node_t& element = array.members[i];
        const std::string label = author_label(element, key.name, i);
        if (json_object_is_type(element.value, json_type_object) != 0) {
            check_object(doc, element, *key.shape, subject_of(*key.shape, about, label));
        } else {
            tell(doc, key.shape->objects_refused, element.at, about,
                 label + " has to be an object, not " + type_name(element));
        }
    }
}

static void check_value(author_doc_t* doc, const author_node_t& member, const author_key_t& key,
                        author_subject_t about)
{
    if (json_object_is_type(member.value, key.type) == 0) {
        check_misfit(doc, member, key, about);
        return;
    }
    if (key.type == json_type_object) {
        check_object(doc, member, *key.shape, about);
        return;
    }
    if (key.type != json_type_boolean) {
        check_limits(doc, member, key, about);
    }
    if (key.shape != nullptr && key.shape != &author_oid_shape) {
        check_elements(doc, member, key, about);
    }
}

/* ---- objects ---- */

static void check_missing(author_doc_t* doc, const author_node_t& node, const author_shape_t& shape,
                          author_subject_t about)
{
    for (const author_key_t& key : shape.keys) {
        if (key.need != author_need::optional && author_member(node, key.name) == nullptr) {
            tell(doc, key.need == author_need::required, node.at, about,
                 "no " + author_quoted(key.name) + " in " + std::string(shape.what));
        }
    }
}

static void check_object(author_doc_t* doc, const author_node_t& node, const author_shape_t& shape,
                         author_subject_t about)
{
    for (const author_node_t& member : node.members) {
        const author_key_t* key = author_key(shape, member.key);
        if (member.overridden) {
            continue;
        }
        if (key == nullptr) {
            check_unknown(doc, member, shape, about);
        } else {
            check_value(doc, member, *key, about);
        }
    }
    check_missing(doc, node, shape, about);
}

/* True when something stands where tables do, whatever it is. */
static bool has_tables(const author_doc_t& doc)
{
    return std::ranges::any_of(doc.root.members, [](const author_node_t& member) {
        return (member.key == "gen_table_array" || member.key == "fault_table_array") &&
               (json_object_is_type(member.value, json_type_array) == 0 || !member.members.empty());
    });
}

void author_rules_keys(author_doc_t* doc)
{
    check_object(doc, doc->root, author_document, {});
    if (!has_tables(*doc)) {
        author_warn(doc, doc->root.at, {}, "no tables in the document");
    }
}
