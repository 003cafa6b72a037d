/* The controller board's MIB functions in front of a recording daemon. */

#include "tpg_jsonmib_ctrl.h"
#include "tpg_legacymib_kx.h"

#include <cstring>
#include <gtest/gtest.h>
#include <span>
#include <sstream>
#include <string>
#include <vector>

/* The daemon's result and answer, and what it was asked and told: "VARIABLE INDEX DATA". */
static int code;
static std::string answer, asked, told;

/* The bytes of a number: an int32_t as the daemon keeps it, a long as the library has it. */
template <typename number_t> static std::string raw(number_t number)
{
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

/* In place of the control channel. */
int jsonmib_ctrl_get(tpg_context_t*, uint32_t slot_no, uint32_t var_id, uint32_t index, void* data,
                     uint32_t length)
{
    EXPECT_EQ(slot_no, 1U);
    asked = std::to_string(var_id) + " " + std::to_string(index) + " " + std::to_string(length);
    memset(data, 0, length);
    answer.copy(static_cast<char*>(data), code == 0 ? length : 0);
    return code;
}

int jsonmib_ctrl_set(tpg_context_t*, uint32_t slot_no, uint32_t var_id, uint32_t index,
                     const void* data, uint32_t length)
{
    EXPECT_EQ(slot_no, 1U);
    told = std::to_string(var_id) + " " + std::to_string(index) + " " +
           std::string(static_cast<const char*>(data), length);
    return code;
}

static std::string get(FindVarMethod* find, u_char number, u_char type, oid row)
{
    variable column = {number, static_cast<char>(type), RONLY, nullptr, 1, {}};
    oid name[MAX_OID_LEN] = {0, row};
    size_t length = 2;
    size_t size = 0;
    WriteMethod* write = nullptr;
    const u_char* value = find(&column, name, &length, 1, &size, &write);
    return value == nullptr ? "none" : std::string(reinterpret_cast<const char*>(value), size);
}

static int set(WriteMethod* write, std::vector<oid> name, u_char type, std::string value)
{
    return write(ACTION, reinterpret_cast<u_char*>(value.data()), type, value.size(), nullptr,
                 name.data(), name.size());
}

/*
 * A row, the daemon's index for reads and for writes, then number, kind and variable of every
 * column. Kinds: integer, numbered from 1, string; a capital is writable.
 */
struct group_t {
    FindVarMethod* find;
    WriteMethod* write;
    oid last;
    const char* map;
};
static const group_t GROUPS[] = {
    {var_kx_networksetuptable, kx_networksetuptable_write, 15,
     "0 0 0 1S56 2S57 3s58 4s59 5s60 6s61 7s62 8s63 9s64 10s65 11s66 12s67 13i68 14S69 15I70"},
    {var_kx_hardwaretable, kx_hardwaretable_write, 10,
     "0 0 0 1I39 2n40 3n41 4n42 5S43 6I0 8I54 9I55 10I75"},
    {var_kx_softwaretable, kx_softwaretable_write, 6, "0 0 0 1s46 2s47 3s48 4s49 5s50 6N83"},
    {var_kx_slotiptable, kx_slotiptable_write, 4, "15 0 14 1S81 2S82 3S84 4N85"},
    {var_kx_timemanagementtable, kx_timemanagementtable_write, 5, "0 0 0 1S76 2N71 3I72 4N73 5S74"},
    {var_kx_productlocationtable, nullptr, 0, "15 14 0 2i34 3i35 4s36"},
    {var_kx_mgmfaulttable, nullptr, 0, "21 20 20 2n52 3n51"}};

TEST(legacymib, each_column_reaches_its_variable)
{
    for (const group_t& group : GROUPS) {
        std::istringstream words(group.map);
        std::string read_index, write_index, var;
        oid row = 0;
        words >> row >> read_index >> write_index;
        unsigned number = 0;
        for (char kind = 0; words >> number >> kind >> var;) {
            SCOPED_TRACE(var);
            const bool is_string = strchr("sS", kind) != nullptr;
            const u_char type = is_string ? ASN_OCTET_STR : ASN_INTEGER;
            const int shift = strchr("nN", kind) != nullptr ? 1 : 0;
            answer = is_string ? "tpg" : raw(-7);
            EXPECT_EQ(get(group.find, static_cast<u_char>(number), type, row),
                      is_string ? "tpg" : raw(-7 + shift));
            EXPECT_EQ(asked, var + " " + read_index + (is_string ? " 128" : " 4"));
            if (strchr("ISN", kind) != nullptr) {
                EXPECT_EQ(set(group.write, {number, row}, type, is_string ? "longer" : raw(-6L)),
                          SNMP_ERR_NOERROR);
                EXPECT_EQ(told,
                          var + " " + write_index + " " + (is_string ? "longer" : raw(-6 - shift)));
            }
        }
    }
    answer = std::string(129, 'x'); /* no terminator */
    EXPECT_EQ(get(var_kx_networksetuptable, 1, ASN_OCTET_STR, 0), std::string(128, 'x'));
    code = JSONMIB_CTRL_TRANSPORT;
    EXPECT_EQ(get(var_kx_networksetuptable, 15, ASN_INTEGER, 0), "none");
}

/* What no registered column leads to. */
TEST(legacymib, functions_called_amiss)
{
    const std::string value = raw(2L);
    code = 0;
    told.clear();
    for (const auto& [find, write, last, map] : std::span(GROUPS, 5)) {
        for (const std::vector<oid>& name : {std::vector<oid>{last + 1, 1}, {0, 1}, {last}}) {
            EXPECT_EQ(set(write, name, ASN_INTEGER, value), SNMP_ERR_NOSUCHNAME);
        }
        EXPECT_EQ(set(write, {last, 1}, ASN_GAUGE, value), SNMP_ERR_NOERROR);
        EXPECT_EQ(set(write, {last, 1}, ASN_INTEGER, "ab"), SNMP_ERR_WRONGLENGTH);
    }
    EXPECT_EQ(told, "");
}
