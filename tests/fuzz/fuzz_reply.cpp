/* A control daemon's replies through GET and SET; it has sent them all, and hangs up. */

#include "fuzz.h"

#include "tpg_jsonmib_ctrl.h"
#include "tpg_jsonmib_request.h"
#include "tpg_legacymib_kx.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

static void request(tpg_context_t*, uint32_t, fuzz_input_t*);
static void request_cell(tpg_context_t*, uint32_t, fuzz_input_t*, bool);
static void request_board(tpg_context_t*, fuzz_input_t*);

/* What one step asks for. */
enum kind : uint32_t { CTRL_GET, CTRL_SET, GEN_CELL, FAULT_CELL, BOARD, KINDS };

constexpr uint32_t LENGTH_MAX = 600;
constexpr size_t STEP = 10; /* bytes of an input that describe one step */

/* Type, access, flags, variable, range. */
static jsonmib_table_param_info_t columns[] = {
    {JSONMIB_TYPE_INT, JSONMIB_ACCESS_RW, 0, 1, {0, 3}},
    {JSONMIB_TYPE_INT_SHIFTED, JSONMIB_ACCESS_RW, 0, 2, {INT_MIN, INT_MAX}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 3, {0, 31}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 4, {0, 127}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 5, {0, 128}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 6, {0, 255}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 7, {0, 256}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 8, {0, INT_MAX}},
    {JSONMIB_TYPE_STRING, JSONMIB_ACCESS_RW, 0, 18, {0, INT_MIN}},
    {7, JSONMIB_ACCESS_RW, 0, 9, {0, 40}},
    {JSONMIB_TYPE_INT, JSONMIB_ACCESS_RW, 0, 10, {0, 0}}, /* fault state */
    {JSONMIB_TYPE_INT, JSONMIB_ACCESS_RO, JSONMIB_PARAM_INDEX, 11, {1, 8}},
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input_t in = {data, size};
    tpg_context_t* ctx = fuzz_begin(&in);
    static const bool registered = (tpg_legacymib_kx_init(ctx), true);
    (void)registered;
    const uint32_t slot = fuzz_number(&in, 1) % 3 + 1;
    const uint32_t owed = fuzz_number(&in, 1);
    const size_t steps = fuzz_number(&in, 1) % 8;
    const std::string_view described = fuzz_bytes(&in, steps * STEP);
    int ends[2];
    FUZZ_REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    FUZZ_REQUIRE(send(ends[1], in.data, in.size, MSG_DONTWAIT) == static_cast<ssize_t>(in.size));
    shutdown(ends[1], SHUT_WR);
    jsonmib_ipc_info_t* info = &ctx->jsonmib_ipc_info[slot - 1];
    *info = {1, 0, ends[0], owed % (JSONMIB_IPC_OWED_MAX + 1), {}};
    for (uint32_t i = 0; i < info->owed_total; i++) {
        const uint32_t length = i % 2 == 0 ? sizeof(uevgend_get_reply_msg_t) : LENGTH_MAX;
        info->owed[i] = {UEVGEND_MSG_GET, i, i / 3, length};
    }
    fuzz_input_t rest = {reinterpret_cast<const uint8_t*>(described.data()), described.size()};
    while (rest.size > 0) {
        request(ctx, slot, &rest);
    }
    fuzz_end(ctx);
    close(ends[1]);
    return 0;
}

static void request(tpg_context_t* ctx, uint32_t slot, fuzz_input_t* in)
{
    const std::string_view step = fuzz_bytes(in, STEP);
    fuzz_input_t one = {reinterpret_cast<const uint8_t*>(step.data()), step.size()};
    const uint32_t wanted = fuzz_number(&one, 1) % KINDS;
    if (wanted == GEN_CELL || wanted == FAULT_CELL) {
        request_cell(ctx, slot, &one, wanted == FAULT_CELL);
        return;
    }
    if (wanted == BOARD) {
        request_board(ctx, &one);
        return;
    }
    const uint32_t length = fuzz_number(&one, 2) % (LENGTH_MAX + 1);
    const uint32_t var = fuzz_number(&one, 1);
    const uint32_t index = fuzz_number(&one, 4);
    const std::unique_ptr<uint8_t[]> value(new uint8_t[length]);
    memset(value.get(), 0xa5, length);
    if (wanted == CTRL_SET) {
        jsonmib_ctrl_set(ctx, slot, var, index, value.get(), length);
    } else if (jsonmib_ctrl_get(ctx, slot, var, index, value.get(), length) != 0) {
        FUZZ_REQUIRE(std::count(value.get(), value.get() + length, 0) == length);
    }
}

/* One cell of a table made by hand. */
static void request_cell(tpg_context_t* ctx, uint32_t slot, fuzz_input_t* in, bool fault)
{
    static constexpr int MODES[] = {MODE_GET,        MODE_SET_RESERVE1, MODE_SET_ACTION,
                                    MODE_SET_COMMIT, MODE_SET_UNDO,     MODE_SET_RESERVE2};
    static constexpr u_char TYPES[] = {ASN_INTEGER, ASN_OCTET_STR, ASN_OBJECT_ID, ASN_NULL};
    static jsonmib_table_info_t table;
    table.tpg_context = ctx;
    table.jsonmib_reginfo = &ctx->jsonmib_reg_info[slot - 1];
    table.param_info = columns;
    table.param_total = std::size(columns);
    table.flags = fault ? JSONMIB_TABLE_FAULT : 0;
    table.index_info[1].range[1] = fuzz_number(in, 1) * 20;
    netsnmp_agent_request_info info = {};
    info.mode = MODES[fuzz_number(in, 1) % std::size(MODES)];
    netsnmp_table_request_info column = {};
    column.colnum = fuzz_number(in, 1) % (std::size(columns) + 3);
    netsnmp_table_request_info row = {};
    row.number_indexes = fuzz_number(in, 1) % 5;
    for (u_int i = 1; i <= row.number_indexes; i++) {
        const bool is_slot = i == row.number_indexes && slot != 3;
        const long value = static_cast<long>(is_slot ? slot : fuzz_number(in, 1));
        snmp_varlist_add_variable(&row.indexes, nullptr, 0, ASN_INTEGER, &value, sizeof(value));
    }
    if (row.number_indexes == 0) {
        const long value = 1;
        snmp_varlist_add_variable(&row.indexes, nullptr, 0, ASN_INTEGER, &value, sizeof(value));
    }
    const u_char type = TYPES[fuzz_number(in, 1) % std::size(TYPES)];
    const std::string text(size_t{8} * fuzz_number(in, 1), 'x');
    const long number = static_cast<int32_t>(fuzz_number(in, 4));
    static constexpr oid NAME[] = {1, 3, 6, 1, 4, 1, 32473, 2};
    netsnmp_variable_list* var = nullptr;
    const bool is_text = type != ASN_INTEGER;
    snmp_varlist_add_variable(&var, NAME, std::size(NAME), type,
                              is_text ? static_cast<const void*>(text.data()) : &number,
                              type == ASN_NULL ? 0 : (is_text ? text.size() : sizeof(number)));
    const auto proc =
        fault ? jsonmib_fault_table_proc_agent_request : jsonmib_gen_table_proc_agent_request;
    proc(var, &column, &row, &info, &table);
    snmp_free_varbind(var);
    snmp_free_varbind(row.indexes);
}

/* The controller board's own tables; they answer from slot 1. */
static void request_board(tpg_context_t* ctx, fuzz_input_t* in)
{
    oid name[MAX_OID_LEN];
    const size_t root_len = tpg_legacymib_kx_oid(ctx, {}, name);
    oid root[MAX_OID_LEN];
    std::copy_n(name, root_len, root);
    const uint32_t command = fuzz_number(in, 1);
    const uint32_t length = fuzz_number(in, 1);
    const size_t name_len = root_len + fuzz_number(in, 1) % 7;
    for (size_t i = root_len; i < name_len; i++) {
        name[i] = fuzz_number(in, 1);
    }
    if (command % 3 == 0) {
        fuzz_walk(root, root_len, name, name_len, 8);
    } else if (command % 3 == 1) {
        const long number = static_cast<long>(length);
        fuzz_set(name, name_len, ASN_INTEGER, &number, sizeof(number));
    } else {
        fuzz_set(name, name_len, ASN_OCTET_STR, std::string(length, 'x').data(), length);
    }
}
