/* The JSON Schema of documents, made from the table of keys. */

#include "author.h"
#include "author_check.h"
#include "author_keys.h"
#include "tpg.h"

#include <CLI/CLI.hpp>
#include <cstdio>

static json_object* text_of(std::string_view text)
{
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

static void put(json_object* object, const char* key, json_object* value)
{
    json_object_object_add(object, key, value);
}

static void put_limits(json_object* object, const author_key_t& key)
{
    constexpr struct {
        json_type type;
        const char* least;
        const char* most;
    } WORDS[] = {{json_type_int, "minimum", "maximum"},
                 {json_type_string, "minLength", "maxLength"},
                 {json_type_array, "minItems", "maxItems"}};
    for (const auto& words : WORDS) {
        if (words.type == key.type) {
            put(object, words.least, json_object_new_int64(key.limits.least));
            put(object, words.most, json_object_new_int64(key.limits.most));
        }
    }
}

static json_object* arc_schema(int64_t least, int64_t most)
{
    json_object* schema = json_object_new_object();
    put(schema, "type", text_of("integer"));
    put(schema, "minimum", json_object_new_int64(least));
    put(schema, "maximum", json_object_new_int64(most));
    return schema;
}

/* The first sub-identifier has limits of its own. */
static void put_arcs(json_object* schema)
{
    json_object* first = json_object_new_array();
    json_object_array_add(first, arc_schema(AUTHOR_FIRST_ARC_MIN, AUTHOR_FIRST_ARC_MAX));
    put(schema, "items", first);
    put(schema, "additionalItems", arc_schema(0, AUTHOR_ARC_MAX));
}

static json_object* reference(const author_shape_t& shape)
{
    json_object* schema = json_object_new_object();
    put(schema, "$ref", text_of("#/definitions/" + std::string(shape.id)));
    return schema;
}

static json_object* key_schema(const author_key_t& key)
{
    if (key.type == json_type_object) {
        return reference(*key.shape); /* says all of it */
    }
    json_object* schema = json_object_new_object();
    put(schema, "description", text_of(key.text));
    put(schema, "type",
        text_of(key.type == json_type_int ? "integer" : json_type_to_name(key.type)));
    put_limits(schema, key);
    if (key.shape == &author_oid_shape) {
        put_arcs(schema);
    } else if (key.shape != nullptr) {
        put(schema, "items", reference(*key.shape));
    }
    return schema;
}

/* The limits that a column's type sets. */
static json_object* column_conditions()
{
    constexpr char CONDITIONS[] =
        R"([{"if": {"properties": {"type": {"const": %d}}, "required": ["type"]},
             "then": {"properties": {"range1": {"maximum": %d}}}}])";
    char text[sizeof(CONDITIONS) + 16];
    snprintf(text, sizeof(text), CONDITIONS, int{JSONMIB_TYPE_STRING}, int{AUTHOR_STRING_MAX});
    return json_tokener_parse(text);
}

/* Keys that the shape does not know. */
static json_object* other_keys(const author_shape_t& shape)
{
    return shape.free_keys ? json_tokener_parse(R"({"type": ["string", "integer"],
                                                    "description": "Free, for descriptions."})")
                           : json_object_new_boolean(0);
}

static json_object* shape_schema(const author_shape_t& shape)
{
    json_object* schema = json_object_new_object();
    json_object* properties = json_object_new_object();
    json_object* required = json_object_new_array();
    put(schema, "description", text_of(shape.text));
    put(schema, "type", text_of("object"));
    for (const author_key_t& key : shape.keys) {
        put(properties, std::string(key.name).c_str(), key_schema(key));
        if (key.need != author_need::optional) {
            json_object_array_add(required, text_of(key.name));
        }
    }
    put(schema, "properties", properties);
    put(schema, "required", required);
    put(schema, "additionalProperties", other_keys(shape));
    if (&shape == &author_column_shape) {
        put(schema, "allOf", column_conditions());
    }
    return schema;
}

/* The shapes that keys of this one lead to, and those behind them. */
static void put_definitions(json_object* definitions, const author_shape_t& shape)
{
    for (const author_key_t& key : shape.keys) {
        if (key.shape != nullptr && key.shape != &author_oid_shape) {
            put(definitions, std::string(key.shape->id).c_str(), shape_schema(*key.shape));
            put_definitions(definitions, *key.shape);
        }
    }
}

std::string author_schema()
{
    const tpg_json_t schema(shape_schema(author_document));
    json_object* definitions = json_object_new_object();
    put(schema.get(), "$schema", text_of("http://json-schema.org/draft-07/schema#"));
    put(schema.get(), "title", text_of("jsonmib"));
    put_definitions(definitions, author_document);
    put(schema.get(), "definitions", definitions);
    constexpr int FLAGS = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
    return std::string(json_object_to_json_string_ext(schema.get(), FLAGS)) + "\n";
}

void author_add_schema(CLI::App& line, int* status)
{
    CLI::App* command = line.add_subcommand("schema", "Writes the JSON Schema of documents");
    command->callback([status] {
        const std::string schema = author_schema();
        const bool written = fwrite(schema.data(), 1, schema.size(), stdout) == schema.size();
        *status = written && fflush(stdout) == 0 ? AUTHOR_FINE : AUTHOR_MISUSE;
    });
}
