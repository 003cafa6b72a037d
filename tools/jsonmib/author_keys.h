#ifndef AUTHOR_KEYS_H
#define AUTHOR_KEYS_H

/*
 * What keys a document has, and what may stand under them: the one table that the
 * schema is made from and the documents are checked against.
 */

#include "tpg_json.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/* What it means when a key is not there, or has a value of another type. */
enum class author_need {
    optional,
    wanted,   /* the agent goes on without it */
    required, /* the agent refuses the card */
};

/* What the agent makes of a value of another type. */
enum class author_misfit {
    passed_over,
    converted,
};

struct author_shape_t;

/* Numbers, elements of an array or bytes of a string: how many there may be. */
struct author_limits_t {
    int64_t least;
    int64_t most;
    int64_t refused_above = INT64_MAX; /* by the agent */
    bool zero_refused = false;         /* by the agent */
};

struct author_key_t {
    std::string_view name;
    json_type type;
    author_need need;
    author_misfit misfit;
    author_limits_t limits;
    const author_shape_t* shape; /* of the object, or of the array's elements; may be null */
    std::string_view text;       /* for editors */
    std::string_view beyond;     /* why nobody wants a value out of the limits */
};

/* A kind of object. */
struct author_shape_t {
    std::string_view id;
    std::string_view what; /* in messages: "a table" */
    std::string_view text; /* for editors */
    std::span<const author_key_t> keys;
    bool free_keys;       /* other keys may stand there, with strings and integers */
    bool objects_refused; /* the agent refuses anything but an object in its place */
};

/* The document; all other kinds are reached from it. */
extern const author_shape_t author_document;

extern const author_shape_t author_column_shape;

/* An array of sub-identifiers. */
extern const author_shape_t author_oid_shape;
constexpr int64_t AUTHOR_ARC_MAX = INT32_MAX;
constexpr int64_t AUTHOR_FIRST_ARC_MIN = 1; /* the agent has no tables below ccitt, 0 */
constexpr int64_t AUTHOR_FIRST_ARC_MAX = 2;

/* The longest string of a column that a card is asked for, in bytes. */
constexpr int32_t AUTHOR_STRING_MAX = 255;

/* The key of the shape with this name, or null. */
const author_key_t* author_key(const author_shape_t& shape, std::string_view name);

/* What objects have such a key, in any shape: "a table"; empty when none has. */
std::string_view author_key_owner(std::string_view name);

enum class author_likeness {
    misspelt, /* one or two letters are wrong */
    loose,    /* of the same kind */
};

/* The key of the shape whose name is most like this one, or empty when none is alike. */
std::string_view author_nearest_key(const author_shape_t& shape, std::string_view name,
                                    author_likeness likeness);

/* The JSON Schema (draft 7) of documents, with a line feed behind it. */
std::string author_schema();

#endif
