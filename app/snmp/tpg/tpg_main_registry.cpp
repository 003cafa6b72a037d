/* Who is in which slot, and which card of a family is its master. */

#include "tpg_main_registry.h"

#include "tpg_jsonmib.h"
#include "tpg_log.h"
#include "tpg_main_cardmib.h"
#include "tpg_main_command.h"
#include "tpg_main_mibsource.h"

#include <cassert>
#include <cstring>
#include <string_view>

static int check_text(tpg_context_t* ctx, const char* field, const char* text, size_t size,
                      std::string_view allowed);
static bool is_empty(const tpg_jsonmib_register_info_t*);
static tpg_jsonmib_register_info_t* record_of(tpg_context_t*, uint32_t);
static bool same_family(const tpg_libmib_register_info_t*, const tpg_libmib_register_info_t*);
static void clear_record(tpg_context_t*, tpg_jsonmib_register_info_t*);
static tpg_jsonmib_register_info_t* find_master(tpg_context_t*, const tpg_libmib_update_t*);
static void become_first_master(tpg_context_t*, tpg_libmib_update_t*, tpg_jsonmib_register_info_t*);
static void reference_master(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                             tpg_jsonmib_register_info_t* target,
                             tpg_jsonmib_register_info_t* master);
static void take_over(tpg_context_t* ctx, tpg_libmib_update_t* update,
                      tpg_jsonmib_register_info_t* target, tpg_jsonmib_register_info_t* master);
static void fall_back(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                      tpg_jsonmib_register_info_t* target, tpg_jsonmib_register_info_t* master);
static void preload_slots(tpg_context_t*, uint32_t);
static void re_reference(tpg_context_t*, const tpg_libmib_update_t*, tpg_jsonmib_register_info_t*);
static void log_mask(tpg_context_t*, const char*, const tpg_libmib_update_t*,
                     const tpg_jsonmib_register_info_t*);
static uint32_t find_successor(tpg_context_t*, const tpg_libmib_update_t*, uint32_t);
static void promote(tpg_context_t* ctx, uint32_t slot, uint32_t mask);
static void withdraw_master(tpg_context_t*, const tpg_libmib_update_t*,
                            tpg_jsonmib_register_info_t*);
static int position_of(const tpg_context_t*, const tpg_jsonmib_register_info_t*);

/* These texts reach a shell: letters, digits and what paths are made of. */
constexpr std::string_view SHELL_SAFE = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "abcdefghijklmnopqrstuvwxyz"
                                        "0123456789_./+-,:@=%";
constexpr const char* SHELL_SAFE_MARKS = SHELL_SAFE.substr(SHELL_SAFE.find('_')).data();

/* ---- records ---- */

/* Slot 0 is the built-in MIB's record. */
static tpg_jsonmib_register_info_t* record_of(tpg_context_t* ctx, uint32_t slot_no)
{
    return slot_no == 0 ? &ctx->jsonmib_reg_info_cardmib : &ctx->jsonmib_reg_info[slot_no - 1];
}

/* Counted from 0 for slot 1; -1 for the built-in MIB's record. */
static int position_of(const tpg_context_t* ctx, const tpg_jsonmib_register_info_t* record)
{
    if (record == &ctx->jsonmib_reg_info_cardmib) {
        return -1;
    }
    return static_cast<int>(record - ctx->jsonmib_reg_info);
}

static uint32_t slot_bit(uint32_t slot_no)
{
    return 1U << slot_no;
}

static bool same_family(const tpg_libmib_register_info_t* a, const tpg_libmib_register_info_t* b)
{
    return strcmp(a->prod_family, b->prod_family) == 0;
}

static bool is_empty(const tpg_jsonmib_register_info_t* record)
{
    return record->slot_ref_mask == 0 && record->actual_reginfo == nullptr &&
           record->fault_table_reginfo == nullptr && record->gen_table_reginfo == nullptr;
}

/* A card that referenced a master has its own send-trap document; one that failed may have tables.
 */
static void clear_record(tpg_context_t* ctx, tpg_jsonmib_register_info_t* record)
{
    jsonmib_release(ctx, record);
    *record = {};
}

template <typename number> static int compare(number a, number b)
{
    return (a > b ? 1 : 0) - (a < b ? 1 : 0);
}

int tpg_version_compare(const tpg_libmib_register_info_t* a, const tpg_libmib_register_info_t* b)
{
    if (a->major_rev != b->major_rev) {
        return compare(a->major_rev, b->major_rev);
    }
    if (a->minor_rev != b->minor_rev) {
        return compare(a->minor_rev, b->minor_rev);
    }
    return compare(a->build_number, b->build_number);
}

/* ---- what a record may hold ---- */

/* 0 when the text ends inside its field and none of its characters is refused. */
static int check_text(tpg_context_t* ctx, const char* field, const char* text, size_t size,
                      std::string_view allowed)
{
    const std::string_view value(text, strnlen(text, size));
    if (value.size() == size) {
        TPG_ERROR(ctx, "refused a card: %s has no terminating zero within %zu bytes", field, size);
        return -1;
    }
    if (allowed.empty()) {
        return 0;
    }
    if (!value.empty() && value.front() == '-') {
        TPG_ERROR(ctx, "refused a card: %s \"%s\" begins with -", field, text);
        return -1;
    }
    if (value.find_first_not_of(allowed) != std::string_view::npos) {
        TPG_ERROR(ctx,
                  "refused a card: %s \"%s\" holds a character that is not allowed: letters, "
                  "digits and %s are",
                  field, text, SHELL_SAFE_MARKS);
        return -1;
    }
    return 0;
}

int tpg_check_update(tpg_context_t* ctx, const tpg_libmib_update_t* update)
{
    if (check_text(ctx, "prod_string", update->prod_string, sizeof(update->prod_string),
                   SHELL_SAFE) != 0 ||
        check_text(ctx, "prod_family", update->prod_family, sizeof(update->prod_family), {}) != 0 ||
        check_text(ctx, "libmib_path", update->libmib_path, sizeof(update->libmib_path),
                   SHELL_SAFE) != 0) {
        return -1;
    }
    if (strchr(update->prod_string, '/') != nullptr) {
        TPG_ERROR(ctx, "refused a card: prod_string \"%s\" holds a /", update->prod_string);
        return -1;
    }
    if (strchr(update->prod_family, '/') != nullptr) {
        TPG_ERROR(ctx, "refused a card: prod_family \"%s\" holds a /", update->prod_family);
        return -1;
    }
    return 0;
}

/* ---- register ---- */

void tpg_proc_libmib_register(tpg_context_t* ctx, tpg_libmib_update_t* libmib_update)
{
    const uint32_t slot = libmib_update->slot_no;
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot);
    if (slot > TPG_SLOT_MAX || tpg_check_update(ctx, libmib_update) != 0 ||
        tpg_check_libmib_path(ctx, libmib_update) != 0) {
        return;
    }
    TPG_INFO(ctx, "Registering %s:%s version %d.%d.%d slot_no %d libmib %s",
             libmib_update->prod_string, libmib_update->prod_family, libmib_update->major_rev,
             libmib_update->minor_rev, libmib_update->build_number, slot,
             libmib_update->libmib_path);
    tpg_jsonmib_register_info_t* target = record_of(ctx, slot);
    if (!is_empty(target)) {
        /* Its bit in a master's mask, and the cards that reference it, stay: mostly it is the same
         * card, and they are right again at once. */
        TPG_INFO(ctx, "duplicated registeration at slot_no %d", slot);
        tpg_snmp_unregister_jsonmib(ctx, target);
    }
    /* The request may be the record's own copy. */
    tpg_libmib_update_t update = *libmib_update;
    clear_record(ctx, target);
    target->libmib_reginfo = update;

    tpg_jsonmib_register_info_t* master = find_master(ctx, &update);
    if (master == nullptr) {
        become_first_master(ctx, &update, target);
    } else if (tpg_version_compare(&master->libmib_reginfo, &update) >= 0) {
        reference_master(ctx, &update, target, master);
    } else {
        take_over(ctx, &update, target, master);
    }
}

/* The family's record with a mask in the lowest slot, or null. */
static tpg_jsonmib_register_info_t* find_master(tpg_context_t* ctx,
                                                const tpg_libmib_update_t* update)
{
    for (uint32_t i = 0; i < TPG_SLOT_MAX; i++) {
        tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[i];
        TPG_TRACE(ctx, "mibregister", "  --- ctx->jsonmib_reg_info[%d].slot_ref_mask: %d", i,
                  record->slot_ref_mask);
        if (record->slot_ref_mask != 0 && same_family(&record->libmib_reginfo, update)) {
            TPG_INFO(ctx, "%s(%d): found master %d", "tpg_proc_libmib_register", update->slot_no,
                     i);
            return record;
        }
    }
    return nullptr;
}

static void log_mask(tpg_context_t* ctx, const char* when, const tpg_libmib_update_t* update,
                     const tpg_jsonmib_register_info_t* target)
{
    TPG_INFO(ctx, "[%s] slot %u ctx->jsonmib_reg_info[%d].slot_ref_mask: %u", when, update->slot_no,
             update->slot_no - 1, target->slot_ref_mask);
}

static void become_first_master(tpg_context_t* ctx, tpg_libmib_update_t* update,
                                tpg_jsonmib_register_info_t* target)
{
    if (tpg_snmp_register_jsonmib(ctx, update, target) != 0) {
        TPG_ERROR(ctx, "failed to register new target as master");
        return;
    }
    TPG_INFO(ctx, "~~~~ none of card is registered as master, begin to register the target as "
                  "master and update master reference of other cards in the same family");
    log_mask(ctx, "before", update, target);
    target->actual_reginfo = target;
    target->slot_ref_mask |= slot_bit(update->slot_no);
    tpg_preload_send_trap_storage(ctx, target);
    log_mask(ctx, "after", update, target);
}

static void reference_master(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                             tpg_jsonmib_register_info_t* target,
                             tpg_jsonmib_register_info_t* master)
{
    const tpg_libmib_register_info_t* card = &master->libmib_reginfo;
    master->slot_ref_mask |= slot_bit(update->slot_no);
    target->actual_reginfo = master;
    TPG_INFO(ctx,
             "Same/older version %d.%d.%d on slot %d ==> version %d.%d.%d on master %d, "
             "slot_ref_mask: %08x",
             update->major_rev, update->minor_rev, update->build_number, update->slot_no,
             card->major_rev, card->minor_rev, card->build_number, card->slot_no,
             master->slot_ref_mask);
    tpg_preload_send_trap_storage(ctx, target);
}

static void take_over(tpg_context_t* ctx, tpg_libmib_update_t* update,
                      tpg_jsonmib_register_info_t* target, tpg_jsonmib_register_info_t* master)
{
    const tpg_libmib_register_info_t* old = &master->libmib_reginfo;
    TPG_INFO(ctx, "New version %d.%d.%d on slot %d", update->major_rev, update->minor_rev,
             update->build_number, update->slot_no);
    TPG_INFO(ctx, "Unregistering master %d.%d.%d", old->major_rev, old->minor_rev,
             old->build_number);
    tpg_snmp_unregister_jsonmib(ctx, master);
    if (tpg_snmp_register_jsonmib(ctx, update, target) != 0) {
        fall_back(ctx, update, target, master);
        return;
    }
    TPG_INFO(ctx, "Registered new master based on slot %d", update->slot_no);
    log_mask(ctx, "before", update, target);
    target->actual_reginfo = target;
    target->slot_ref_mask = slot_bit(update->slot_no);
    tpg_preload_send_trap_storage(ctx, target);
    log_mask(ctx, "after", update, target);
    re_reference(ctx, update, target);
}

/*
 * The old master's tables come back. If they cannot, the agent ends on purpose:
 * the family would be left without tables, and a restart reads everything anew.
 */
static void fall_back(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                      tpg_jsonmib_register_info_t* target, tpg_jsonmib_register_info_t* master)
{
    const int position = position_of(ctx, master);
    const uint32_t slot = update->slot_no;
    TPG_ERROR(ctx, "Failed to register the target for slot %d, fallback to old master %d", slot,
              position);
    if (!is_empty(target)) {
        /* Tables that the newcomer did get in would keep the old master's out. */
        tpg_snmp_unregister_jsonmib(ctx, target);
    }
    const bool restored = tpg_snmp_register_jsonmib(ctx, &master->libmib_reginfo, master) == 0;
    if (!restored) {
        TPG_ERROR(ctx, "failed to fallback to old master %d for slot_no %d", position, slot);
        if (tpg_command_stop_asked()) {
            return; /* for that reason, and the agent is to end in order */
        }
    }
    assert((restored));
    TPG_INFO(ctx, "Successfully fallback to master %d, but target slot %d cannot be registered",
             position, slot);
    preload_slots(ctx, master->slot_ref_mask); /* the tables are new, their switches all off */
}

/* Brings the switches of every slot in mask back into its master's tables. */
static void preload_slots(tpg_context_t* ctx, uint32_t mask)
{
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
        if ((mask & slot_bit(slot)) != 0) {
            tpg_preload_send_trap_storage(ctx, record_of(ctx, slot));
        }
    }
}

/* Every other record of the family now references target, registered or not. */
static void re_reference(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                         tpg_jsonmib_register_info_t* target)
{
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
        tpg_jsonmib_register_info_t* record = record_of(ctx, slot);
        if (slot == update->slot_no || !same_family(&record->libmib_reginfo, update)) {
            continue;
        }
        record->slot_ref_mask = 0;
        record->actual_reginfo = target;
        target->slot_ref_mask |= slot_bit(slot);
        tpg_preload_send_trap_storage(ctx, record);
        const tpg_libmib_register_info_t* from = &record->libmib_reginfo;
        const tpg_libmib_register_info_t* to = &target->libmib_reginfo;
        TPG_INFO(ctx,
                 "~~~~ Newer version master, re-referencing %s:%s:[%d.%d.%d] slot_no %d => "
                 "%s:%s[%d.%d.%d] slot_no %d",
                 from->prod_string, from->prod_family, from->major_rev, from->minor_rev,
                 from->build_number, from->slot_no, to->prod_string, to->prod_family, to->major_rev,
                 to->minor_rev, to->build_number, to->slot_no);
    }
}

/* ---- unregister ---- */

void tpg_proc_libmib_unregister(tpg_context_t* ctx, tpg_libmib_update_t* libmib_update)
{
    const uint32_t slot = libmib_update->slot_no;
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot);
    if (slot > TPG_SLOT_MAX || tpg_check_update(ctx, libmib_update) != 0) {
        return;
    }
    TPG_INFO(ctx, "[ Unregistering ] %s:%s version %d.%d.%d on slot %d", libmib_update->prod_string,
             libmib_update->prod_family, libmib_update->major_rev, libmib_update->minor_rev,
             libmib_update->build_number, slot);
    /* Never true, and kept so: slot 0 is the built-in MIB's record, and may be taken out. */
    if (slot > TPG_SLOT_MAX && slot == 0) { // NOLINT(misc-redundant-expression)
        TPG_ERROR(ctx, "invalid slot_no %d", 0);
        return;
    }
    tpg_jsonmib_register_info_t* target = record_of(ctx, slot);
    if (target->actual_reginfo == nullptr) {
        TPG_ERROR(ctx, "target was not registered yet");
        return;
    }
    /* To the byte: a card that was swapped meanwhile is not taken out by its predecessor. */
    const tpg_libmib_register_info_t* mine = &target->libmib_reginfo;
    if (memcmp(mine, libmib_update, sizeof(*mine)) != 0) {
        TPG_ERROR(ctx, "mismatched libmib_register_info");
        TPG_ERROR(ctx, "my info is product %s:%s version %d.%d.%d on slot %d", mine->prod_string,
                  mine->prod_family, mine->major_rev, mine->minor_rev, mine->build_number,
                  mine->slot_no);
        return;
    }
    if (target->slot_ref_mask == 0) {
        target->actual_reginfo->slot_ref_mask &= ~slot_bit(slot);
        clear_record(ctx, target);
        return;
    }
    /* The request may be the record's own copy, which is cleared on the way. */
    const tpg_libmib_update_t update = *libmib_update;
    withdraw_master(ctx, &update, target);
}

static void withdraw_master(tpg_context_t* ctx, const tpg_libmib_update_t* update,
                            tpg_jsonmib_register_info_t* target)
{
    const uint32_t mask = target->slot_ref_mask;
    TPG_INFO(ctx, "[ Unregistering ] original master mask %08x", mask);
    tpg_snmp_unregister_jsonmib(ctx, target);
    TPG_INFO(ctx, "[ Unregistering ] master_mask = %08x", mask);
    const uint32_t successor = find_successor(ctx, update, mask);
    TPG_INFO(ctx, "[ Unregistering ] found a new master %d", successor);
    if (successor != 0) {
        promote(ctx, successor, mask & ~slot_bit(update->slot_no));
    }
    clear_record(ctx, target);
}

/*
 * The slot of the family's next master, or 0. Deliberately, the versions that
 * are weighed are those of the records one slot above the two candidates;
 * above slot 15 stands an empty record.
 */
static uint32_t find_successor(tpg_context_t* ctx, const tpg_libmib_update_t* update, uint32_t mask)
{
    static constexpr tpg_libmib_register_info_t BEYOND_LAST = {};
    const auto above = [ctx](uint32_t slot) {
        return slot < TPG_SLOT_MAX ? &ctx->jsonmib_reg_info[slot].libmib_reginfo : &BEYOND_LAST;
    };
    uint32_t candidate = 0;
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
        const uint32_t bit = mask & slot_bit(slot);
        const tpg_libmib_register_info_t* card = &record_of(ctx, slot)->libmib_reginfo;
        TPG_INFO(ctx,
                 "[ Unregistering ] master_mask&(1 << slot) %d "
                 "ctx->jsonmib_reg_info[%d].libmib_reginfo.prod_family: %s                         "
                 "  libmib_info->prod_family: %s",
                 bit, slot - 1, card->prod_family, update->prod_family);
        if (bit == 0 || slot == update->slot_no || !same_family(card, update)) {
            continue;
        }
        if (candidate == 0 || tpg_version_compare(above(candidate), above(slot)) < 0) {
            candidate = slot;
        }
    }
    return candidate;
}

/*
 * Makes the card in slot the master of the slots in mask. If it cannot be, the
 * other cards go on referencing the record of the old one, which is cleared:
 * they have no tables until one of them registers again.
 */
static void promote(tpg_context_t* ctx, uint32_t slot, uint32_t mask)
{
    tpg_jsonmib_register_info_t* master = record_of(ctx, slot);
    if (tpg_snmp_register_jsonmib(ctx, &master->libmib_reginfo, master) != 0) {
        TPG_INFO(ctx, "[ Unregistering ] tpg_snmp_register_jsonmib for new master %d failed", slot);
        return;
    }
    master->slot_ref_mask = mask;
    master->actual_reginfo = master;
    tpg_preload_send_trap_storage(ctx, master);
    for (uint32_t other = 1; other <= TPG_SLOT_MAX; other++) {
        if (other == slot || (mask & slot_bit(other)) == 0) {
            continue;
        }
        tpg_jsonmib_register_info_t* record = record_of(ctx, other);
        record->actual_reginfo = master;
        tpg_preload_send_trap_storage(ctx, record);
    }
}
