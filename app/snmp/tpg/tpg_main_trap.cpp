/* A card's notify: table, row, switch, trap number, bindings. */

#include "tpg_main_trap.h"

#include "tpg_jsonmib_fault.h"
#include "tpg_jsonmib_index.h"
#include "tpg_jsonmib_request.h"
#include "tpg_jsonmib_stats.h"
#include "tpg_jsonmib_table.h"
#include "tpg_legacymib_kx.h"
#include "tpg_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

/* What a notify's data says. Each part is there if the data is long enough; otherwise it is zero.
 */
struct notify_data_t {
    uint32_t specific_offset;
    bool has_text; /* for the bindings; only then the rest is there */
    uint32_t first_index;
    std::string_view text;
};

static uint32_t big_endian_32(const uint8_t*);
static notify_data_t data_of(const tpg_trap_notify_t*);
static void dump_notify(const tpg_trap_notify_t*);
static int build_slot_binding(tpg_context_t*, tpg_jsonmib_register_info_t*, uint32_t,
                              netsnmp_variable_list*);
static int set_integer_binding(tpg_context_t*, netsnmp_variable_list*, const oid*, size_t, int32_t);
static jsonmib_table_info_t* find_fault_table(tpg_context_t*, const netsnmp_handler_registration*,
                                              uint32_t);
static void notify_tables(tpg_context_t*, tpg_jsonmib_register_info_t*, const tpg_trap_notify_t*,
                          netsnmp_variable_list*);
static int notify_table(tpg_context_t*, tpg_jsonmib_register_info_t*, jsonmib_table_info_t*,
                        const tpg_trap_notify_t*, netsnmp_variable_list*);
static bool is_a_row(const jsonmib_table_info_t*, uint32_t);
static int send_table_trap(tpg_context_t*, const tpg_jsonmib_register_info_t*,
                           jsonmib_table_info_t*, const tpg_trap_notify_t*, uint32_t,
                           netsnmp_variable_list*);
static const specific_range_t* matching_range(const jsonmib_trap_bindings_info_t*, uint32_t,
                                              const specific_range_t*);
static netsnmp_variable_list* new_binding(tpg_context_t*, const jsonmib_trap_bindings_info_t*,
                                          uint32_t);
static int fill_binding(tpg_context_t*, netsnmp_variable_list*, const jsonmib_trap_bindings_info_t*,
                        const notify_data_t*, uint32_t);

/* snmpTrapOID.0 */
constexpr oid objid_snmptrap[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr size_t objid_snmptrap_len = std::size(objid_snmptrap);

constexpr char TRACE_TRAP[] = "trap";
constexpr uint32_t SPECIFIC_BASE_KX = 1000;

/* ---- data of a notify ---- */

static uint32_t big_endian_32(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24U | static_cast<uint32_t>(bytes[1]) << 16U |
           static_cast<uint32_t>(bytes[2]) << 8U | bytes[3];
}

static notify_data_t data_of(const tpg_trap_notify_t* notify)
{
    const uint8_t* bytes = notify->data;
    notify_data_t data = {};
    if (notify->data_len >= TPG_TRAP_OFFSET_LEN) {
        data.specific_offset = big_endian_32(bytes);
    }
    if (notify->data_len >= TPG_TRAP_TEXT_OFS &&
        TPG_TRAP_TEXT_OFS + bytes[TPG_TRAP_TEXT_LEN_OFS] <= notify->data_len) {
        data.has_text = true;
        data.first_index = big_endian_32(bytes + TPG_TRAP_FIRST_INDEX_OFS);
        data.text = {reinterpret_cast<const char*>(bytes + TPG_TRAP_TEXT_OFS),
                     bytes[TPG_TRAP_TEXT_LEN_OFS]};
    }
    return data;
}

/* Bytes behind data_len are zero: nothing that the card did not send is shown. */
static void dump_notify(const tpg_trap_notify_t* notify)
{
    constexpr unsigned PER_LINE = 16;
    const unsigned varbind_len =
        notify->data_len > TPG_TRAP_OFFSET_LEN ? notify->data[4] * 256U + notify->data[5] : 0;
    printf("Received trap notify, slot_no %d, var-id %d, index 0x%x, length %d, "
           "varbind_index %d, varbind_len %d\n",
           notify->slot_no, static_cast<int>(notify->var_id), notify->index, notify->data_len,
           static_cast<int>(big_endian_32(notify->data)), static_cast<int>(varbind_len));
    printf("Trap data dump:\n");
    for (unsigned i = 0; i < notify->data_len; i++) {
        printf("%02x %s", notify->data[i], i % PER_LINE == PER_LINE - 1 ? "\n" : "");
    }
    printf("\n");
    fflush(stdout);
}

/* ---- card path ---- */

void tpg_msg_trap_notify(tpg_context_t* ctx, tpg_msg_trap_notify_t* trap_notify_msg,
                         tpg_ipc_clnt_t* clnt_conn)
{
    const tpg_trap_notify_t* notify = &trap_notify_msg->trap_notify;
    const uint32_t slot = notify->slot_no;
    const tpg_log_slot_t served = tpg_log_serve(ctx, slot);
    if (tpg_log_passes(ctx, tpg_log_level::debug)) {
        dump_notify(notify);
    }
    TPG_TRACE(ctx, TRACE_TRAP, "Received trap notify, slot_no %d, var-id %d, index 0x%x, length %d",
              slot, notify->var_id, notify->index, notify->data_len);
    if (slot < 1 || slot > TPG_SLOT_MAX) {
        TPG_ERROR(ctx, "Invalid slot_no %d", slot);
        return;
    }
    if (slot == 1) {
        tpg_msg_trap_notify_kx(ctx, trap_notify_msg, clnt_conn);
        return;
    }
    tpg_jsonmib_register_info_t* master = ctx->jsonmib_reg_info[slot - 1].actual_reginfo;
    if (master == nullptr) {
        TPG_ERROR(ctx, "no card is registered at slot_no %u, no trap for var-id %u", slot,
                  notify->var_id);
        return;
    }
    netsnmp_variable_list slot_binding = {};
    if (build_slot_binding(ctx, master, slot, &slot_binding) == 0) {
        notify_tables(ctx, master, notify, &slot_binding);
    }
}

/* Goes through the tables of the slot's master in their order. */
static void notify_tables(tpg_context_t* ctx, tpg_jsonmib_register_info_t* master,
                          const tpg_trap_notify_t* notify, netsnmp_variable_list* slot_binding)
{
    TPG_TRACE(ctx, TRACE_TRAP, "fault_table_reginfo_sum=%d", master->fault_table_reginfo_sum);
    bool known = false;
    for (uint32_t i = 0;
         master->fault_table_reginfo != nullptr && i < master->fault_table_reginfo_sum; i++) {
        const netsnmp_handler_registration* registration = master->fault_table_reginfo[i];
        if (registration == nullptr) {
            continue;
        }
        TPG_TRACE(ctx, TRACE_TRAP, "i=%d, mib_handler=%p", i,
                  static_cast<void*>(registration->handler));
        jsonmib_table_info_t* table = find_fault_table(ctx, registration, notify->var_id);
        known = known || table != nullptr;
        if (table != nullptr && notify_table(ctx, master, table, notify, slot_binding) != 0) {
            return;
        }
        TPG_TRACE(ctx, TRACE_TRAP, "i=%d, done", i);
    }
    if (!known) {
        TPG_WARN(ctx, "no fault table of slot_no %u has var-id %u, no trap", notify->slot_no,
                 notify->var_id);
    }
    TPG_TRACE(ctx, TRACE_TRAP, "done");
}

/* The board's binding that names the card's slot; it lives in the caller's frame. */
static int build_slot_binding(tpg_context_t* ctx, tpg_jsonmib_register_info_t* master,
                              uint32_t slot, netsnmp_variable_list* binding)
{
    const uint32_t length = master->instslot_oid_len;
    oid name[TPG_OID_MAX];
    if (length >= TPG_OID_MAX) {
        TPG_LOG_AT(ctx, tpg_log_level::error, tpg_log_end::open, "snmp_set_var_objid failed");
        return -1;
    }
    master->instslot_oid[length] = slot;
    std::copy_n(master->instslot_oid, length + 1, name);
    return set_integer_binding(ctx, binding, name, length + 1, static_cast<int32_t>(slot));
}

static int set_integer_binding(tpg_context_t* ctx, netsnmp_variable_list* binding, const oid* name,
                               size_t name_len, int32_t value)
{
    binding->type = ASN_INTEGER;
    if (snmp_set_var_objid(binding, name, name_len) != 0) {
        TPG_LOG_AT(ctx, tpg_log_level::error, tpg_log_end::open, "snmp_set_var_objid failed");
        return -1;
    }
    if (snmp_set_var_value(binding, &value, sizeof(value)) != 0) {
        TPG_LOG_AT(ctx, tpg_log_level::error, tpg_log_end::open, "snmp_set_var_value failed");
        return -1;
    }
    return 0;
}

/*
 * The registration's table when its fault variable is var_id, or null. Names
 * do not tell whose a handler is: the last one of each chain is the library's
 * own and has the table's name, which is the card's choice.
 */
static jsonmib_table_info_t* find_fault_table(tpg_context_t* ctx,
                                              const netsnmp_handler_registration* registration,
                                              uint32_t var_id)
{
    for (netsnmp_mib_handler* handler = registration->handler; handler != nullptr;
         handler = handler->next) {
        TPG_TRACE(ctx, TRACE_TRAP, "mib_handler %p, handler_name %s", static_cast<void*>(handler),
                  handler->handler_name);
        if (handler->access_method == jsonmib_fault_table_helper_handler &&
            handler->myvoid != nullptr) {
            auto* table = static_cast<jsonmib_table_info_t*>(handler->myvoid);
            TPG_TRACE(ctx, TRACE_TRAP, "jsonmib_table=%p", static_cast<void*>(table));
            if (table->trap_info.fault_present_var_id == var_id) {
                return table;
            }
        }
        TPG_TRACE(ctx, TRACE_TRAP, "loopend: mib_handler=%p", static_cast<void*>(handler));
    }
    return nullptr;
}

int tpg_trap_locate_row(tpg_context_t* ctx, const jsonmib_table_info_t* table,
                        const tpg_trap_notify_t* notify, tpg_trap_row_t* row)
{
    const jsonmib_table_trap_info_t* rule = &table->trap_info;
    const uint32_t total = table->index_total;
    if (total < 1 || total > JSONMIB_CARD_INDEXES) {
        TPG_DEBUG(ctx, "Trap Nofity: Table %s var %d: Invalid index_total %d",
                  jsonmib_table_name(table).text, notify->var_id, total);
        return -1;
    }
    const uint32_t index = notify->index & 0xffffU;
    const jsonmib_index_parts_t parts = jsonmib_index_parts(index, total);
    row->flat_index = static_cast<uint32_t>(jsonmib_index_position(table, index, total)) & 0xffffU;
    row->specific = rule->specific_start + parts.part[0] * rule->index_ofs_1 +
                    parts.part[1] * rule->index_ofs_2;
    if (total == 1) {
        TPG_DEBUG(ctx, "%s(): index_tota=%d, flatidx=%d, start=%d, ofs_1=%d, specific=%d",
                  "tpg_msg_trap_notify", total, row->flat_index, rule->specific_start,
                  rule->index_ofs_1, row->specific);
    } else { /* of2_2 shows index_ofs_1, and whoever reads it is used to that */
        TPG_DEBUG(ctx,
                  "%s(): index_tota=%d, flatidx=%d, index=%08x, start=%d, ofs_1=%d, of2_2=%d, "
                  "specific=%d ",
                  "tpg_msg_trap_notify", total, row->flat_index, notify->index,
                  rule->specific_start, rule->index_ofs_1, rule->index_ofs_1, row->specific);
    }
    return 0;
}

bool tpg_trap_is_enabled(const jsonmib_table_info_t* table, uint32_t slot_no, uint32_t flat_index)
{
    const uint32_t row = slot_no - 1 + flat_index / JSONMIB_SENDTRAP_POSITIONS;
    return row < TPG_SLOT_MAX && jsonmib_sendtrap_test(table->send_trap_storage[row],
                                                       flat_index % JSONMIB_SENDTRAP_POSITIONS);
}

/* True when the index, which counts from 0, lies in the document's ranges, which count from 1. */
static bool is_a_row(const jsonmib_table_info_t* table, uint32_t notify_index)
{
    const uint32_t total = table->index_total;
    const jsonmib_index_parts_t parts = jsonmib_index_parts(notify_index, total);
    for (uint32_t i = 0; i < total; i++) {
        const uint32_t* range = table->index_info[i].range;
        const uint64_t row = uint64_t{parts.part[i]} + 1;
        const bool used = range[0] != 0 && range[1] != 0;
        if (used && (row < range[0] || row > std::max(range[0], range[1]))) {
            return false;
        }
    }
    return true;
}

/* One table's answer to a notify; -1 when the rest of the tables are not to be asked. */
static int notify_table(tpg_context_t* ctx, tpg_jsonmib_register_info_t* master,
                        jsonmib_table_info_t* table, const tpg_trap_notify_t* notify,
                        netsnmp_variable_list* slot_binding)
{
    TPG_TRACE(ctx, TRACE_TRAP, "Found jsonmib fault table, index_total=%d", table->index_total);
    tpg_trap_row_t row = {};
    if (tpg_trap_locate_row(ctx, table, notify, &row) != 0) {
        return -1;
    }
    if (row.flat_index > TPG_TRAP_FLAT_INDEX_MAX) {
        const jsonmib_index_info_t* index = table->index_info;
        TPG_ERROR(ctx, "Trap Nofity: Table %s var %d: index 0x%x is out of range. [%d:%d], [%d:%d]",
                  jsonmib_table_name(table).text, notify->var_id, notify->index, index[0].range[0],
                  index[0].range[1], index[1].range[0], index[1].range[1]);
        return -1;
    }
    if (!is_a_row(table, notify->index)) {
        const jsonmib_index_info_t* index = table->index_info;
        TPG_WARN(ctx, "table %s var %u has no row for index 0x%x. [%u:%u], [%u:%u]",
                 jsonmib_table_name(table).text, notify->var_id, notify->index, index[0].range[0],
                 index[0].range[1], index[1].range[0], index[1].range[1]);
    }
    if (!tpg_trap_is_enabled(table, notify->slot_no, row.flat_index)) {
        jsonmib_stats_trap(ctx, notify->slot_no, false);
        /* An Error line for what is asked for: who misses a trap looks for errors first. */
        TPG_ERROR(ctx, "xxxSendTrap[0x%x] was disabled", notify->index);
        return 0;
    }
    return send_table_trap(ctx, master, table, notify,
                           row.specific + data_of(notify).specific_offset, slot_binding);
}

static int send_table_trap(tpg_context_t* ctx, const tpg_jsonmib_register_info_t* master,
                           jsonmib_table_info_t* table, const tpg_trap_notify_t* notify,
                           uint32_t specific, netsnmp_variable_list* slot_binding)
{
    TPG_TRACE(ctx, TRACE_TRAP, "Found jsonmib fault table. PresentVarid %d, specific %d",
              table->trap_info.fault_present_var_id, specific);
    netsnmp_variable_list* bindings = tpg_msg_trap_var_bindings(ctx, specific, table, notify);
    TPG_TRACE(ctx, TRACE_TRAP, "to call send_enterprise_trap_vars()");
    netsnmp_variable_list trap_oid = {};
    oid enterprise[TPG_OID_MAX];
    int ret = tpg_set_sendtrapoid(ctx, &trap_oid, master->enterprise_oid,
                                  master->enterprise_oid_len, specific, enterprise);
    if (ret != 0) {
        TPG_ERROR(ctx, "%s(): failed to set sendTrapOID.0", "tpg_msg_trap_notify");
    } else {
        trap_oid.next_variable = slot_binding;
        slot_binding->next_variable = bindings;
        send_v2trap(&trap_oid);
        jsonmib_stats_trap(ctx, notify->slot_no, true);
        slot_binding->next_variable = nullptr;
    }
    TPG_TRACE(ctx, TRACE_TRAP, "to free bindings");
    snmp_free_varbind(bindings);
    return ret;
}

int tpg_set_sendtrapoid(tpg_context_t* ctx, netsnmp_variable_list* vars, const uint32_t* poid,
                        uint32_t oid_len, uint32_t specific, oid* enterprise)
{
    TPG_DEBUG(ctx, "%s(): set setndTrapOID.0", __func__);
    *vars = {};
    vars->type = ASN_OBJECT_ID;
    if (oid_len + 2 > TPG_OID_MAX ||
        snmp_set_var_objid(vars, objid_snmptrap, objid_snmptrap_len) != 0) {
        TPG_ERROR(ctx, "%s():snmp_set_var_objid failed", __func__);
        return -1;
    }
    std::copy_n(poid, oid_len, enterprise);
    enterprise[oid_len] = 0;
    enterprise[oid_len + 1] = specific;
    vars->val.objid = enterprise;
    vars->val_len = (oid_len + 2) * sizeof(oid);
    return 0;
}

/* ---- bindings ---- */

netsnmp_variable_list* tpg_msg_trap_var_bindings(tpg_context_t* ctx, uint32_t specific,
                                                 jsonmib_table_info_t* jsonmib_table,
                                                 const tpg_trap_notify_t* trap_notify)
{
    const tpg_jsonmib_register_info_t* card = jsonmib_table->jsonmib_reginfo;
    const uint32_t total = card == nullptr ? 0 : card->trap_bindings_len;
    const jsonmib_trap_bindings_info_t* declared =
        card == nullptr ? nullptr : card->trap_bindings_info;
    TPG_DEBUG(ctx, "%s(): reginfo=%p, bindings_len=%d, bings_info=%p", __func__,
              static_cast<const void*>(card), total, static_cast<const void*>(declared));
    if (total == 0 || declared == nullptr) {
        return nullptr;
    }
    TPG_DEBUG(ctx, "%s(): trap_bindings_len=%d", __func__, total);
    const notify_data_t data = data_of(trap_notify);
    if (!data.has_text) {
        return nullptr;
    }
    netsnmp_variable_list* head = nullptr;
    netsnmp_variable_list** tail = &head;
    for (uint32_t i = 0; i < total; i++) {
        TPG_DEBUG(ctx, "%s(): specific_list_len[%d]=%d", __func__, i,
                  declared[i].specific_list_len);
        netsnmp_variable_list* binding = new_binding(ctx, &declared[i], specific);
        if (binding == nullptr) {
            continue;
        }
        if (fill_binding(ctx, binding, &declared[i], &data, trap_notify->slot_no) != 0) {
            snmp_free_varbind(binding);
            continue;
        }
        *tail = binding;
        tail = &binding->next_variable;
    }
    TPG_DEBUG(ctx, "%s(): DONE: return=%p", __func__, static_cast<void*>(head));
    return head;
}

/* The first range at or behind from that holds specific, or null. */
static const specific_range_t* matching_range(const jsonmib_trap_bindings_info_t* declared,
                                              uint32_t specific, const specific_range_t* from)
{
    const specific_range_t* end = declared->specific_list + declared->specific_list_len;
    const auto* range = std::find_if(from, end, [specific](const specific_range_t& candidate) {
        return candidate.low <= specific && specific <= candidate.high;
    });
    return range == end ? nullptr : range;
}

/* An empty list entry when one of the binding's ranges holds specific; null otherwise. */
static netsnmp_variable_list*
new_binding(tpg_context_t* ctx, const jsonmib_trap_bindings_info_t* declared, uint32_t specific)
{
    if (declared->specific_list_len == 0) {
        return nullptr;
    }
    for (const specific_range_t* range =
             matching_range(declared, specific, declared->specific_list);
         range != nullptr; range = matching_range(declared, specific, range + 1)) {
        TPG_DEBUG(ctx, "Matched range specific %d on range[%d-%d].", specific, range->low,
                  range->high);
        auto* binding =
            static_cast<netsnmp_variable_list*>(calloc(1, sizeof(netsnmp_variable_list)));
        if (binding != nullptr) {
            return binding;
        }
        TPG_ERROR(ctx, "trap_var_bindings: calloc failed. %s.", strerror(errno));
    }
    return nullptr;
}

/* Names the entry after the binding, the row and the slot; its value is the card's text. */
static int fill_binding(tpg_context_t* ctx, netsnmp_variable_list* binding,
                        const jsonmib_trap_bindings_info_t* declared, const notify_data_t* data,
                        uint32_t slot_no)
{
    const uint32_t length = declared->oid_len;
    const auto text_len = static_cast<int>(data->text.size());
    oid name[TPG_OID_MAX];
    if (length + 2 > TPG_OID_MAX) {
        TPG_ERROR(ctx, "an oid of %u elements leaves no room for a trap binding, at most %u",
                  length, TPG_OID_MAX - 2);
        return -1;
    }
    std::copy_n(declared->oid, length, name);
    name[length] = data->first_index + 1;
    name[length + 1] = slot_no;
    binding->type = ASN_OCTET_STR;
    if (snmp_set_var_objid(binding, name, length + 2) != 0 ||
        snmp_set_var_value(binding, data->text.data(), data->text.size()) != 0) {
        TPG_ERROR(ctx, "no memory for a trap binding of %d bytes", text_len);
        return -1;
    }
    TPG_DEBUG(ctx, "New var binding first_index %d, slot_no %d, varbind_len %d, varbind_str %.*s",
              data->first_index, slot_no, text_len, text_len, data->text.data());
    return 0;
}

/* ---- controller board ---- */

void tpg_msg_trap_notify_kx(tpg_context_t* ctx, const tpg_msg_trap_notify_t* trap_notify_msg,
                            tpg_ipc_clnt_t* clnt_conn)
{
    static constexpr oid TRAP_ARCS[] = {7, 1};
    static constexpr oid SLOT_ARCS[] = {3, 1, 1, 1, 1};
    (void)clnt_conn;
    const tpg_trap_notify_t* trap_notify = &trap_notify_msg->trap_notify;
    if (trap_notify->data_len != TPG_TRAP_OFFSET_LEN) {
        TPG_ERROR(ctx, "Only support integer trap value for KX!");
        return;
    }
    const uint32_t value = data_of(trap_notify).specific_offset;
    const uint32_t specific = trap_notify->index + SPECIFIC_BASE_KX + value;
    TPG_DEBUG(ctx, "%s(): specifc=%d, notifiy_value=%d, index=%d, slot_no=%d ", __func__, specific,
              value, trap_notify->index, trap_notify->slot_no);

    oid name[TPG_OID_MAX];
    netsnmp_variable_list slot_binding = {};
    const size_t name_len = tpg_legacymib_kx_oid(ctx, SLOT_ARCS, name);
    if (set_integer_binding(ctx, &slot_binding, name, name_len, trap_notify->slot_no) != 0) {
        return;
    }
    const size_t length = tpg_legacymib_kx_oid(ctx, TRAP_ARCS, name);
    uint32_t node[TPG_OID_MAX];
    std::transform(name, name + length, node,
                   [](oid subid) { return static_cast<uint32_t>(subid); });
    netsnmp_variable_list trap_oid = {};
    oid enterprise[TPG_OID_MAX];
    if (tpg_set_sendtrapoid(ctx, &trap_oid, node, static_cast<uint32_t>(length), specific,
                            enterprise) != 0) {
        TPG_ERROR(ctx, "%s(): failed to set sendTrapOID.0", __func__);
        return;
    }
    trap_oid.next_variable = &slot_binding;
    send_v2trap(&trap_oid);
    jsonmib_stats_trap(ctx, trap_notify->slot_no, true);
    TPG_DEBUG(ctx, "%s(): end", __func__);
}
