/*
 * The sub-agents to compare with: "limit" computes the asked cell and answers
 * from memory, "live" asks the slot's daemon for its value, "iterator" answers
 * live behind the library's table iterator.
 */

#include "exchange.h"

#include <cstdlib>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

static int computed_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                            netsnmp_agent_request_info*, netsnmp_request_info*);
static int iterator_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                            netsnmp_agent_request_info*, netsnmp_request_info*);
static netsnmp_variable_list* first_row(void**, void**, netsnmp_variable_list*,
                                        netsnmp_iterator_info*);
static netsnmp_variable_list* next_row(void**, void**, netsnmp_variable_list*,
                                       netsnmp_iterator_info*);
static void register_computed(int subject, size_t table);
static void register_iterator(size_t table);

static bool live;

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "";
    const bool iterator = strcmp(mode, "iterator") == 0;
    live = iterator || strcmp(mode, "live") == 0;
    if (!live && strcmp(mode, "limit") != 0) {
        fprintf(stderr, "usage: bench-subagent limit|live|iterator\n");
        return EXIT_FAILURE;
    }
    netsnmp_enable_subagent();
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, "127.0.0.1:705");
    init_agent("bench_agentx");
    for (size_t table = 0; table < std::size(BENCH_TABLES); table++) {
        if (iterator) {
            register_iterator(table);
        } else {
            register_computed(live ? BENCH_LIVE : BENCH_LIMIT, table);
        }
    }
    init_snmp("bench_agentx");
    for (;;) {
        agent_check_and_process(1);
    }
}

static void serve(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                  const bench_table_t* table, uint32_t cell)
{
    const bench_var_t var = bench_var(table, cell);
    int32_t value = bench_value(var.var_id, var.index);
    if (live && exchange_get(&var, &value) != 0) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        return;
    }
    snmp_set_var_typed_value(request->requestvb, ASN_INTEGER, &value, sizeof(value));
}

/* ---- computed ---- */

static void register_computed(int subject, size_t table)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_table_oid(subject, table, name);
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        "bench", computed_handler, name, len, HANDLER_CAN_RONLY);
    registration->handler->myvoid = const_cast<bench_table_t*>(&BENCH_TABLES[table]);
    netsnmp_register_handler(registration);
}

static int computed_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                            netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    const auto* table = static_cast<const bench_table_t*>(handler->myvoid);
    const size_t root_len = reginfo->rootoid_len;
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        netsnmp_variable_list* var = request->requestvb;
        const size_t len = var->name_length > root_len ? var->name_length - root_len : 0;
        const bool next = reqinfo->mode == MODE_GETNEXT;
        const uint32_t cell = next ? bench_after(table, var->name + root_len, len)
                                   : bench_exact(table, var->name + root_len, len);
        if (cell >= bench_block(table, 0)) {
            if (!next) {
                netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
            }
            continue;
        }
        if (next) {
            oid name[BENCH_OID_MAX];
            std::copy_n(reginfo->rootoid, root_len, name);
            snmp_set_var_objid(var, name, root_len + bench_suffix(table, cell, name + root_len));
        }
        serve(reqinfo, request, table, cell);
    }
    return SNMP_ERR_NOERROR;
}

/* ---- iterator; both contexts are the row's number, counted from 1 ---- */

static void register_iterator(size_t table)
{
    auto* columns = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    auto* rows = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    for (uint32_t i = 2; i < BENCH_TABLES[table].digits; i++) {
        netsnmp_table_helper_add_index(columns, ASN_INTEGER);
    }
    columns->min_column = 1;
    columns->max_column = BENCH_TABLES[table].radix[1];
    rows->get_first_data_point = first_row;
    rows->get_next_data_point = next_row;
    rows->table_reginfo = columns;
    rows->myvoid = const_cast<bench_table_t*>(&BENCH_TABLES[table]);
    oid name[BENCH_OID_MAX];
    const size_t len = bench_table_oid(BENCH_ITERATOR, table, name);
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        "bench", iterator_handler, name, len, HANDLER_CAN_RONLY);
    registration->handler->myvoid = rows->myvoid;
    netsnmp_register_table_iterator(registration, rows);
}

static netsnmp_variable_list* show_row(uintptr_t row, void** loop, void** data,
                                       netsnmp_variable_list* indexes,
                                       const netsnmp_iterator_info* info)
{
    const auto* table = static_cast<const bench_table_t*>(info->myvoid);
    if (row > bench_block(table, 2)) {
        return nullptr;
    }
    *loop = *data = reinterpret_cast<void*>(row); // NOLINT(performance-no-int-to-ptr)
    bench_oid place[BENCH_DIGITS_MAX] = {};
    bench_suffix(table, static_cast<uint32_t>(row - 1), place);
    netsnmp_variable_list* index = indexes;
    for (size_t i = 2; i < table->digits; i++, index = index->next_variable) {
        const long value = static_cast<long>(place[i]);
        snmp_set_var_value(index, &value, sizeof(value));
    }
    return indexes;
}

static netsnmp_variable_list* first_row(void** loop, void** data, netsnmp_variable_list* indexes,
                                        netsnmp_iterator_info* info)
{
    return show_row(1, loop, data, indexes, info);
}

static netsnmp_variable_list* next_row(void** loop, void** data, netsnmp_variable_list* indexes,
                                       netsnmp_iterator_info* info)
{
    return show_row(reinterpret_cast<uintptr_t>(*loop) + 1, loop, data, indexes, info);
}

static int iterator_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                            netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests)
{
    (void)reginfo;
    const auto* table = static_cast<const bench_table_t*>(handler->myvoid);
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        const auto row = reinterpret_cast<uintptr_t>(netsnmp_extract_iterator_context(request));
        const netsnmp_table_request_info* asked = netsnmp_extract_table_info(request);
        if (row != 0 && request->processed == 0) {
            const uint32_t column = asked->colnum - 1;
            serve(reqinfo, request, table,
                  column * bench_block(table, 2) + static_cast<uint32_t>(row - 1));
        }
    }
    return SNMP_ERR_NOERROR;
}
