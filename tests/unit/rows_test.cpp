/* The rows of a table, which follow from its index ranges and the cards of its family. */

#include "tpg_jsonmib_table.h"
#include "unit.h"

/* Every row of a table with these index ranges: "(1,3)(2,3)"; at most 70 steps. */
static std::string rows(card_t* card, const std::string& ranges)
{
    const std::string indexes =
        std::regex_replace(ranges, std::regex("(\\d+) (\\d+)"), R"({"range0":$1,"range1":$2})");
    EXPECT_EQ(card->loaded(R"({"gen_table_array":[{"oid":[1,3,6,1,4,1,32473,3],"index_array":[)" +
                           indexes + R"(],"param_array":[{"var_id":1,"type":3}]}]})"),
              "0 ");
    netsnmp_iterator_info iterator = {};
    auto* table = table_of(card->record->gen_table_reginfo[0]);
    iterator.myvoid = table;
    netsnmp_variable_list* list = nullptr;
    for (int i = 0; i < table->index_used; i++) {
        snmp_varlist_add_variable(&list, nullptr, 0, ASN_INTEGER, nullptr, 0);
    }
    std::string text;
    void* loop = nullptr;
    void* row = nullptr;
    auto* step = jsonmib_table_get_first_data_point;
    for (int i = 0; i < 70 && step(&loop, &row, list, &iterator) != nullptr; i++) {
        const auto* context = static_cast<netsnmp_table_request_info*>(row);
        char mark = '(';
        for (const auto* index = context->indexes; index != nullptr; index = index->next_variable) {
            text += mark + std::to_string(*index->val.integer);
            mark = ',';
        }
        text += ")";
        jsonmib_table_free_data_context(row, &iterator);
        step = jsonmib_table_get_next_data_point;
    }
    snmp_free_varbind(list);
    card->unload();
    return text;
}

TEST(rows, of_every_kind_of_table)
{
    card_t card;
    card.record->slot_ref_mask = 1U << 3U | 1U << 7U;
    EXPECT_EQ(rows(&card, "1 4"), "(1,3)(2,3)(3,3)(4,3)(1,7)(2,7)(3,7)(4,7)");
    EXPECT_EQ(rows(&card, "") + rows(&card, "0 4"), "(3)(7)(3)(7)");
    EXPECT_EQ(rows(&card, "4 0,2 3"), "(2,3)(3,3)(2,7)(3,7)");
    EXPECT_EQ(rows(&card, "1 2,8 9"), "(1,8,3)(2,8,3)(1,9,3)(2,9,3)(1,8,7)(2,8,7)(1,9,7)(2,9,7)");
    EXPECT_EQ(rows(&card, "5 5,1 2,6 6,7 7,8 8"),
              "(5,1,6,7,8,3)(5,2,6,7,8,3)(5,1,6,7,8,7)(5,2,6,7,8,7)");
    card.record->slot_ref_mask = 3U << 14U; /* the last slots */
    EXPECT_EQ(rows(&card, "1 2"), "(1,14)(2,14)(1,15)(2,15)");
    card.record->slot_ref_mask = 0;
    EXPECT_EQ(rows(&card, "1 4"), "");
}

TEST(rows, instances)
{
    const auto ctx = new_context();
    const auto walk = [&](const char* family, uint32_t slot = 0) {
        std::string text;
        while (text.size() < 99 &&
               (slot = jsonmib_get_next_instance(ctx.get(), family, slot)) != 0) {
            text += std::to_string(slot) + " ";
        }
        return text;
    };
    set_text(ctx->jsonmib_reg_info_cardmib.libmib_reginfo.prod_family, "card");
    for (const auto& [slot, family, mask] :
         {std::tuple{2, "fam", 0x8204U}, {3, "cards", 8U}, {9, "fam", 0U}, {5, "", 0U}}) {
        tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[slot - 1];
        set_text(record->libmib_reginfo.prod_family, family);
        record->slot_ref_mask = mask;
        record->actual_reginfo = record;
    }
    EXPECT_EQ(walk("fam"), "2 9 15 ");
    EXPECT_EQ(walk("fam", UINT32_MAX) + walk("fam", UINT32_MAX - 1), "2 9 15 ");
    EXPECT_EQ(walk("fa") + walk("cards"), "3 ");
    EXPECT_EQ(walk("card") + walk("ca") + walk("card", 15), "1 2 3 9 1 2 3 9 ");
}
