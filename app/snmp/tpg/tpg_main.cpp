/* Start-up in its order, the loop, the stop. */

#include "tpg_main.h"

#include "tpg_file.h"
#include "tpg_jsonmib_cell.h"
#include "tpg_legacymib_kx.h"
#include "tpg_log.h"
#include "tpg_log_library.h"
#include "tpg_main_cardmib.h"
#include "tpg_main_command.h"
#include "tpg_main_control.h"
#include "tpg_main_entity.h"
#include "tpg_main_fault.h"
#include "tpg_main_levent.h"
#include "tpg_main_notify.h"
#include "tpg_main_options.h"
#include "tpg_main_registry.h"
#include "tpg_main_server.h"
#include "tpg_main_socket.h"
#include "tpg_main_status.h"
#include "tpg_snmp.h"

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/event.h>
#include <fcntl.h>
#include <iterator>
#include <malloc.h>
#include <unistd.h>

#ifdef NDEBUG
#error "assertions stop the agent on purpose and must be compiled in"
#endif

static int open_standard_descriptors();
static void reset_signals();
static void merge_memory_at_once();
static void start_logging(tpg_context_t*);
static void set_log_level(tpg_context_t*);
static int attach_to_master(tpg_context_t*);
static void register_test_card(tpg_context_t*, const char*);
static void register_built_in(tpg_context_t*);
static void tpg_levent_init(tpg_context_t*);
static void add_signal(tpg_context_t*, int, event_callback_fn);
static void hangup_cb(int, short, void*);
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
constexpr char BOARD_ADVICE[] = "set the environment variable BASE_BOARD to 3100KX or 3101KX; for "
                                "the service tpg, in /etc/default/tpg";

int tpg_main(int argc, char** argv)
{
    if (tpg_options_tell(argc, argv)) {
        return 0;
    }
    tpg_context_t* ctx = &ctx_local;
    memset(static_cast<void*>(ctx), 0, sizeof(*ctx));
    reset_signals();
    merge_memory_at_once();
    const int error = open_standard_descriptors();
    start_logging(ctx);
    if (error != 0) {
        TPG_ERROR(ctx, "no standard descriptors, %s", strerror(error));
        return -1;
    }
    signal(SIGHUP, SIG_IGN); // NOLINT(bugprone-signal-handler): until the loop can see to it
    tpg_board_select(ctx, getenv("BASE_BOARD"));
    tpg_options_t options = {};
    if (tpg_options_parse(ctx, argc, argv, &options) != 0 || tpg_socket_is_taken(ctx) ||
        attach_to_master(ctx) != 0) {
        return -1;
    }
    tpg_command_watch_stop();
    if (options.test_card != nullptr) {
        register_test_card(ctx, options.test_card);
    }
    register_built_in(ctx);
    tpg_legacymib_kx_init(ctx);
    if (tpg_socket_is_taken(ctx)) { /* by one that started beside this one */
        return -1;
    }
    tpg_levent_init(ctx);
    tpg_entity_init(ctx);
    run_loop(ctx);
    tpg_exit(ctx);
    TPG_INFO(ctx, "TPG exit!");
    tpg_log_close(ctx);
    return 0;
}

/*
 * What is opened later would take the place of one that is not: the agent's
 * log would go into a pipe of the SNMP library's that nobody reads. 0 or errno.
 */
static int open_standard_descriptors()
{
    int fd = STDIN_FILENO;
    do {
        fd = open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open)
    } while (fd >= STDIN_FILENO && fd <= STDERR_FILENO);
    if (fd < 0) {
        return errno;
    }
    close(fd);
    return 0;
}

/* What the parent ignored or blocked is no matter of the agent's. */
static void reset_signals()
{
    for (int sig = 1; sig < NSIG; sig++) {
        struct sigaction before = {};
        if (sigaction(sig, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) {
            signal(sig, SIG_DFL);
        }
    }
    /* A peer that is gone is an error of the call that notices, not the agent's end. */
    signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler)
    signal(SIGCHLD,
           SIG_IGN); // NOLINT(bugprone-signal-handler): what nobody waits for leaves nothing
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/*
 * The SNMP library takes and gives back 64 KB three times a request. Each time
 * the allocator would first merge the small pieces that it had put aside, and
 * put aside again in the next request.
 */
static void merge_memory_at_once()
{
    mallopt(M_MXFAST, 0);
}

static void start_logging(tpg_context_t* ctx)
{
    tpg_log_open();
    set_log_level(ctx);
    ctx->log_console = tpg_notify_console_wanted() ? 1 : 0;
    if (ctx->log_level == TPG_LOG_LEVEL_DEBUG) {
        TPG_WARN(ctx, "debug enabled");
    }
}

static void set_log_level(tpg_context_t* ctx)
{
    const bool debug = tpg_file_exists(TPG_DEBUG_MARKER);
    ctx->log_level = debug ? TPG_LOG_LEVEL_DEBUG : TPG_LOG_LEVEL_DEFAULT;
}

void tpg_board_select(tpg_context_t* ctx, const char* board)
{
    if (board == nullptr) {
        TPG_ERROR(ctx, BOARD_ADVICE);
    }
    assert((board));
    for (const board_t& known : BOARDS) {
        if (strcmp(board, known.name) == 0) {
            ctx->base_board_type = known.type;
            ctx->board_name = known.name;
            ctx->mib_kx_node_oid = known.node;
            ctx->board_name = known.name;
            return;
        }
    }
    TPG_ERROR(ctx, "unsupported BASE_BOARD %s!", board);
    TPG_ERROR(ctx, BOARD_ADVICE);
    abort();
}

/* ---- registrations at start ---- */

/*
 * The master need not be there yet. MIB texts would only cost memory: nothing
 * here is named.
 */
static int attach_to_master(tpg_context_t* ctx)
{
    setenv("MIBS", "", 0); // NOLINT(concurrency-mt-unsafe)
    tpg_log_library_take(ctx);
    tpg_notify_watch_master(ctx);
    tpg_status_begin(ctx);
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
    tpg_entity_read_config(AGENT_NAME);
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

/* Without the built-in MIB the agent goes on: the cards matter more. */
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
    tpg_control_open(ctx);
    ctx->lev_snmp_timeout = event_new(ctx->levent_base, -1, 0, levent_snmp_timer_ran_out, ctx);
    assert((ctx->lev_snmp_timeout));
    for (const int sig : {SIGINT, SIGTERM, SIGSEGV, SIGQUIT}) {
        add_signal(ctx, sig, tpg_levent_stop);
    }
    add_signal(ctx, SIGHUP, hangup_cb);
    set_log_level(ctx); /* for one that came earlier */
    tpg_fault_handler_install();
    tpg_command_watch_stop();
    if (tpg_command_stop_asked()) { /* while the first tables were registered */
        event_base_loopbreak(ctx->levent_base);
    }
    levent_snmp_update(ctx);
    tpg_notify_start(ctx);
}

static void add_signal(tpg_context_t* ctx, int sig, event_callback_fn call)
{
    event* ev = event_new(ctx->levent_base, sig, EV_SIGNAL | EV_PERSIST, call, ctx);
    assert((ev));
    if (event_add(ev, nullptr) != 0) {
        TPG_ERROR(ctx, "cannot watch signal %d: the loop does not see to it", sig);
    }
}

/* Debug lines can be switched without a restart, which would lose what is to be looked at. */
static void hangup_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    auto* ctx = static_cast<tpg_context_t*>(arg);
    set_log_level(ctx);
    const bool debug = ctx->log_level == TPG_LOG_LEVEL_DEBUG;
    TPG_INFO(ctx, "log level is %u: %s %s", ctx->log_level, TPG_DEBUG_MARKER,
             debug ? "exists" : "does not exist");
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
        tpg_notify_turn(ctx);
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
    tpg_notify_stop(ctx);
    tpg_free_svr_listener(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted %s", TPG_SVR_PATH);
    levent_snmp_free_list(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted snmpd list");
    tpg_free_clients(ctx);
    tpg_control_close(ctx);
    TPG_INFO(ctx, "tpg_exit(): deleted client list");
}
