/* A card's document and switches into the agent, and out of it. */

#include "tpg_main_cardmib.h"

#include "tpg_db.h"
#include "tpg_file.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_table.h"
#include "tpg_log.h"
#include "tpg_main_mibsource.h"

#include <cstring>

static void preload_table(tpg_context_t*, jsonmib_table_info_t*, tpg_jsonmib_register_info_t*);

constexpr uint8_t ALL_SWITCHES_ON = 0xff;

int tpg_snmp_register_jsonmib(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    if (tpg_locate_jsonmib(ctx, libmib_reginfo) != 0) {
        return -1;
    }
    size_t size = 0;
    const tpg_heap_chars text(jsonmib_read_json(ctx, tpg_jsonmib_path(libmib_reginfo).path, &size));
    if (text == nullptr) {
        TPG_ERROR(ctx, "%s(): fread failed", __func__);
        return -1;
    }
    /* A card whose own registration failed halfway may have come to reference another since. */
    jsonmib_release_tables(ctx, jsonmib_reginfo);
    if (jsonmib_proc_registration(ctx, text.get(), size, jsonmib_reginfo) != 0) {
        TPG_ERROR(ctx, "tpg_parse_jsonmib failed");
        return -1;
    }
    const tpg_libmib_register_info_t* card = &jsonmib_reginfo->libmib_reginfo;
    TPG_INFO(ctx, "Registered product %s:%s version %d.%d.%d on slot %d", card->prod_string,
             card->prod_family, card->major_rev, card->minor_rev, card->build_number,
             card->slot_no);
    return 0;
}

void tpg_snmp_unregister_jsonmib(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    jsonmib_release(ctx, jsonmib_reginfo);
    const tpg_libmib_register_info_t* card = &jsonmib_reginfo->libmib_reginfo;
    TPG_INFO(ctx, "Unregistered product %s:%s version %d.%d.%d on slot %d", card->prod_string,
             card->prod_family, card->major_rev, card->minor_rev, card->build_number,
             card->slot_no);
}

int tpg_preload_send_trap_storage(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    const uint32_t slot = jsonmib_reginfo->libmib_reginfo.slot_no;
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot); /* not always that of the newcomer */
    TPG_INFO(ctx, "%s(%d): enter", __func__, slot);
    const tpg_jsonmib_register_info_t* master = jsonmib_reginfo->actual_reginfo;
    if (master == nullptr) { /* the registry preloads slots that have one only */
        TPG_INFO(ctx, "%s(%d):....No master", __func__, slot);
        return -1;
    }
    TPG_INFO(ctx, "%s(%d): master=%d, fault_table_sum=%d", __func__, slot,
             master->libmib_reginfo.slot_no, master->fault_table_reginfo_sum);
    if (master->fault_table_reginfo_sum != 0 &&
        tpg_db_load_sendtrap_db_file(ctx, jsonmib_reginfo) != 0) {
        TPG_WARN(ctx, "Failed to load sendtrap db file. Losing persistence storage capability!");
    }
    if (master->fault_table_reginfo == nullptr) {
        TPG_INFO(ctx, "No fault table for slot or master %d", slot);
        return -1;
    }
    for (uint32_t i = 0; i < master->fault_table_reginfo_sum; i++) {
        jsonmib_table_info_t* table = master->fault_json_table[i];
        if (table == nullptr) { /* a guard: whatever is registered has its record */
            TPG_ERROR(ctx, "%s(%d): no jsonmib_table,check!!!", __func__, slot);
            continue;
        }
        preload_table(ctx, table, jsonmib_reginfo);
    }
    if (jsonmib_reginfo->sendtrap_state != tpg_db_state::saved) {
        tpg_db_update_sendtrap_db_file(ctx, jsonmib_reginfo); /* once for all tables */
    }
    return 0;
}

/* Slot 0 has no row of switches. */
static void preload_table(tpg_context_t* ctx, jsonmib_table_info_t* table,
                          tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    uint8_t* row = jsonmib_sendtrap_row(table, jsonmib_reginfo->libmib_reginfo.slot_no);
    if (row != nullptr) {
        memset(row, ALL_SWITCHES_ON, JSONMIB_SENDTRAP_ROW);
        tpg_db_recall_sendtrap_persistence(ctx, table, jsonmib_reginfo);
    }
}
