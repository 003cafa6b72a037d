/* From a card's notify to the trap that is sent, and the switches that hold traps back. */

#include "golden.h"
#include "tpg_db.h"
#include "tpg_json.h"
#include "tpg_jsonmib_parse.h"
#include "tpg_main_trap.h"
#include "unit.h"

/* The traps sent: "trap OID; name=value ..." each. */
static std::vector<std::string> traps;

static std::string dotted(const oid* name, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += (i == 0 ? "" : ".") + std::to_string(name[i]);
    }
    return text;
}

static std::string text_of(const netsnmp_variable_list* list)
{
    std::string text;
    for (; list != nullptr; list = list->next_variable) {
        text += dotted(list->name, list->name_length) + "=";
        if (list->type == ASN_INTEGER) {
            text += std::to_string(*list->val.integer);
        } else if (list->type == ASN_OBJECT_ID) {
            text += dotted(list->val.objid, list->val_len / sizeof(oid));
        } else {
            text.append(reinterpret_cast<const char*>(list->val.string), list->val_len);
        }
        text += " ";
    }
    return text;
}

/* In place of the library's. */
void send_v2trap(netsnmp_variable_list* list)
{
    traps.push_back(text_of(list));
}

/* The ranges read from the text, and what was logged. */
static std::string ranges_of(const std::string& text, uint8_t log_level = TPG_LOG_LEVEL_DEFAULT)
{
    const auto ctx = new_context(log_level);
    jsonmib_trap_bindings_info_t binding = {};
    const std::string log = log_of(
        [&] { EXPECT_EQ(jsonmib_parse_specific_string(ctx.get(), &binding, text.c_str()), 0); });
    EXPECT_NE(binding.specific_list, nullptr);
    std::string ranges;
    for (uint32_t i = 0; i < binding.specific_list_len; i++) {
        const specific_range_t& range = binding.specific_list[i];
        ranges += std::to_string(range.low) + "-" + std::to_string(range.high) + " ";
    }
    free(binding.specific_list);
    return ranges + log;
}

TEST(trap, range_strings)
{
    EXPECT_EQ(ranges_of("1-16, 20-24,30-30"), "1-16 20-24 30-30 ");
    EXPECT_EQ(ranges_of("5, 6-8"), "6-8 Warn Invalid token 5\n");
    EXPECT_EQ(ranges_of("") + ranges_of(" ,, "), "");
    EXPECT_EQ(ranges_of("-5,70000-70001"), "65531-5 4464-4465 ");
    EXPECT_EQ(ranges_of("9-3,3x-9,1--2,-,1\t2-3"), "9-3 3-9 1-65534 0-0 1-3 ");
    std::string many;
    for (int i = 0; i < 33; i++) {
        many += "1-" + std::to_string(i) + " ";
    }
    EXPECT_EQ(ranges_of(many), many);
    EXPECT_TRUE(has(ranges_of(many, TPG_LOG_LEVEL_DEBUG), "specific_max is 48\n"));
}

TEST(trap, rows_and_their_switches)
{
    const auto ctx = new_context();
    auto table = std::make_unique<jsonmib_table_info_t>();
    table->trap_info = {7, 100, 10, 1000};
    table->index_info[1].range[1] = 10;
    struct {
        uint8_t indexes;
        uint32_t index, flat, specific;
    } cases[] = {{1, 0xffff0005, 5, 150},
                 {1, 0xffff, 0xffff, 655450},
                 {2, 0xaa0203, 23, 3120},
                 {2, 0xffff, 2805, 257650}};
    for (const auto& [indexes, index, flat, specific] : cases) {
        tpg_trap_notify_t notify = {};
        tpg_trap_row_t row = {};
        notify.index = index;
        table->index_total = indexes;
        EXPECT_EQ(tpg_trap_locate_row(ctx.get(), table.get(), &notify, &row), 0);
        EXPECT_EQ(row.flat_index, flat);
        EXPECT_EQ(row.specific, specific);
        table->index_total = indexes == 1 ? 0 : 3;
        EXPECT_EQ(tpg_trap_locate_row(ctx.get(), table.get(), &notify, &row), -1);
    }
    /* A position behind the slot's row is the next slot's; behind the last one, off. */
    uint8_t* storage = &table->send_trap_storage[0][0];
    constexpr size_t SIZE = sizeof(table->send_trap_storage);
    std::istringstream switches("1 0 0 1 4 5 3073 2 15 4095 15359 8 3 4096 3072 1 3 4099 3072 8");
    for (uint32_t slot, flat, byte, bit; switches >> slot >> flat >> byte >> bit;) {
        memset(storage, 0, SIZE);
        storage[byte] = static_cast<uint8_t>(bit);
        EXPECT_TRUE(tpg_trap_is_enabled(table.get(), slot, flat));
        memset(storage, 0xff, SIZE);
        storage[byte] = static_cast<uint8_t>(~bit);
        EXPECT_FALSE(tpg_trap_is_enabled(table.get(), slot, flat));
    }
    EXPECT_FALSE(tpg_trap_is_enabled(table.get(), 15, 4096));
    EXPECT_FALSE(tpg_trap_is_enabled(table.get(), 15, 4099));
    uint8_t row[JSONMIB_SENDTRAP_ROW] = {};
    jsonmib_sendtrap_store(row, 17, true);
    jsonmib_sendtrap_store(row, 4095, true);
    EXPECT_EQ(row[4] + row[1023], 2 + 8);
    jsonmib_sendtrap_store(row, 17, false);
    EXPECT_EQ(row[4], 0);
    EXPECT_TRUE(jsonmib_sendtrap_test(row, 4095) && !jsonmib_sendtrap_test(row, 4094));
}

/* Tables of variable 200 with 2, 1 and 3 indexes (the last is never asked), and one of 201. */
constexpr char DOCUMENT[] = R"({
 "enterprise_oid":[1,3,9], "instslot_oid":[1,3,8],
 "fault_table_array":[
  {"name":"two", "oid":[1,3,6,1,4,1,32473,4,1], "param_array":[{"var_id":1}],
   "index_array":[{"range0":1,"range1":9},{"range0":1,"range1":10}],
   "trap_info":{"fault_present_var_id":200,"specific_start":1,"index_ofs_1":2,"index_ofs_2":0}},
  {"name":"one", "oid":[1,3,6,1,4,1,32473,4,2], "param_array":[{"var_id":1}],
   "index_array":[{"range0":1,"range1":64}],
   "trap_info":{"fault_present_var_id":200,"specific_start":500}},
  {"name":"none", "oid":[1,3,6,1,4,1,32473,4,3], "param_array":[{"var_id":1}],
   "trap_info":{"fault_present_var_id":201}}],
 "trap_var_bindings":[
  {"oid":[1,3,7,1], "specific":"1-9"}, {"oid":[1,3,7,2], "specific":"10-10, 10-11"},
  {"oid":[1,3,7,3]}, {"oid":[1,3,7,4], "specific":"7-20"}]})";

TEST(trap, from_notify_to_trap)
{
    constexpr char SLOT[] = " 1.3.8.3=3 ";
    const std::string first = std::string("1.3.6.1.6.3.1.1.4.1.0=1.3.9.0.10") + SLOT;
    const std::string second = std::string("1.3.6.1.6.3.1.1.4.1.0=1.3.9.0.505") + SLOT;
    card_t card;
    ASSERT_EQ(card.load(DOCUMENT), 0);
    tpg_msg_trap_notify_t golden = {};
    memcpy(&golden, GOLDEN_TRAP.host().data(), GOLDEN_TRAP.host().size());
    tpg_msg_trap_notify_t message = golden;
    const auto send = [&] {
        traps.clear();
        return log_of([&] { tpg_msg_trap_notify(card.ctx.get(), &message, nullptr); });
    };
    for (uint32_t i = 0; i < 3; i++) {
        memset(card.record->fault_json_table[i]->send_trap_storage[2], 0xff, 1024);
    }
    EXPECT_EQ(send(), "");
    using list_t = std::vector<std::string>;
    const std::string two_texts = "1.3.7.2.8.3=port 1.3.7.4.8.3=port ";
    EXPECT_EQ(traps, (list_t{first + two_texts, second}));
    message.trap_notify.data[8] = 0;
    EXPECT_EQ(send(), "");
    EXPECT_EQ(traps, (list_t{first + "1.3.7.2.8.3= 1.3.7.4.8.3= ", second}));
    message.trap_notify.data[8] = 5; /* longer than what came */
    EXPECT_EQ(send(), "");
    EXPECT_EQ(traps, (list_t{first, second}));
    message.trap_notify.data_len = 3; /* no offset either */
    EXPECT_EQ(send(), "");
    ASSERT_EQ(traps.size(), 2U);
    EXPECT_TRUE(has(traps[0], "=1.3.9.0.5 ") && has(traps[1], "=1.3.9.0.500 "));

    message = golden;
    card.record->fault_json_table[0]->send_trap_storage[2][23 / 4] = 0xf7;
    EXPECT_EQ(send(), "Error xxxSendTrap[0x203] was disabled\n");
    EXPECT_EQ(traps, (list_t{second}));
    struct {
        uint32_t var_id, index, slot;
        const char* log;
    } refused[] = {
        {200, 0x203, 0, "Error Invalid slot_no 0\n"},
        {200, 0x203, 16, "Error Invalid slot_no 16\n"},
        {200, 0x203, 4, "Error no card is registered at slot_no 4, no trap for var-id 200\n"},
        {200, 0x203, 1, "Error Only support integer trap value for KX!\n"},
        {201, 0, 3, ""},
        {202, 0, 3, ""},
        {200, 4100, 3,
         "Error Trap Nofity: Table one var 200: index 0x1004 is out of range. [1:64], [1:15]\n"},
    };
    for (const auto& [var_id, index, slot, log] : refused) {
        message.trap_notify.var_id = var_id;
        message.trap_notify.index = index;
        message.trap_notify.slot_no = static_cast<uint8_t>(slot);
        EXPECT_EQ(send().substr(0, strlen(log)), log);
        EXPECT_EQ(traps.size(), index == 4100 ? 1U : 0U); /* table two takes 0x1004 as row 164 */
    }
    message = golden;
    card.record->instslot_oid_len = 128;
    EXPECT_TRUE(has(send(), "Error snmp_set_var_objid failed"));
    card.record->instslot_oid_len = 3;
    card.record->enterprise_oid_len = 127;
    EXPECT_TRUE(has(send(), "Error tpg_set_sendtrapoid():snmp_set_var_objid failed\n"
                            "Error tpg_msg_trap_notify(): failed to set sendTrapOID.0\n"));
    EXPECT_EQ(traps.size(), 0U);
    card.record->enterprise_oid_len = 126;
    send();
    EXPECT_EQ(traps.size(), 1U);
}

TEST(trap, of_the_controller_board)
{
    const auto ctx = new_context();
    ctx->mib_kx_node_oid = 216;
    tpg_msg_trap_notify_t message = {};
    message.trap_notify.slot_no = 1;
    message.trap_notify.index = 3;
    message.trap_notify.data_len = 4;
    message.trap_notify.data[3] = 2;
    traps.clear();
    tpg_msg_trap_notify(ctx.get(), &message, nullptr);
    EXPECT_EQ(traps,
              std::vector<std::string>{"1.3.6.1.6.3.1.1.4.1.0=1.3.6.1.4.1.32473.10.216.7.1.0.1005 "
                                       "1.3.6.1.4.1.32473.10.216.3.1.1.1.1=1 "});
}

TEST(trap, switches_over_snmp)
{
    card_t card;
    auto table = std::make_unique<jsonmib_table_info_t>();
    jsonmib_table_param_info_t column = {JSONMIB_TYPE_INT, JSONMIB_ACCESS_RW, 0, 0, {1, 2}};
    table->tpg_context = card.ctx.get();
    table->flags = JSONMIB_TABLE_FAULT;
    table->param_info = &column;
    table->param_total = 1;
    set_text(table->name, "t");
    card.record->sendtrap_json_db = json_object_new_object();
    const auto request = [&](int mode, const std::vector<long>& row, long* value) {
        netsnmp_table_request_info cell = {};
        netsnmp_table_request_info indexes = {};
        netsnmp_agent_request_info info = {};
        cell.colnum = 1;
        info.mode = mode;
        for (const long index : row) {
            snmp_varlist_add_variable(&indexes.indexes, nullptr, 0, ASN_INTEGER, &index,
                                      sizeof(index));
        }
        indexes.number_indexes = static_cast<unsigned>(row.size());
        netsnmp_variable_list var = {};
        snmp_set_var_typed_value(&var, ASN_INTEGER, value, sizeof(*value));
        int status = 0;
        log_of([&] {
            status =
                jsonmib_fault_table_proc_agent_request(&var, &cell, &indexes, &info, table.get());
        });
        *value = *var.val.integer;
        snmp_reset_var_buffers(&var);
        snmp_free_varbind(indexes.indexes);
        return status;
    };
    struct {
        std::vector<long> row;
        uint32_t index2_max, slot, byte;
        uint8_t bits; /* 0: out of the slot's row */
    } cases[] = {{{3}, 0, 3, 0, 1},
                 {{6, 4}, 0, 4, 1, 2},
                 {{256, 15}, 0, 15, 63, 8},
                 {{3, 2, 5}, 8, 5, 4, 2},
                 {{17, 16, 3}, 255, 3, 1023, 8},
                 {{17, 17, 3}, 255, 3, 0, 0},
                 {{256, 256, 3}, UINT32_MAX, 3, 0, 0}};
    for (const auto& [row, index2_max, slot, byte, bits] : cases) {
        SCOPED_TRACE(testing::PrintToString(row));
        tpg_jsonmib_register_info_t* record = &card.ctx->jsonmib_reg_info[slot - 1];
        json_object* db = json_object_new_object();
        json_object_object_add(db, "t", json_object_new_array());
        json_object_put(record->sendtrap_json_db);
        record->sendtrap_json_db = db;
        record->libmib_reginfo.slot_no = static_cast<uint8_t>(slot);
        table->index_info[1].range[1] = index2_max;
        const int expected = bits == 0 ? SNMP_ERR_TOOBIG : SNMP_ERR_NOERROR;
        for (const long written : {2L, 1L, 0L}) { /* 0 is on, where the range admits it */
            long value = written;
            EXPECT_EQ(request(MODE_SET_ACTION, row, &value), expected);
            EXPECT_EQ(request(MODE_GET, row, &value), expected);
            if (bits == 0) {
                continue;
            }
            EXPECT_EQ(value, written == 1 ? 1 : 2);
            const int stored = json_object_get_int(
                json_object_array_get_idx(json_object_object_get(db, "t"), byte));
            EXPECT_EQ(stored, written == 1 ? 0 : bits);
            EXPECT_EQ(table->send_trap_storage[slot - 1][byte], stored);
        }
        uint8_t* storage = &table->send_trap_storage[0][0];
        constexpr size_t SIZE = sizeof(table->send_trap_storage);
        EXPECT_EQ(std::count(storage, storage + SIZE, 0), SIZE - (bits == 0 ? 0 : 1));
        memset(storage, 0, SIZE);
        json_object_put(record->sendtrap_json_db);
        record->sendtrap_json_db = nullptr;
    }
    long value = 3;
    EXPECT_EQ(request(MODE_SET_RESERVE1, {6, 4}, &value), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(request(MODE_GET, {6, 16}, &value), SNMP_ERR_GENERR);
    EXPECT_EQ(request(MODE_GET, {1, 1, 1, 3}, &value), SNMP_ERR_GENERR);
}
