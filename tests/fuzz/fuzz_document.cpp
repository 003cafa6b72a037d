/* A card's document: parsed, registered, its tables and traps used, promoted, and withdrawn. */

#include "fuzz.h"

#include "tpg_jsonmib.h"
#include "tpg_main_registry.h"
#include "tpg_main_trap.h"

constexpr int SLOTS[] = {2, 7}; /* the master's, and one that references it */

static void send_traps(tpg_context_t* ctx, const tpg_jsonmib_register_info_t* card)
{
    for (uint32_t i = 0; card->fault_json_table != nullptr && i < card->fault_table_reginfo_sum;
         i++) {
        const jsonmib_table_info_t* table = card->fault_json_table[i];
        for (const uint32_t index : {0U, 1U, 0x101U, 0xfffU, 0x1003U, 0x10ff03U}) {
            std::string message = notify(
                SLOTS[index % 2], table == nullptr ? 0 : table->trap_info.fault_present_var_id,
                index, big_endian(0) + big_endian(0) + '\x10' + std::string(16, '\0'));
            message.resize(sizeof(tpg_msg_trap_notify_t));
            tpg_msg_trap_notify(ctx, reinterpret_cast<tpg_msg_trap_notify_t*>(message.data()),
                                nullptr);
        }
    }
}

static void use_tables(tpg_context_t* ctx)
{
    fuzz_use_tables(ctx);
    for (const int slot : SLOTS) {
        send_traps(ctx, &ctx->jsonmib_reg_info[slot - 1]);
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    write_file("/tmp/lib.so.json", in);
    jsonmib_check_jsonfile(ctx, "/tmp/lib.so.json");
    clear_folder("/mnt/flash0/cards/family_slot02");
    clear_folder("/mnt/flash0/cards/family_slot07");
    tpg_libmib_update_t cards[std::size(SLOTS)];
    for (size_t i = 0; i < std::size(SLOTS); i++) {
        cards[i] =
            client_update(TPG_MSG_LIBMIB_REGISTER, SLOTS[i], "qmc", "family", 0, "/tmp/lib.so")
                .libmib_update;
        tpg_proc_libmib_register(ctx, &cards[i]);
    }
    use_tables(ctx);
    tpg_proc_libmib_unregister(ctx, &cards[0]);
    use_tables(ctx);
}
