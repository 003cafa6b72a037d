/* The numbers of traps, their bindings' ranges, and the switches that hold traps back. */

#include "tpg_jsonmib_parse.h"
#include "tpg_main_trap.h"
#include "unit.h"

TEST(trap, range_strings)
{
    std::string many;
    for (int i = 0; i < 33; i++) {
        many += "1-2 ";
    }
    const auto ctx = new_context();
    for (const auto& [text, ranges] :
         {std::pair<std::string, std::string>{"1-16, 20-24,30-30", "1-16 20-24 30-30 0 "},
          {"5, 6-8", "6-8 0 Warn Invalid token 5\n"},
          {"", "0 "},
          {" ,, ", "0 "},
          {"-5,70000-70001", "65531-5 4464-4465 0 "},
          {"9-3,3x-9,1--2,-,1\t2-3", "9-3 3-9 1-65534 0-0 1-3 0 "},
          {many, many + "0 "}}) {
        jsonmib_trap_bindings_info_t binding = {};
        const std::string outcome = outcome_of([&, list = text.c_str()] {
            return jsonmib_parse_specific_string(ctx.get(), &binding, list);
        });
        std::string read;
        for (const specific_range_t& range :
             std::span(binding.specific_list, binding.specific_list_len)) {
            read += std::to_string(range.low) + "-" + std::to_string(range.high) + " ";
        }
        free(binding.specific_list);
        EXPECT_EQ(read + outcome, ranges);
    }
}

/* A position behind the slot's row is the next slot's; behind the last one, off. */
TEST(trap, switches)
{
    auto table = std::make_unique<jsonmib_table_info_t>();
    uint8_t* storage = &table->send_trap_storage[0][0];
    std::istringstream switches("1 0 0 1 4 5 3073 2 15 4095 15359 8 3 4096 3072 1 3 4099 3072 8");
    for (uint32_t slot, flat, byte, bit; switches >> slot >> flat >> byte >> bit;) {
        for (const bool on : {true, false}) {
            memset(storage, on ? 0 : 0xff, sizeof(table->send_trap_storage));
            storage[byte] = static_cast<uint8_t>(on ? bit : ~bit);
            EXPECT_EQ(tpg_trap_is_enabled(table.get(), slot, flat), on);
        }
    }
    memset(storage, 0xff, sizeof(table->send_trap_storage));
    EXPECT_FALSE(tpg_trap_is_enabled(table.get(), 15, 4096));
}

/* Behind the enterprise there must be room for two more. */
TEST(trap, longest_enterprise)
{
    const auto ctx = new_context();
    const std::vector<uint32_t> enterprise(127, 9);
    for (const uint32_t length : {126U, 127U}) {
        netsnmp_variable_list var;
        oid place[TPG_OID_MAX];
        const std::string outcome = outcome_of([&] {
            return tpg_set_sendtrapoid(ctx.get(), &var, enterprise.data(), length, 77, place);
        });
        EXPECT_TRUE(outcome.starts_with(length == 126 ? "0 " : "-1 Error ")) << outcome;
        EXPECT_EQ(var.val_len, length == 126 ? sizeof(place) : 0);
        EXPECT_TRUE(length == 127 || (place[125] == 9 && place[126] == 0 && place[127] == 77));
    }
}
