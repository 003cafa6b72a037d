/* A document as the agent reads it, and the names in it, which the agent only logs. */

#include "author_agent.h"
#include "author_mib.h"
#include "tpg_json.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_table.h"
#include "tpg_snmp.h"

/* The member of an object when it has the type, or null. */
static json_object* member(json_object* object, const char* key, json_type type)
{
    json_object* value = nullptr;
    const bool is_there = json_object_is_type(object, json_type_object) != 0 &&
                          json_object_object_get_ex(object, key, &value) != 0;
    return is_there && json_object_is_type(value, type) != 0 ? value : nullptr;
}

static std::string text_of(json_object* object, const char* key)
{
    json_object* value = member(object, key, json_type_string);
    return value == nullptr ? "" : json_object_get_string(value);
}

static std::vector<std::string> column_names(json_object* table, uint32_t total)
{
    json_object* columns = member(table, "param_array", json_type_array);
    std::vector<std::string> names;
    for (uint32_t i = 0; i < total; i++) {
        names.push_back(text_of(json_object_array_get_idx(columns, i), "name"));
    }
    return names;
}

static const jsonmib_table_info_t* record_of(const netsnmp_handler_registration* registration)
{
    const netsnmp_mib_handler* handler = registration->handler;
    while (handler->data_free != jsonmib_table_free) {
        handler = handler->next;
    }
    return static_cast<const jsonmib_table_info_t*>(handler->myvoid);
}

static void add_tables(json_object* root, const char* key,
                       netsnmp_handler_registration* const* registrations, uint32_t total,
                       mib_source_t* source)
{
    json_object* tables = member(root, key, json_type_array);
    for (uint32_t i = 0; i < total; i++) {
        json_object* table = json_object_array_get_idx(tables, i);
        const jsonmib_table_info_t* record = record_of(registrations[i]);
        source->tables.push_back(
            {record, text_of(table, "name"), column_names(table, record->param_total)});
    }
}

int mib_load(const std::string& text, mib_source_t* source)
{
    if (text.empty() || text.size() > TPG_FILE_MAX) {
        author_say("a document has 1 to %zu bytes, this one has %zu", TPG_FILE_MAX, text.size());
        return -1;
    }
    author_agent_t* agent = author_agent_start();
    source->card = &agent->ctx.jsonmib_reg_info[TPG_SLOT_MAX - 1];
    if (jsonmib_proc_registration(&agent->ctx, text.data(), text.size(), source->card) != 0) {
        for (const std::string& line : agent->lines) {
            author_say("the agent refuses it: %s", line.c_str());
        }
        return -1;
    }
    const tpg_json_tokener_t tokener(json_tokener_new());
    const tpg_json_t root(
        json_tokener_parse_ex(tokener.get(), text.data(), static_cast<int>(text.size())));
    source->description = text_of(root.get(), "description");
    source->organization = text_of(root.get(), "organization");
    source->contact = text_of(root.get(), "contact");
    const tpg_jsonmib_register_info_t* card = source->card;
    add_tables(root.get(), "gen_table_array", card->gen_table_reginfo, card->gen_table_reginfo_sum,
               source);
    add_tables(root.get(), "fault_table_array", card->fault_table_reginfo,
               card->fault_table_reginfo_sum, source);
    return 0;
}
