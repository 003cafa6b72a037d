/* The controller board's MIB as the library serves it, in front of a recording daemon. */

#include "tpg_jsonmib_ctrl.h"
#include "tpg_legacymib_kx.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

/* The daemon's next answer, and the last thing it was asked. */
struct daemon_t {
    int code = 0;
    std::string answer; /* zeros follow */
    uint32_t var = 0, index = 0, length = 0, gets = 0;
    std::vector<std::string> sets;
};

static daemon_t chassis;

/* A number as the daemon keeps it. */
static std::string raw(int32_t number)
{
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

/* In place of the control channel. */
int jsonmib_ctrl_get(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     void* data, uint32_t length)
{
    EXPECT_TRUE(ctx == &ctx_local && slot_no == 1);
    chassis.gets++;
    chassis.var = var_id;
    chassis.index = index;
    chassis.length = length;
    memset(data, 0, length);
    if (chassis.code == 0) {
        chassis.answer.copy(static_cast<char*>(data), length);
    }
    return chassis.code;
}

int jsonmib_ctrl_set(tpg_context_t* ctx, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length)
{
    EXPECT_TRUE(ctx == &ctx_local && slot_no == 1);
    chassis.var = var_id;
    chassis.index = index;
    chassis.sets.emplace_back(static_cast<const char*>(data), length);
    return chassis.code;
}

/* One request to whatever is registered at the cell below the board's node. */
static int request(const std::string& arcs, std::initializer_list<int> modes, variable_list* value)
{
    std::vector<oid> name = {1, 3, 6, 1, 4, 1, 32473, 10, ctx_local.mib_kx_node_oid};
    std::istringstream stream(arcs);
    for (std::string arc; std::getline(stream, arc, '.');) {
        name.push_back(std::stoul(arc));
    }
    snmp_set_var_objid(value, name.data(), name.size());
    netsnmp_subtree* tree = netsnmp_subtree_find(name.data(), name.size(), nullptr, nullptr);
    if (tree == nullptr) {
        return SNMP_ERR_NOTWRITABLE;
    }
    netsnmp_request_info cell = {};
    cell.requestvb = value;
    for (const int mode : modes) {
        netsnmp_agent_request_info info = {};
        info.mode = mode;
        if (cell.status == SNMP_ERR_NOERROR) {
            netsnmp_call_handlers(tree->reginfo, &info, &cell);
        }
    }
    netsnmp_free_request_data_sets(&cell);
    return cell.status;
}

/* The cell's value as text; "none" when there is none. */
static std::string get(const std::string& cell, int mode = MODE_GET)
{
    variable_list value = {};
    value.type = ASN_NULL;
    request(cell, {mode}, &value);
    std::string text = "none";
    if (value.type == ASN_INTEGER) {
        text = std::to_string(*value.val.integer);
    } else if (value.type == ASN_OCTET_STR) {
        text.assign(reinterpret_cast<const char*>(value.val.string), value.val_len);
    }
    snmp_reset_var_buffers(&value);
    return text;
}

static int set(const std::string& cell, u_char type, const void* data, size_t length)
{
    variable_list value = {};
    snmp_set_var_typed_value(&value, type, data, length);
    const int status = request(
        cell, {MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_COMMIT}, &value);
    snmp_reset_var_buffers(&value);
    return status;
}

static int set(const std::string& cell, long integer)
{
    return set(cell, ASN_INTEGER, &integer, sizeof(integer));
}

/* Both boards' nodes are registered; most tests use the second. */
struct legacymib : testing::Test {
    static void SetUpTestSuite()
    {
        for (const uint32_t node : {232U, 216U}) {
            ctx_local.mib_kx_node_oid = node;
            tpg_legacymib_kx_init(&ctx_local);
        }
    }
    void SetUp() override
    {
        chassis = {};
        ctx_local.mib_kx_node_oid = 216;
    }
};

/*
 * A group: its arcs, a row, the daemon's index for reads and for writes, then
 * number, kind and variable of every column. Kinds: integer, numbered from 1,
 * string; a capital is writable.
 */
constexpr const char* GROUPS[] = {
    "2. 0 0 0 1S56 2S57 3s58 4s59 5s60 6s61 7s62 8s63 9s64 10s65 11s66 12s67 13i68 14S69 15I70",
    "3.1.1. 15 14 0 2i34 3i35 4s36",
    "4. 0 0 0 1I39 2n40 3n41 4n42 5S43 6I0 8I54 9I55 10I75",
    "5. 0 0 0 1s46 2s47 3s48 4s49 5s50 6N83",
    "5.7.1. 15 0 14 1S81 2S82 3S84 4N85",
    "6.1.1. 21 20 20 2N52 3n51",
    "8. 0 0 0 1S76 2N71 3I72 4N73 5S74"};

TEST_F(legacymib, each_column_reaches_its_variable)
{
    for (const char* group : GROUPS) {
        std::istringstream words(group);
        std::string arcs, row;
        uint32_t read_index = 0, write_index = 0, var = 0;
        char kind = 0;
        words >> arcs >> row >> read_index >> write_index;
        for (std::string number; std::getline(words >> std::ws, number, ' ');) {
            sscanf(number.c_str(), "%*[0-9]%c%u", &kind, &var);
            std::string cell = arcs;
            cell.append(number, 0, number.find(kind)).append(".").append(row);
            SCOPED_TRACE(cell);
            const bool is_string = strchr("sS", kind) != nullptr;
            const bool writable = strchr("ISN", kind) != nullptr;
            const int32_t shift = strchr("nN", kind) != nullptr ? 1 : 0;
            chassis = {};
            chassis.answer = is_string ? "tpg" : raw(-7);
            EXPECT_EQ(get(cell), is_string ? "tpg" : std::to_string(-7 + shift));
            EXPECT_EQ(chassis.var, var);
            EXPECT_EQ(chassis.index, read_index);
            EXPECT_EQ(chassis.length, is_string ? 128U : 4U);

            chassis.var = chassis.index = 999;
            const int status = is_string ? set(cell, ASN_OCTET_STR, "longer", 6) : set(cell, -6);
            EXPECT_EQ(status, writable ? SNMP_ERR_NOERROR : SNMP_ERR_NOTWRITABLE);
            EXPECT_EQ(chassis.var, writable ? var : 999U);
            EXPECT_EQ(chassis.index, writable ? write_index : 999U);
            EXPECT_EQ(chassis.sets.size(), writable ? 1U : 0U);
            EXPECT_TRUE(!writable || chassis.sets[0] == (is_string ? "longer" : raw(-6 - shift)));
        }
    }
}

TEST_F(legacymib, instances_and_row_numbers)
{
    for (const uint32_t node : {232U, 216U}) {
        ctx_local.mib_kx_node_oid = node;
        std::istringstream cells(
            "3.1.1.1.3 3 3.1.1.5.3 4 3.1.1.6.15 16 4.7.1.1.8 8 6.1.1.1.21 21 "
            "2.1.1 none 3.1.1.1.0 none 3.1.1.1.16 none 3.1.1.7.1 none 4.7.0 none "
            "4.7.1.1.9 none 5.7.1.4.16 none 6.1.1.2.22 none 6.1.1.2.1.1 none");
        for (std::string cell, value; cells >> cell >> value;) {
            EXPECT_EQ(get(cell), value) << cell;
            EXPECT_EQ(set(cell, 1), SNMP_ERR_NOTWRITABLE) << cell;
        }
    }
    EXPECT_EQ(chassis.gets, 0U);
    EXPECT_EQ(get("6.1.1.1", MODE_GETNEXT), "1");
    EXPECT_EQ(get("6.1.1.1.20.5", MODE_GETNEXT), "21");
    EXPECT_EQ(get("6.1.1.1.21", MODE_GETNEXT), "none");
}

TEST_F(legacymib, what_the_daemon_answers)
{
    chassis.answer = std::string(129, 'x'); /* no terminator */
    EXPECT_EQ(get("8.1.0"), std::string(128, 'x'));
    EXPECT_EQ(get("3.1.1.4.1"), std::string(128, 'x'));
    chassis.answer.clear();
    EXPECT_EQ(set("4.7.1.2.8", 3), SNMP_ERR_NOERROR); /* accepted and ignored */
    EXPECT_TRUE(chassis.sets.empty());
    EXPECT_EQ(get("4.7.1.2.8"), "1");
    EXPECT_EQ(chassis.var, 44U);
    EXPECT_EQ(chassis.index, 7U);
    chassis.code = JSONMIB_CTRL_TRANSPORT;
    for (const char* cell : {"2.15.0", "5.7.1.4.1", "6.1.1.2.1"}) {
        EXPECT_EQ(get(cell), "none");
        EXPECT_EQ(set(cell, 1), SNMP_ERR_GENERR);
    }
    EXPECT_EQ(set("8.1.0", ASN_OCTET_STR, "x", 1), SNMP_ERR_GENERR);
}

/* What no registered column leads to. */
TEST_F(legacymib, functions_called_amiss)
{
    long value = 2;
    const auto call = [&value](WriteMethod* write, std::vector<oid> name, u_char type = ASN_INTEGER,
                               size_t length = sizeof(long), int action = ACTION) {
        return write(action, reinterpret_cast<u_char*>(&value), type, length, nullptr, name.data(),
                     name.size());
    };
    const std::vector<std::pair<WriteMethod*, oid>> functions = {{kx_networksetuptable_write, 15},
                                                                 {kx_hardwaretable_write, 10},
                                                                 {kx_softwaretable_write, 6},
                                                                 {kx_slotiptable_write, 4},
                                                                 {kx_timemanagementtable_write, 5}};
    for (const auto& [write, last] : functions) {
        EXPECT_EQ(call(write, {last + 1, 1}), SNMP_ERR_NOSUCHNAME);
        EXPECT_EQ(call(write, {0, 1}), SNMP_ERR_NOSUCHNAME);
        EXPECT_EQ(call(write, {last}), SNMP_ERR_NOSUCHNAME);
        EXPECT_EQ(call(write, {last, 1}, ASN_GAUGE), SNMP_ERR_NOERROR);
        EXPECT_EQ(call(write, {last, 1}, ASN_INTEGER, 2), SNMP_ERR_WRONGLENGTH);
        EXPECT_EQ(call(write, {last, 1}, ASN_OCTET_STR, 65536 - 24), SNMP_ERR_WRONGLENGTH);
        for (const int action : {RESERVE1, RESERVE2, COMMIT, FREE, UNDO}) {
            EXPECT_EQ(call(write, {last, 1}, ASN_INTEGER, sizeof(long), action), SNMP_ERR_NOERROR);
        }
    }
    EXPECT_EQ(call(kx_slotiptable_write, {4, 0}), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(call(kx_mgmsendtrap_write, {2, 0}), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(call(kx_mgmsendtrap_write, {2, 1}, ASN_OCTET_STR), SNMP_ERR_GENERR);
    EXPECT_EQ(call(kx_mgmsendtrap_write, {2, 1}, ASN_OCTET_STR, 1, COMMIT), SNMP_ERR_NOERROR);
    EXPECT_TRUE(chassis.sets.empty());

    WriteMethod* write = nullptr;
    const auto is_found = [&write](FindVarMethod* function, u_char magic, u_short acl, oid row) {
        variable column = {magic, ASN_INTEGER, acl, nullptr, 1, {}};
        oid name[MAX_OID_LEN] = {0, row};
        size_t length = 2;
        size_t var_len = 0;
        write = kx_ledtable_write;
        return function(&column, name, &length, 1, &var_len, &write) != nullptr;
    };
    EXPECT_TRUE(is_found(var_kx_hardwaretable, 10, RWRITE, 0) && write == kx_hardwaretable_write);
    EXPECT_TRUE(is_found(var_kx_hardwaretable, 10, RONLY, 0) && write == nullptr);
    EXPECT_TRUE(is_found(var_kx_mgmfaulttable, 3, RONLY, 1) && write == nullptr);
    for (const u_char magic : {u_char{0}, u_char{11}}) {
        EXPECT_FALSE(is_found(var_kx_hardwaretable, magic, RWRITE, 0));
        EXPECT_FALSE(is_found(var_kx_mgmfaulttable, magic, RONLY, 1));
    }
    EXPECT_FALSE(is_found(var_kx_mgmfaulttable, 4, RONLY, 1));
    EXPECT_STREQ(snmp_api_errstring(0), " (Unknown magic number!\n)");
}

TEST_F(legacymib, one_failed_group_leaves_the_others)
{
    oid base[] = {1, 3, 6, 1, 4, 1, 32473, 10, 217, 2};
    const variable2 taken = {1, ASN_INTEGER, RONLY, var_kx_ledtable, 1, {1}};
    register_mib("taken", reinterpret_cast<const variable*>(&taken), sizeof(taken), 1, base,
                 OID_LENGTH(base));
    debug_register_tokens("register_mib,legacymib");
    snmp_set_do_debugging(1);
    snmp_enable_stderrlog();
    testing::internal::CaptureStderr();
    ctx_local.mib_kx_node_oid = 217;
    tpg_legacymib_kx_init(&ctx_local);
    EXPECT_EQ(get("4.7.1.2.1"), "1");
    snmp_set_do_debugging(0);
    const std::string output = testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("kx_networksetuptable registration failed\n"), std::string::npos);
    EXPECT_EQ(output.find("kx_ledtable registration failed\n"), std::string::npos);
    EXPECT_NE(output.find("VP Magic Number INSERTIONCOUNTER 2\n"), std::string::npos);
}
