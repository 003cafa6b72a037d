#include "fuzz.h"

#include "tpg_jsonmib.h"
#include "tpg_jsonmib_ctrl.h"
#include "tpg_jsonmib_request.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"
#include "tpg_main_server.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <fstream>
#include <iterator>
#include <linux/magic.h>
#include <string>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <vector>

static netsnmp_agent_session* ask(netsnmp_pdu*);

/* The library's own step from a received PDU to its answer; no header declares it. */
extern "C" int handle_pdu(netsnmp_agent_session* asp);

int (*fuzz_system)(const char* command);

extern "C" int system(const char* command)
{
    return fuzz_system == nullptr ? 0 : fuzz_system(command);
}

extern "C" void syslog(int, const char*, ...)
{
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    struct statfs place = {};
    if (statfs("/mnt", &place) != 0 || place.f_type != TMPFS_MAGIC) {
        fprintf(stderr, "the fuzzers write to fixed paths: run them by scripts/world.sh\n");
        exit(2);
    }
    FUZZ_REQUIRE(freopen("/dev/null", "w", stdout) != nullptr);
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", "/nonexistent", 1);
    snmp_disable_log();
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    debug_register_tokens("jsonmib,legacymib,register_mib");
    FUZZ_REQUIRE(init_agent("fuzz") == 0);
    init_snmp("fuzz");
    return 0;
}

/* ---- input ---- */

uint32_t fuzz_number(fuzz_input_t* in, size_t bytes)
{
    uint32_t number = 0;
    unsigned shift = 0;
    for (const char byte : fuzz_bytes(in, bytes)) {
        number |= uint32_t{static_cast<uint8_t>(byte)} << shift;
        shift += 8;
    }
    return number;
}

std::string_view fuzz_bytes(fuzz_input_t* in, size_t count)
{
    const std::string_view bytes(reinterpret_cast<const char*>(in->data),
                                 std::min(count, in->size));
    in->data += bytes.size();
    in->size -= bytes.size();
    return bytes;
}

std::string_view fuzz_part(fuzz_input_t* in)
{
    constexpr std::string_view SEPARATOR = "----\n";
    const std::string_view rest(reinterpret_cast<const char*>(in->data), in->size);
    const size_t end = rest.find(SEPARATOR);
    const std::string_view part = fuzz_bytes(in, std::min(end, rest.size()));
    fuzz_bytes(in, SEPARATOR.size());
    return part;
}

/* ---- context ---- */

tpg_context_t* fuzz_begin(fuzz_input_t* in)
{
    static event_base* const base = event_base_new();
    tpg_context_t* ctx = &ctx_local;
    *ctx = {};
    ctx->levent_base = base;
    ctx->mib_kx_node_oid = 232;
    list_init(&ctx->ipc_clnt_list);
    list_init(&ctx->lev_snmp_fd_list);
    const unsigned flags = in->size == 0 ? 0 : in->data[--in->size];
    ctx->log_level = (flags & 1U) != 0 ? TPG_LOG_LEVEL_DEBUG : 0;
    char tokens[] = "readcb,snmpread,mibregister,trap";
    tokens[0] = (flags & 4U) != 0 ? 'r' : '\0';
    tpg_debug_tokens_set(tokens);
    snmp_set_do_debugging(flags >> 5U == 7 ? 1 : 0);
    return ctx;
}

void fuzz_end(tpg_context_t* ctx)
{
    tpg_free_clients(ctx);
    jsonmib_release(ctx, &ctx->jsonmib_reg_info_cardmib);
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
        jsonmib_release(ctx, &ctx->jsonmib_reg_info[slot - 1]);
        jsonmib_ipc_disconnect(ctx, slot);
    }
    jsonmib_tomb_sweep(ctx);
}

/* ---- files ---- */

void fuzz_write_file(const char* path, std::string_view text)
{
    if (text.empty()) {
        unlink(path);
        return;
    }
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    FUZZ_REQUIRE(file.good());
}

std::string_view fuzz_seed(const char* name)
{
    static std::string text;
    std::ifstream file(std::string(TPG_FUZZ_SEEDS "/") + name, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(file), {});
    FUZZ_REQUIRE(!text.empty());
    return text;
}

void fuzz_clear_switches(const char* family, uint32_t slot)
{
    char path[TPG_CMD_MAX];
    for (const char* file : {"", "/sendtrap.json", "/sendtrap.json.last"}) {
        snprintf(path, sizeof(path), "%s/%s_slot%02u%s", TPG_FLASH_DIR, family, slot, file);
        if (*file == '\0') {
            mkdir(path, 0700);
        } else {
            unlink(path);
        }
    }
}

tpg_libmib_update_t fuzz_card(uint32_t slot, const char* family, const char* path)
{
    tpg_libmib_update_t card = {};
    snprintf(card.prod_string, sizeof(card.prod_string), "qmc");
    snprintf(card.prod_family, sizeof(card.prod_family), "%s", family);
    snprintf(card.libmib_path, sizeof(card.libmib_path), "%s", path);
    card.major_rev = 1;
    card.slot_no = static_cast<uint8_t>(slot);
    return card;
}

/* ---- requests ---- */

/* Serves the PDU, which is used up; the answer is in the result, which the caller frees. */
static netsnmp_agent_session* ask(netsnmp_pdu* pdu)
{
    static netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    pdu->version = SNMP_VERSION_2c;
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    netsnmp_agent_session* asp = init_agent_snmp_session(&session, pdu);
    snmp_free_pdu(pdu);
    handle_pdu(asp);
    return asp;
}

void fuzz_walk(const oid* root, size_t root_len, const oid* name, size_t name_len, int steps)
{
    netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GETNEXT);
    snmp_add_null_var(pdu, name, name_len);
    snmp_add_null_var(pdu, name, name_len);
    for (; steps > 0 && pdu != nullptr; steps--) {
        netsnmp_agent_session* asp = ask(pdu);
        pdu = nullptr;
        const netsnmp_variable_list* answer = asp->pdu->variables;
        if (asp->status == SNMP_ERR_NOERROR && answer->type != SNMP_ENDOFMIBVIEW &&
            snmp_oidtree_compare(root, root_len, answer->name, answer->name_length) == 0 &&
            answer->name_length > root_len) {
            pdu = snmp_pdu_create(SNMP_MSG_GETNEXT);
            snmp_add_null_var(pdu, answer->name, answer->name_length);
            snmp_add_null_var(pdu, name, name_len);
        }
        free_agent_snmp_session(asp);
    }
    if (pdu != nullptr) {
        snmp_free_pdu(pdu);
    }
}

void fuzz_set(const oid* name, size_t name_len, u_char type, const void* value, size_t length)
{
    netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_SET);
    snmp_pdu_add_variable(pdu, name, name_len, type, value, length);
    free_agent_snmp_session(ask(pdu));
    oid neighbour[MAX_OID_LEN];
    std::copy_n(name, name_len, neighbour);
    neighbour[name_len - 1]++;
    pdu = snmp_pdu_create(SNMP_MSG_GET);
    snmp_add_null_var(pdu, name, name_len);
    snmp_add_null_var(pdu, neighbour, name_len);
    free_agent_snmp_session(ask(pdu));
}

/* The table record behind a registration. */
static const jsonmib_table_info_t* table_of(const netsnmp_handler_registration* registration)
{
    const netsnmp_mib_handler* handler = registration->handler;
    while (strcmp(handler->handler_name, JSONMIB_GEN_HANDLER_NAME) != 0 &&
           strcmp(handler->handler_name, JSONMIB_FAULT_HANDLER_NAME) != 0) {
        handler = handler->next;
    }
    return static_cast<const jsonmib_table_info_t*>(handler->myvoid);
}

static void use_table(const jsonmib_table_info_t* table)
{
    constexpr uint32_t COLUMNS_MAX = 3;
    constexpr int STEPS = 4;
    oid name[MAX_OID_LEN];
    size_t length = table->oid_len;
    std::copy_n(table->oid, length, name);
    fuzz_walk(name, length, name, length, 1);
    name[length++] = 1; /* entry */
    name[length++] = 0; /* column */
    for (uint32_t i = 0; i < table->index_used; i++) {
        name[length + i] = table->index_info[table->index_pos[i]].range[0];
    }
    name[length + table->index_used - 1] = 2; /* slot */
    for (oid column = 1; column <= std::min(table->param_total, COLUMNS_MAX); column++) {
        name[table->oid_len + 1] = column;
        fuzz_walk(name, table->oid_len, name, length, STEPS);
        const long number = static_cast<long>(column);
        fuzz_set(name, length + table->index_used, ASN_INTEGER, &number, sizeof(number));
        fuzz_set(name, length + table->index_used, ASN_OCTET_STR, "text", 4);
    }
}

static void list_tables(netsnmp_handler_registration* const* registrations, uint32_t sum,
                        std::vector<const jsonmib_table_info_t*>* tables)
{
    for (uint32_t i = 0; registrations != nullptr && i < sum; i++) {
        if (registrations[i] != nullptr) {
            tables->push_back(table_of(registrations[i]));
        }
    }
}

void fuzz_use_tables(const tpg_context_t* ctx)
{
    std::vector<const jsonmib_table_info_t*> tables;
    for (const tpg_jsonmib_register_info_t& card : ctx->jsonmib_reg_info) {
        list_tables(card.gen_table_reginfo, card.gen_table_reginfo_sum, &tables);
        list_tables(card.fault_table_reginfo, card.fault_table_reginfo_sum, &tables);
    }
    std::ranges::for_each(tables, use_table);
}
