/* What a card's registration reads beside the card's messages: the output of objdump, in place of
 * the tool, and the stored send-trap switches, the file and its spare. */

#include "fuzz.h"

#include "tpg_db.h"
#include "tpg_json.h"
#include "tpg_main_mibsource.h"

#include <sys/stat.h>

/* The symbol line, the section heads and the dump of the data section. */
static std::string_view symbols, heads, dump;

static int print(const char* command)
{
    const char* output = strstr(command, " > ");
    if (output != nullptr) {
        const bool is_head = strncmp(command, "objdump -h", 10) == 0;
        const bool is_dump = strncmp(command, "objdump -s", 10) == 0;
        write_file(output + 3, is_head ? heads : is_dump ? dump : symbols);
    }
    return 0;
}

/* What is stored is what comes back, whatever stood in the files. */
static void use_switches(tpg_context_t* ctx, std::string_view* in)
{
    constexpr uint32_t SLOT = 2;
    static const std::string folder = "/mnt/flash0/cards/family_slot02/";
    static jsonmib_table_info_t table;
    tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[SLOT - 1];
    uint8_t* row = table.send_trap_storage[SLOT - 1];
    set_text(table.name, "alarmTable");
    set_text(record->libmib_reginfo.prod_family, "family");
    record->libmib_reginfo.slot_no = SLOT;
    clear_folder(folder);
    write_file(folder + "sendtrap.json", fuzz_part(in));
    write_file(folder + "sendtrap.json.last", fuzz_part(in));
    for (int round = 0; round < 2; round++) {
        const std::string stored(reinterpret_cast<const char*>(row), JSONMIB_SENDTRAP_ROW);
        memset(row, 0xff, JSONMIB_SENDTRAP_ROW);
        const int ret = tpg_db_load_sendtrap_db_file(ctx, record);
        FUZZ_REQUIRE((ret == 0) == (record->sendtrap_json_db != nullptr));
        tpg_db_recall_sendtrap_persistence(ctx, &table, record);
        FUZZ_REQUIRE(round == 0 || ret != 0 ||
                     json_object_get_type(record->sendtrap_json_db) != json_type_object ||
                     memcmp(stored.data(), row, stored.size()) == 0);
        row[round] ^= 1U;
        tpg_db_update_sendtrap_persistence(ctx, &table, SLOT);
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    symbols = fuzz_part(&in);
    heads = fuzz_part(&in);
    dump = fuzz_part(&in);
    fuzz_system = print;
    write_file("/tmp/lib.so", "library");
    auto card =
        client_update(TPG_MSG_LIBMIB_REGISTER, 2, "qmc", "family", 0, "/tmp/lib.so").libmib_update;
    uint32_t offset = 0;
    uint32_t length = 0;
    if (tpg_get_jsonmib_string(ctx, &card, &offset, &length) == 0 &&
        tpg_parse_jsonmib_string(ctx, &card, offset, length) >= 0) {
        struct stat st = {};
        FUZZ_REQUIRE(stat(tpg_jsonmib_path(&card).path, &st) == 0 && st.st_size == length);
    }
    uint32_t* words = nullptr;
    size_t bytes = 0;
    if (tpg_proc_data_section(ctx, card.libmib_path, &words, &bytes) == 0) {
        FUZZ_REQUIRE(words != nullptr && bytes > 0);
    }
    free(words);
    tpg_locate_jsonmib(ctx, &card);
    use_switches(ctx, &in);
}
