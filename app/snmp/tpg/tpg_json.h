#ifndef TPG_JSON_H
#define TPG_JSON_H

/* Owners for json-c's objects. */

#include <json-c/json.h>
#include <memory>

struct tpg_json_put {
    void operator()(json_object* object) const
    {
        json_object_put(object);
    }
};
using tpg_json_t = std::unique_ptr<json_object, tpg_json_put>;

struct tpg_json_tokener_free {
    void operator()(json_tokener* tokener) const
    {
        json_tokener_free(tokener);
    }
};
using tpg_json_tokener_t = std::unique_ptr<json_tokener, tpg_json_tokener_free>;

/* What is wrong with the text that was read last. */
inline const char* tpg_json_error(json_tokener* tokener)
{
    static_assert(JSON_TOKENER_DEFAULT_DEPTH == 32);
    const json_tokener_error error = json_tokener_get_error(tokener);
    return error == json_tokener_error_depth ? "nesting too deep, the limit is 32"
                                             : json_tokener_error_desc(error);
}

/* The type codes stand in log messages by number. */
static_assert(json_type_null == 0);
static_assert(json_type_boolean == 1);
static_assert(json_type_double == 2);
static_assert(json_type_int == 3);
static_assert(json_type_object == 4);
static_assert(json_type_array == 5);
static_assert(json_type_string == 6);

#endif
