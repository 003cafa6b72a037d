/* A card's stored send-trap switches: the file and its spare, either of them in any state. */

#include "fuzz.h"

#include "tpg_db.h"
#include "tpg_json.h"
#include "tpg_jsonmib_fault.h"
#include "tpg_jsonmib_table.h"

#include <algorithm>

constexpr uint32_t SLOT = 3;
static const std::string FOLDER = "/mnt/flash0/cards/family_slot03/";

static tpg_jsonmib_register_info_t* load(tpg_context_t* ctx)
{
    tpg_jsonmib_register_info_t* card = &ctx->jsonmib_reg_info[SLOT - 1];
    card->libmib_reginfo =
        client_update(TPG_MSG_LIBMIB_REGISTER, SLOT, "qmc", "family", 0, "").libmib_update;
    const int ret = tpg_db_load_sendtrap_db_file(ctx, card);
    FUZZ_REQUIRE((ret == 0) == (card->sendtrap_json_db != nullptr));
    return card;
}

/* What is stored is what comes back, whatever stood in the files. */
static void store_and_compare(tpg_context_t* ctx, jsonmib_table_info_t* table)
{
    uint8_t* row = jsonmib_sendtrap_row(table, SLOT);
    memset(row, 0xff, JSONMIB_SENDTRAP_ROW);
    tpg_jsonmib_register_info_t* card = load(ctx);
    tpg_db_recall_sendtrap_persistence(ctx, table, card);
    jsonmib_sendtrap_store(row, 5, true);
    jsonmib_sendtrap_store(row, 4095, false);
    const uint8_t* next = jsonmib_sendtrap_row(table, SLOT + 1);
    FUZZ_REQUIRE(std::all_of(next, next + JSONMIB_SENDTRAP_ROW, [](uint8_t b) { return b == 0; }));
    tpg_db_update_sendtrap_persistence(ctx, table, SLOT);
    uint8_t stored[JSONMIB_SENDTRAP_ROW];
    memcpy(stored, row, sizeof(stored));
    if (json_object_get_type(card->sendtrap_json_db) != json_type_object) {
        return;
    }
    load(ctx);
    memset(row, 0, sizeof(stored));
    tpg_db_recall_sendtrap_persistence(ctx, table, card);
    FUZZ_REQUIRE(memcmp(stored, row, sizeof(stored)) == 0);
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    static jsonmib_table_info_t alarm, other;
    set_text(alarm.name, "alarmTable");
    memset(other.name, 'o', sizeof(other.name));
    clear_folder(FOLDER);
    for (const char* name : {"sendtrap.json", "sendtrap.json.last"}) {
        const std::string_view text = fuzz_part(&in);
        if (!text.empty()) {
            write_file(FOLDER + name, text);
        }
    }
    store_and_compare(ctx, &alarm);
    store_and_compare(ctx, &other);
}
