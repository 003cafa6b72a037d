#ifndef CHASSIS_DOCUMENT_H
#define CHASSIS_DOCUMENT_H

/* JSON files, and the card documents among them. */

#include "chassis_vars.h"

#include <json-c/json.h>
#include <memory>
#include <string>

struct chassis_json_put_t {
    void operator()(json_object* obj) const
    {
        json_object_put(obj);
    }
};

using chassis_json_t = std::unique_ptr<json_object, chassis_json_put_t>;

/*
 * The object in a JSON file, read with these flags of the tokener; null, with
 * the reason in *error, when there is none.
 */
chassis_json_t chassis_json_load(const std::string& path, int flags, std::string* error);

/*
 * Adds the columns of a card document that a card is asked for. Parts that
 * the agent would skip or refuse are left out. 0, or -1 with *error set when
 * the file is no JSON object.
 */
int chassis_document_load(chassis_vars_t* vars, const std::string& path, std::string* error);

#endif
