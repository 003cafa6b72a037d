#include "tpg_main.h"

#include "tpg_jsonmib_cell.h"
#include "tpg_legacymib_kx.h"
#include "tpg_log.h"
#include "tpg_main_cardmib.h"
#include "tpg_main_fault.h"
#include "tpg_main_levent.h"
#include "tpg_main_registry.h"
#include "tpg_main_server.h"
#include "tpg_snmp.h"

#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#ifdef NDEBUG
#error "assertions stop the agent on purpose and must be compiled in"
#endif

/* What the command line asks for. */
struct options_t {
    const char* test_card; /* library path of the test card, or null */
};

static void start_logging(tpg_context_t*);
static int parse_options(tpg_context_t*, int, char**, options_t*);
static void set_debug_tokens(char*);
static int attach_to_master(tpg_context_t*);
static void register_test_card(tpg_context_t*, const char*);
static void register_built_in(tpg_context_t*);
static void tpg_levent_init(tpg_context_t*);
static void add_signal(tpg_context_t*, int);
static void run_loop(tpg_context_t*);

constexpr char AGENT_NAME[] = "card_agentx";
/* A cache of where OIDs are registered: a master has it by itself, a sub-agent searches all. */
constexpr int LOOKUP_CACHE_DEFAULT = -1;
constexpr char MASTER_SOCKET[] = "127.0.0.1:705";

/* The boards, and where each one's fixed MIB stands. */
struct board_t {
    const char* name;
    tpg_board_t type;
    uint32_t node;
};
constexpr board_t BOARDS[] = {
    {"3100KX", tpg_board_t::kx3100, 232},
    {"3101KX", tpg_board_t::kx3101, 216},
};

int tpg_main(int argc, char** argv)
{
    tpg_context_t* ctx = &ctx_local;
    memset(static_cast<void*>(ctx), 0, sizeof(*ctx));
    start_logging(ctx);
    tpg_board_select(ctx, getenv("BASE_BOARD"));
    options_t options = {};
    if (parse_options(ctx, argc, argv, &options) != 0 || attach_to_master(ctx) != 0) {
        return -1;
    }
    if (options.test_card != nullptr) {
        register_test_card(ctx, options.test_card);
    }
    register_built_in(ctx);
    tpg_legacymib_kx_init(ctx);
    tpg_levent_init(ctx);
    run_loop(ctx);
    tpg_exit(ctx);
    TPG_INFO(ctx, "TPG exit!");
    tpg_log_close(ctx);
    return 0;
}

static void start_logging(tpg_context_t* ctx)
{
    struct stat st;
    const bool debug = stat(TPG_DEBUG_MARKER, &st) == 0;
    tpg_log_open();
    ctx->log_level = debug ? TPG_LOG_LEVEL_DEBUG : TPG_LOG_LEVEL_DEFAULT;
    ctx->log_console = 1;
    if (debug) {
        TPG_WARN(ctx, "debug enabled");
    }
}

void tpg_board_select(tpg_context_t* ctx, const char* board)
{
    assert((board));
    for (const board_t& known : BOARDS) {
        if (strcmp(board, known.name) == 0) {
            ctx->base_board_type = known.type;
            ctx->mib_kx_node_oid = known.node;
            return;
        }
    }
    TPG_ERROR(ctx, "unsupported BASE_BOARD %s!", board);
    abort();
}

/* ---- options ---- */

static int parse_options(tpg_context_t* ctx, int argc, char** argv, options_t* options)
{
    int option = 0;
    while ((option = getopt(argc, argv, "t:D:L:d:")) != -1) { // NOLINT(concurrency-mt-unsafe)
        switch (option) {
        case 't':
            options->test_card = optarg;
            TPG_INFO(ctx, "Tpg Agent is running in test mode!");
            break;
        case 'D':
            debug_register_tokens(optarg);
            snmp_set_do_debugging(1);
            TPG_INFO(ctx, "Registering net-snmp debug tokens %s", optarg);
            break;
        case 'L':
            if (snmp_log_options(optarg, argc, argv) < 0) {
                TPG_ERROR(ctx, "snmp_log_options %s failed!", optarg);
                return -1;
            }
            break;
        case 'd':
            set_debug_tokens(optarg);
            break;
        default:
            break;
        }
    }
    return 0;
}

static void set_debug_tokens(char* list)
{
    printf("option -d: %s\n", list);
    tpg_debug_tokens_set(list);
    printf("Debug tokens total=%d\n", tpg_debug_tokens_total);
    for (int i = 0; i < tpg_debug_tokens_total; i++) {
        printf("kk=%d, %s\n", i, tpg_debug_tokens[i]);
    }
    fflush(stdout);
}

/* ---- registrations at start ---- */

/*
 * The master need not be there yet. MIB texts would only cost memory: nothing
 * here is named.
 */
static int attach_to_master(tpg_context_t* ctx)
{
    setenv("MIBS", "", 0); // NOLINT(concurrency-mt-unsafe)
    netsnmp_enable_subagent();
    if (netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET,
                              MASTER_SOCKET) != 0) {
        TPG_ERROR(ctx, "configure agentx socket path failed!");
        return -1;
    }
    if (init_agent(AGENT_NAME) != 0) {
        TPG_ERROR(ctx, "init_agent failed!");
        return -1;
    }
    jsonmib_cells_read_config(AGENT_NAME);
    init_snmp(AGENT_NAME);
    netsnmp_set_lookup_cache_size(LOOKUP_CACHE_DEFAULT);
    return 0;
}

static void register_test_card(tpg_context_t* ctx, const char* library)
{
    constexpr char PRODUCT[] = "qmc4512tvx90b3";
    tpg_libmib_update_t card = {};
    memcpy(card.prod_string, PRODUCT, sizeof(PRODUCT));
    memcpy(card.prod_family, PRODUCT, sizeof(PRODUCT));
    card.major_rev = 1;
    card.minor_rev = 2;
    card.slot_no = 8;
    card.build_number = 566;
    memcpy(card.libmib_path, library, strnlen(library, sizeof(card.libmib_path)));
    tpg_proc_libmib_register(ctx, &card);
}

/* The agent goes on without the built-in MIB. */
static void register_built_in(tpg_context_t* ctx)
{
    constexpr char PRODUCT[] = "card";
    tpg_libmib_update_t card = {};
    memcpy(card.prod_string, PRODUCT, sizeof(PRODUCT));
    memcpy(card.prod_family, PRODUCT, sizeof(PRODUCT));
    card.major_rev = 0;
    card.minor_rev = 4;
    card.slot_no = 0;
    card.build_number = 1;
    snprintf(card.libmib_path, sizeof(card.libmib_path), "%s/libmibcard.so", TPG_BUILT_IN_DIR);
    ctx->jsonmib_reg_info_cardmib.libmib_reginfo = card;
    tpg_snmp_register_jsonmib(ctx, &card, &ctx->jsonmib_reg_info_cardmib);
}

/* ---- event loop ---- */

static void tpg_levent_init(tpg_context_t* ctx)
{
    TPG_DEBUG(ctx, "initialize libevent");
    ctx->levent_base = event_base_new();
    assert((ctx->levent_base));
    TPG_DEBUG(ctx, "libevent %s initialized with %s method", event_get_version(),
              event_base_get_method(ctx->levent_base));
    list_init(&ctx->lev_snmp_fd_list);
    list_init(&ctx->ipc_clnt_list);
    levent_snmp_watch_sessions(ctx);
    tpg_create_svr_listener(ctx);
    ctx->lev_snmp_timeout = event_new(ctx->levent_base, -1, 0, levent_snmp_timer_ran_out, ctx);
    assert((ctx->lev_snmp_timeout));
    for (const int sig : {SIGINT, SIGTERM, SIGSEGV, SIGQUIT}) {
        add_signal(ctx, sig);
    }
    tpg_fault_handler_install();
    /* A peer that is gone is an error of the call that notices, not the agent's end. */
    signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler)
    levent_snmp_update(ctx);
}

static void add_signal(tpg_context_t* ctx, int sig)
{
    event* ev = event_new(ctx->levent_base, sig, EV_SIGNAL | EV_PERSIST, tpg_levent_stop, ctx);
    assert((ev));
    if (event_add(ev, nullptr) != 0) {
        TPG_ERROR(ctx, "cannot watch signal %d: it ends the agent without clean-up", sig);
    }
}

static void run_loop(tpg_context_t* ctx)
{
    while (event_base_got_break(ctx->levent_base) == 0 &&
           event_base_got_exit(ctx->levent_base) == 0) {
        tpg_log_before_turn(ctx);
        ctx->jsonmib_later.loop_busy = true;
        const int ended = event_base_loop(ctx->levent_base, EVLOOP_ONCE);
        ctx->jsonmib_later.loop_busy = false;
        if (ended != 0) {
            break;
        }
        levent_snmp_serve(ctx);
        tpg_svr_serve_held(ctx);
    }
}

void tpg_levent_stop(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    tpg_free_svr_listener(ctx);
    event_base_loopbreak(ctx->levent_base);
}

void tpg_exit(tpg_context_t* ctx)
{
    TPG_INFO(ctx, "TPG is exiting...");
    tpg_free_svr_listener(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted %s", TPG_SVR_PATH);
    levent_snmp_free_list(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted snmpd list");
    tpg_free_clients(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted client list");
}
