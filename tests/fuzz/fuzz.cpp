#include "fuzz.h"

#include "tpg_jsonmib.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_jsonmib_tomb.h"
#include "tpg_log.h"
#include "tpg_main_command.h"
#include "tpg_main_levent.h"
#include "tpg_main_server.h"

#include <algorithm>
#include <event2/event.h>
#include <linux/magic.h>
#include <span>
#include <sys/statfs.h>

/* Where the library's agent takes what sessions of the same process send; no header declares it. */
extern "C" int callback_master_num;

static int answered(int, netsnmp_session*, int, netsnmp_pdu*, void*);

static netsnmp_session* master;

int (*fuzz_system)(const char* command);

int tpg_command_run(const char* command, int* status)
{
    *status = 0;
    return fuzz_system == nullptr ? 0 : fuzz_system(command);
}

bool tpg_command_stop_asked()
{
    return false;
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
    ctx_local.levent_base = event_base_new();
    ctx_local.lev_snmp_timeout =
        event_new(ctx_local.levent_base, -1, 0, levent_snmp_timer_ran_out, &ctx_local);
    FUZZ_REQUIRE(ctx_local.lev_snmp_timeout != nullptr);
    master = netsnmp_callback_open(callback_master_num, answered, nullptr, nullptr);
    FUZZ_REQUIRE(master != nullptr);
    return 0;
}

/*
 * The input's last byte turns the debug level (bit 0), the trace lines (bit 2) and the library's
 * debug output (the highest three bits) on.
 */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tpg_context_t* ctx = &ctx_local;
    event_base* const base = ctx->levent_base;
    event* const timeout = ctx->lev_snmp_timeout;
    *ctx = {};
    ctx->levent_base = base;
    ctx->lev_snmp_timeout = timeout;
    ctx->mib_kx_node_oid = 232;
    list_init(&ctx->ipc_clnt_list);
    list_init(&ctx->lev_snmp_fd_list);
    const unsigned flags = size == 0 ? 0 : data[--size];
    ctx->log_level = (flags & 1U) != 0 ? TPG_LOG_LEVEL_DEBUG : 0;
    std::string tokens = (flags & 4U) != 0 ? "readcb,snmpread,mibregister,trap" : "";
    tpg_debug_tokens_set(tokens.data());
    snmp_set_do_debugging(flags >> 5U == 7 ? 1 : 0);
    levent_snmp_update(ctx);
    fuzz_one(ctx, {reinterpret_cast<const char*>(data), size});
    tpg_free_clients(ctx);
    levent_snmp_free_list(ctx);
    jsonmib_release(ctx, &ctx->jsonmib_reg_info_cardmib);
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
        jsonmib_release(ctx, &ctx->jsonmib_reg_info[slot - 1]);
    }
    jsonmib_queue_release(ctx);
    while (ctx->jsonmib_tombs.total > 0) {
        jsonmib_tomb_sweep(ctx);
    }
    return 0;
}

/* ---- input ---- */

std::string_view fuzz_bytes(std::string_view* in, size_t count)
{
    const std::string_view bytes = in->substr(0, count);
    in->remove_prefix(bytes.size());
    return bytes;
}

uint32_t fuzz_number(std::string_view* in, size_t bytes)
{
    uint32_t number = 0;
    unsigned shift = 0;
    for (const char byte : fuzz_bytes(in, bytes)) {
        number |= uint32_t{static_cast<uint8_t>(byte)} << shift;
        shift += 8;
    }
    return number;
}

std::string_view fuzz_part(std::string_view* in)
{
    constexpr std::string_view SEPARATOR = "----\n";
    const std::string_view part = fuzz_bytes(in, in->find(SEPARATOR));
    fuzz_bytes(in, SEPARATOR.size());
    return part;
}

std::string fuzz_seed(const std::string& name)
{
    std::string text = read_file(TPG_FUZZ_SEEDS "/" + name);
    FUZZ_REQUIRE(!text.empty());
    return text;
}

/* ---- requests ---- */

static int answered(int operation, netsnmp_session*, int, netsnmp_pdu* pdu, void* arg)
{
    auto* request = static_cast<fuzz_request_t*>(arg);
    FUZZ_REQUIRE(operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE);
    FUZZ_REQUIRE(request->answer == nullptr);
    request->answer.reset(snmp_clone_pdu(pdu));
    return 1;
}

void fuzz_send(netsnmp_pdu* pdu, fuzz_request_t* request)
{
    constexpr long AGENTX_VERSION = 0xc1; /* the requests of other versions need a community */
    pdu->version = AGENTX_VERSION;
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    pdu->transid = pdu->transid == 0 ? snmp_get_next_transid() : pdu->transid;
    FUZZ_REQUIRE(snmp_async_send(master, pdu, answered, request) != 0);
}

void fuzz_turn(tpg_context_t* ctx, int flags)
{
    ctx->jsonmib_later.loop_busy = true;
    event_base_loop(ctx->levent_base, flags);
    ctx->jsonmib_later.loop_busy = false;
    levent_snmp_serve(ctx);
    tpg_svr_serve_held(ctx);
}

name_t fuzz_ask(int command, const name_t& name, const name_t& other, u_char type,
                std::string_view value)
{
    netsnmp_pdu* pdu = snmp_pdu_create(command);
    snmp_pdu_add_variable(pdu, name.data(), name.size(), type, value.data(), value.size());
    if (command != SNMP_MSG_SET) {
        snmp_add_null_var(pdu, other.data(), other.size());
    }
    fuzz_request_t request;
    fuzz_send(pdu, &request);
    while (request.answer == nullptr) {
        fuzz_turn(&ctx_local, EVLOOP_ONCE);
    }
    const netsnmp_variable_list* answer = request.answer->variables;
    name_t answered_name;
    if (request.answer->errstat == SNMP_ERR_NOERROR && answer->type != SNMP_ENDOFMIBVIEW) {
        answered_name.assign(answer->name, answer->name + answer->name_length);
    }
    return answered_name;
}

void fuzz_walk(const name_t& root, name_t name, int steps)
{
    const name_t start = name;
    const long number = 2;
    while (steps-- > 0) {
        name = fuzz_ask(SNMP_MSG_GETNEXT, name, start);
        if (name.size() <= root.size() || !std::equal(root.begin(), root.end(), name.begin())) {
            return;
        }
        fuzz_ask(SNMP_MSG_SET, name, {}, ASN_INTEGER, bytes_of(number));
        fuzz_ask(SNMP_MSG_SET, name, {}, ASN_OCTET_STR, "text");
        name_t neighbour = name;
        neighbour.back()++;
        fuzz_ask(SNMP_MSG_GET, name, neighbour);
    }
}

void fuzz_use_tables(const tpg_context_t* ctx)
{
    for (const tpg_jsonmib_register_info_t& card : ctx->jsonmib_reg_info) {
        for (const auto& [tables, sum] :
             {std::pair{card.gen_table_reginfo, card.gen_table_reginfo_sum},
              {card.fault_table_reginfo, card.fault_table_reginfo_sum}}) {
            for (const auto* table : std::span(tables, tables == nullptr ? 0 : sum)) {
                if (table == nullptr) {
                    continue;
                }
                const name_t root(table->rootoid, table->rootoid + table->rootoid_len);
                for (oid column = 0; column <= 3; column++) {
                    name_t name = root;
                    name.insert(name.end(), {1, column});
                    name.resize(std::min<size_t>(name.size(), MAX_OID_LEN));
                    fuzz_walk(root, name, column == 0 ? 1 : 3);
                }
            }
        }
    }
}
