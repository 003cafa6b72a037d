/* Conceptual rows: the first one, the next one, the one that is sought. */
#include "tpg_jsonmib_rows.h"

#include "tpg_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

static uint32_t next_built_in_instance(const tpg_context_t*, int32_t);
static const jsonmib_index_info_t* used_index(const jsonmib_table_info_t*, size_t);
static void set_index(netsnmp_variable_list*, uint32_t);
static netsnmp_table_request_info* row_begins(const jsonmib_table_info_t*, void**);
static netsnmp_variable_list* row_found(const jsonmib_table_info_t*, void**,
                                        netsnmp_variable_list*);
static netsnmp_variable_list* row_missing(void**);
static netsnmp_variable_list* row_lost(const jsonmib_table_info_t*, void**);
static netsnmp_variable_list* sought_row(const jsonmib_table_info_t*, void**,
                                         netsnmp_variable_list*);
static void free_row_context(void*);
static void debug_index(const jsonmib_table_info_t*, size_t, const netsnmp_variable_list*);

static jsonmib_table_info_t* table_of(const netsnmp_iterator_info* iterator_info)
{
    return static_cast<jsonmib_table_info_t*>(iterator_info->myvoid);
}

/* ---- record ---- */

jsonmib_table_name_t jsonmib_table_name(const jsonmib_table_info_t* jsonmib_table)
{
    jsonmib_table_name_t name = {};
    memcpy(name.text, jsonmib_table->name, JSONMIB_NAME_MAX);
    return name;
}

uint8_t* jsonmib_sendtrap_row(jsonmib_table_info_t* jsonmib_table, uint32_t slot_no)
{
    if (slot_no < 1 || slot_no > TPG_SLOT_MAX) {
        return nullptr;
    }
    return jsonmib_table->send_trap_storage[slot_no - 1];
}

/* Listed indexes whose range starts or ends at 0 are no indexes of the SNMP table. */
void jsonmib_find_used_indexes(jsonmib_table_info_t* jsonmib_table)
{
    jsonmib_table->index_used = 0;
    for (uint8_t i = 0; i <= JSONMIB_INDEX_MAX; i++) {
        const jsonmib_index_info_t* index = &jsonmib_table->index_info[i];
        if (index->range[0] != 0 && index->range[1] != 0) {
            jsonmib_table->index_pos[jsonmib_table->index_used++] = i;
        }
    }
}

/* ---- instances ---- */

uint32_t jsonmib_get_next_instance(tpg_context_t* ctx, const char* family_string, uint32_t current)
{
    const auto after = static_cast<int32_t>(current);
    if (strncmp(ctx->jsonmib_reg_info_cardmib.libmib_reginfo.prod_family, family_string,
                strlen(family_string)) == 0) {
        return next_built_in_instance(ctx, after);
    }
    if (after < -1 || after >= static_cast<int32_t>(TPG_SLOT_MAX)) {
        return 0;
    }
    for (const tpg_jsonmib_register_info_t& reginfo : ctx->jsonmib_reg_info) {
        if (reginfo.slot_ref_mask == 0 ||
            strcmp(reginfo.libmib_reginfo.prod_family, family_string) != 0) {
            continue;
        }
        for (uint32_t slot = static_cast<uint32_t>(after + 1); slot <= TPG_SLOT_MAX; slot++) {
            if ((reginfo.slot_ref_mask & (1U << slot)) != 0) {
                return slot;
            }
        }
    }
    return 0;
}

/* Slot 1, the controller, then every slot whose card is served by whatever family. */
static uint32_t next_built_in_instance(const tpg_context_t* ctx, int32_t after)
{
    if (after == 0) {
        return 1;
    }
    if (after < 0 || after >= static_cast<int32_t>(TPG_SLOT_MAX)) {
        return 0;
    }
    for (auto k = static_cast<uint32_t>(after); k < TPG_SLOT_MAX; k++) {
        const tpg_jsonmib_register_info_t* reginfo = &ctx->jsonmib_reg_info[k];
        if (reginfo->actual_reginfo != nullptr && reginfo->libmib_reginfo.prod_family[0] != '\0') {
            return k + 1;
        }
    }
    return 0;
}

/* ---- rows ---- */

static const jsonmib_index_info_t* used_index(const jsonmib_table_info_t* jsonmib_table, size_t i)
{
    return &jsonmib_table->index_info[jsonmib_table->index_pos[i]];
}

static void debug_index(const jsonmib_table_info_t* jsonmib_table, size_t i,
                        const netsnmp_variable_list* index)
{
    if (snmp_get_do_debugging() == 0) {
        return;
    }
    const jsonmib_index_info_t* info = used_index(jsonmib_table, i);
    DEBUGMSGTL(("jsonmib", "index oid: "));
    DEBUGMSGOID(("jsonmib", index->name, index->name_length));
    DEBUGMSG(("jsonmib", "\n"));
    DEBUGMSGTL(("jsonmib", "index val: %ld\n", index->val.integer ? *index->val.integer : 0));
    DEBUGMSGTL(("jsonmib", "table %s, index_info[%zu].range[2]: {%d, %d}, flags 0x%x\n",
                jsonmib_table_name(jsonmib_table).text, i, info->range[0], info->range[1],
                info->flags));
}

static void set_index(netsnmp_variable_list* index, uint32_t value)
{
    const long number = static_cast<long>(value);
    snmp_set_var_typed_value(index, ASN_INTEGER, &number, sizeof(number));
}

netsnmp_variable_list* jsonmib_table_get_first_data_point(void** loop_context, void** data_context,
                                                          netsnmp_variable_list* index_data,
                                                          netsnmp_iterator_info* iterator_info)
{
    (void)loop_context;
    jsonmib_table_info_t* jsonmib_table = table_of(iterator_info);
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_table_get_first_data_point\n"));
    jsonmib_table->seek.stepped = 0;
    if (jsonmib_table->seek.active && jsonmib_table->seek.aloud == 0) {
        return sought_row(jsonmib_table, data_context, index_data);
    }
    if (row_begins(jsonmib_table, data_context) == nullptr) {
        return nullptr;
    }
    netsnmp_variable_list* index = index_data;
    for (size_t i = 0; i < jsonmib_table->index_used && index != nullptr;
         i++, index = index->next_variable) {
        debug_index(jsonmib_table, i, index);
        const jsonmib_index_info_t* info = used_index(jsonmib_table, i);
        uint32_t value = info->range[0];
        if ((info->flags & JSONMIB_INDEX_SLOT) != 0) {
            const char* family = jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family;
            value = jsonmib_get_next_instance(jsonmib_table->tpg_context, family, 0);
            if (value == 0) {
                DEBUGMSGTL(("jsonmib", "no instance found for prod_family [%s]\n", family));
                DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_table_get_first_data_point\n"));
                return row_missing(data_context);
            }
        }
        set_index(index, value);
    }
    netsnmp_variable_list* row = row_found(jsonmib_table, data_context, index_data);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_table_get_first_data_point\n"));
    return row;
}

/* What stepping one index position of a row came to. */
enum class index_step {
    stepped, /* the row is complete */
    carry,   /* the position starts over: the next one steps too */
    end,     /* no further row */
};

static index_step step_instance(const jsonmib_table_info_t* jsonmib_table,
                                const jsonmib_index_info_t* info, netsnmp_variable_list* index)
{
    const auto value = static_cast<uint32_t>(*index->val.integer);
    if (info->range[1] <= value) {
        DEBUGMSGTL(("jsonmib", "reach the end of instance index_value %d\n", value));
        return index_step::end;
    }
    const char* family = jsonmib_table->jsonmib_reginfo->libmib_reginfo.prod_family;
    const uint32_t next = jsonmib_get_next_instance(jsonmib_table->tpg_context, family, value);
    if (next == 0) {
        DEBUGMSGTL(("jsonmib", "no next instance found for prod_family [%s]\n", family));
        return index_step::end;
    }
    DEBUGMSGTL(("jsonmib", "found next instance index_value %d\n", next));
    set_index(index, next);
    return index_step::stepped;
}

static index_step step_range(const jsonmib_index_info_t* info, netsnmp_variable_list* index)
{
    const auto value = static_cast<uint32_t>(*index->val.integer);
    if (value < info->range[1]) {
        DEBUGMSGTL(("jsonmib", "increasing index_value to %d\n", value + 1));
        set_index(index, value + 1);
        return index_step::stepped;
    }
    DEBUGMSGTL(("jsonmib", "reach the end of index_value %d\n", value));
    set_index(index, info->range[0]);
    return index_step::carry;
}

netsnmp_variable_list* jsonmib_table_get_next_data_point(void** loop_context, void** data_context,
                                                         netsnmp_variable_list* index_data,
                                                         netsnmp_iterator_info* iterator_info)
{
    (void)loop_context;
    jsonmib_table_info_t* jsonmib_table = table_of(iterator_info);
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_table_get_next_data_point\n"));
    jsonmib_seek_t* seek = &jsonmib_table->seek;
    if (seek->active && seek->stepped++ >= seek->aloud) {
        *data_context = nullptr;
        return nullptr; /* the one that was sought has been shown */
    }
    if (seek->active && seek->stepped == seek->aloud) {
        DEBUGMSGTL(("jsonmib", "%u rows were stepped through, on to the one that is sought\n",
                    seek->stepped));
        return sought_row(jsonmib_table, data_context, index_data);
    }
    if (row_begins(jsonmib_table, data_context) == nullptr) {
        return nullptr;
    }
    netsnmp_variable_list* index = index_data;
    index_step step = index_step::carry; /* the last position, the slot, does not start over */
    for (size_t i = 0; step == index_step::carry && i < jsonmib_table->index_used;
         i++, index = index->next_variable) {
        debug_index(jsonmib_table, i, index);
        const jsonmib_index_info_t* info = used_index(jsonmib_table, i);
        step = (info->flags & JSONMIB_INDEX_SLOT) != 0 ? step_instance(jsonmib_table, info, index)
                                                       : step_range(info, index);
    }
    if (step == index_step::end) {
        return row_missing(data_context);
    }
    netsnmp_variable_list* row = row_found(jsonmib_table, data_context, index_data);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_table_get_next_data_point\n"));
    return row;
}

/* The row that a handler in front of the iterator has found to answer. */
static netsnmp_variable_list* sought_row(const jsonmib_table_info_t* jsonmib_table,
                                         void** data_context, netsnmp_variable_list* index_data)
{
    if (row_begins(jsonmib_table, data_context) == nullptr) {
        return nullptr;
    }
    if (!jsonmib_table->seek.found) {
        return row_missing(data_context);
    }
    netsnmp_variable_list* index = index_data;
    for (size_t i = 0; i < jsonmib_table->index_used && index != nullptr;
         i++, index = index->next_variable) {
        debug_index(jsonmib_table, i, index);
        set_index(index, jsonmib_table->seek.values[i]);
    }
    return row_found(jsonmib_table, data_context, index_data);
}

/* The row's context, the index values that the request handlers read; null without memory. */
static netsnmp_table_request_info* row_begins(const jsonmib_table_info_t* jsonmib_table,
                                              void** data_context)
{
    auto* table_request =
        static_cast<netsnmp_table_request_info*>(calloc(1, sizeof(netsnmp_table_request_info)));
    *data_context = table_request;
    if (table_request == nullptr) {
        row_lost(jsonmib_table, data_context);
        return nullptr;
    }
    table_request->number_indexes = jsonmib_table->index_used;
    DEBUGMSGTL(("jsonmib", "table_request[%p]\n", static_cast<void*>(table_request)));
    DEBUGMSGTL(("jsonmib", "number_indexes: %d\n", table_request->number_indexes));
    return table_request;
}

static netsnmp_variable_list* row_missing(void** data_context)
{
    free_row_context(*data_context);
    *data_context = nullptr;
    return nullptr;
}

/* There is no memory for the row: it is left out of the answer. */
static netsnmp_variable_list* row_lost(const jsonmib_table_info_t* jsonmib_table,
                                       void** data_context)
{
    TPG_ERROR(jsonmib_table->tpg_context, "table %s: calloc for a row failed, %s",
              jsonmib_table_name(jsonmib_table).text, strerror(errno));
    return row_missing(data_context);
}

/* Hands out a row whose index values stand. */
static netsnmp_variable_list* row_found(const jsonmib_table_info_t* jsonmib_table,
                                        void** data_context, netsnmp_variable_list* index_data)
{
    auto* table_request = static_cast<netsnmp_table_request_info*>(*data_context);
    table_request->indexes = snmp_clone_varbind(index_data);
    return table_request->indexes == nullptr ? row_lost(jsonmib_table, data_context) : index_data;
}

static void free_row_context(void* context)
{
    auto* table_request = static_cast<netsnmp_table_request_info*>(context);
    if (table_request != nullptr) {
        snmp_free_varbind(table_request->indexes);
        free(table_request);
    }
}

void jsonmib_table_free_data_context(void* data_context, netsnmp_iterator_info* iterator_info)
{
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_table_free_data_context\n"));
    DEBUGMSGTL(
        ("jsonmib", "refcnt %d, free data_context[%p]\n", iterator_info->refcnt, data_context));
    free_row_context(data_context);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_table_free_data_context\n"));
}

void jsonmib_table_free_loop_context_at_end(void* loop_context,
                                            netsnmp_iterator_info* iterator_info)
{
    DEBUGMSGTL(("jsonmib", ">>>Entering jsonmib_table_free_loop_context_at_end\n"));
    (void)iterator_info;
    DEBUGMSGTL(("jsonmib", "free loop_context[%p]\n", loop_context));
    free_row_context(loop_context);
    DEBUGMSGTL(("jsonmib", "<<<Leaving jsonmib_table_free_loop_context_at_end\n"));
}
