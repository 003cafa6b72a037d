/* The numbers of traps, their bindings' ranges, and the switches that hold traps back. */

#include "tpg_jsonmib_parse.h"
#include "tpg_main_trap.h"
#include "unit.h"

/* The ranges read from the text, and what was logged. */
static std::string ranges_of(const std::string& text)
{
    const auto ctx = new_context();
    jsonmib_trap_bindings_info_t binding = {};
    const std::string outcome = outcome_of(
        [&] { return jsonmib_parse_specific_string(ctx.get(), &binding, text.c_str()); });
    std::string ranges;
    for (uint32_t i = 0; i < binding.specific_list_len; i++) {
        const specific_range_t& range = binding.specific_list[i];
        ranges += std::to_string(range.low) + "-" + std::to_string(range.high) + " ";
    }
    free(binding.specific_list);
    return ranges + outcome;
}

TEST(trap, range_strings)
{
    EXPECT_EQ(ranges_of("1-16, 20-24,30-30"), "1-16 20-24 30-30 0 ");
    EXPECT_EQ(ranges_of("5, 6-8"), "6-8 0 Warn Invalid token 5\n");
    EXPECT_EQ(ranges_of("") + ranges_of(" ,, "), "0 0 ");
    EXPECT_EQ(ranges_of("-5,70000-70001"), "65531-5 4464-4465 0 ");
    EXPECT_EQ(ranges_of("9-3,3x-9,1--2,-,1\t2-3"), "9-3 3-9 1-65534 0-0 1-3 0 ");
    const std::string many = std::regex_replace(std::string(33, 'x'), std::regex("x"), "1-2 ");
    EXPECT_EQ(ranges_of(many), many + "0 ");
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
    } cases[] = {{1, 0xffff0005, 5, 150}, {2, 0xaa0203, 23, 3120}, {2, 0xffff, 2805, 257650}};
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
        for (const bool on : {true, false}) {
            memset(storage, on ? 0 : 0xff, SIZE);
            storage[byte] = static_cast<uint8_t>(on ? bit : ~bit);
            EXPECT_EQ(tpg_trap_is_enabled(table.get(), slot, flat), on);
        }
    }
    memset(storage, 0xff, SIZE);
    memset(storage, 0, SIZE);
    for (const bool on : {true, false}) {
        jsonmib_sendtrap_store(storage, 17, on);
        jsonmib_sendtrap_store(storage, 4095, true);
        EXPECT_EQ(storage[4] * 256 + storage[1023], on ? 2 * 256 + 8 : 8);
        EXPECT_EQ(jsonmib_sendtrap_test(storage, 17), on);
    }
}
