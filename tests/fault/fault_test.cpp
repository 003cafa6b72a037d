/* A card's whole life, once for every call on its way, with just that call failing. */

#include "../support/daemon.h"
#include "../unit/unit.h"
#include "fault_calls.h"
#include "tpg_jsonmib_queue.h"
#include "tpg_main.h"
#include "tpg_main_levent.h"
#include "tpg_main_server.h"
#include "tpg_main_trap.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

constexpr char DOCUMENT[] = R"({"enterprise_oid":[1,3,9],"instslot_oid":[1,3,8],
 "gen_table_array":[{"name":"g","oid":[1,3,6,1,4,1,32473,7,1],
  "index_array":[{"range0":1,"range1":2}],
  "param_array":[{"table_index":true,"read_only":true},{"var_id":5,"type":1,"range1":99},
                 {"var_id":6,"type":3,"range1":200}]}],
 "fault_table_array":[{"name":"f","oid":[1,3,6,1,4,1,32473,7,2],
  "index_array":[{"range0":1,"range1":4}],
  "param_array":[{"table_index":true,"read_only":true},{"var_id":9,"type":1},
                 {"type":1,"range0":1,"range1":2}],
  "trap_info":{"fault_present_var_id":9,"specific_start":1,"index_ofs_1":1}}],
 "trap_var_bindings":[{"oid":[1,3,7],"specific":"1-9"}]})";

/* An objdump that shows a library with the document and nothing else. */
constexpr char OBJDUMP[] = R"(#!/bin/sh
size=$(printf %x $(wc -c </tmp/card/document))
case $1 in
-t) echo "4020 l O .data	$size jsonmib_prod" ;;
-h) echo "9 .data $size" ;;
*) echo Contents of section && od -An -v -tx1 /tmp/card/document | sed 's/ //g; s/......../& /g; s/^/4020 /' ;;
esac
)";

constexpr char LOG[] = "/tmp/fault.log";
constexpr char AGAIN_MARK[] = "AGAIN";
constexpr char SWITCHES[] = "/mnt/flash0/cards/fam_slot03/sendtrap.json";
constexpr int NOT_REACHED = 100; /* exit status: the life has fewer calls */

/* Where a failed call is an assertion's, and the agent ends on purpose. */
const std::regex
    ASSERTION(R"(Assertion `\((json_tok|mib_handler|s > 0|tok|bev|ev|)"
              R"(ctx->(svr_listener|svr_retry_timer|levent_base|lev_snmp_timeout))\)')");

/* Failures that leave no line. */
const std::vector<std::string> SILENT_LIFE = {
    "unlink /mnt/flash0/cards/fam_slot03/sendtrap.json.new", /* the next save writes over it */
    "unlink /tmp/.tpg_svr", /* a stale one is noticed by the listener that it keeps out */
    "getrlimit64",          /* the least limit is taken to hold */
};
const std::vector<std::string> SILENT_START = {
    "unlink /tmp/.tpg_svr",
    "unlink /run/tpg.ctl",     /* so is a stale socket of the operators; at the end it is removed */
    "evconnlistener_new_bind", /* of the operators' socket: they are served in /tmp then */
    /* As if nobody had asked for more lines. */
    "stat64 /tmp/.tpg_debug", "__stat64_time64 /tmp/.tpg_debug",
    /* As if it were not there, which is logged either way. */
    "stat64 /var/built_in_jsonmib/", "__stat64_time64 /var/built_in_jsonmib/",
    "socket",  /* the way to the system log, for the line of a crash ... */
    "connect", /* ... which then goes to standard error alone */
};

/* The start of the agent is followed as far as its loop, which then ends at once. */
static bool loop_ends;
extern "C" int __real_event_base_loop(event_base* base, int flags);

/* ---- the card's side ---- */

/* A control daemon that has a y for every byte asked of it. */
[[noreturn]] static void run_daemon(int listener)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int fd = -1;; close(fd)) {
        fd = accept(listener, nullptr, nullptr);
        char part[TPG_MSG_MAX];
        std::string bytes;
        question_t asked;
        for (ssize_t n = 0; (n = recv(fd, part, sizeof(part), 0)) > 0;) {
            bytes.append(part, static_cast<size_t>(n));
            while (take_question(&bytes, &asked)) {
                const std::string reply = answer_to(asked, std::string(asked.length, 'y'));
                send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
            }
        }
    }
}

/* Runs the agent's loop until done says so; bounded by turns, each of which serves all there is. */
static bool turn(tpg_context_t* ctx, const std::function<bool()>& done)
{
    for (int i = 0; i < 40 && !done(); i++) {
        as_agent([&] {
            ctx->jsonmib_later.loop_busy = true;
            event_base_loop(ctx->levent_base, EVLOOP_NONBLOCK);
            ctx->jsonmib_later.loop_busy = false;
        });
        poll(nullptr, 0, 1);
    }
    return done();
}

/* Sends a register or unregister message and awaits its acknowledgement. */
static bool update(tpg_context_t* ctx, int fd, tpg_msg_type type)
{
    const auto message = client_update(type, 3, "prod", "fam", 0, "/tmp/card/libmib.so");
    send(fd, &message, sizeof(message), MSG_NOSIGNAL);
    tpg_msg_libmib_update_ack_t ack;
    ssize_t n = -1;
    turn(ctx, [&] { return n >= 0 || (n = recv(fd, &ack, sizeof(ack), MSG_DONTWAIT)) >= 0; });
    return n == sizeof(ack);
}

/* ---- the manager's side ---- */

static int traps;

/* In place of the library's: counts the traps that name the slot and carry the card's text. */
void send_v2trap(netsnmp_variable_list* list)
{
    const netsnmp_variable_list* slot = list->next_variable;
    const netsnmp_variable_list* text = slot == nullptr ? nullptr : slot->next_variable;
    traps += text != nullptr && text->val_len == 50 ? 1 : 0;
}

/* Takes one request on the variable through the modes; the SNMP error status. */
static int ask(netsnmp_handler_registration* table, netsnmp_variable_list* var,
               const std::vector<int>& modes)
{
    netsnmp_agent_request_info reqinfo = {};
    netsnmp_request_info request = {};
    request.requestvb = var;
    request.agent_req_info = &reqinfo;
    for (const int mode : modes) {
        reqinfo.mode = request.status == 0 ? mode : MODE_SET_FREE;
        request.processed = 0;
        as_agent([&] { netsnmp_call_handlers(table, &reqinfo, &request); });
    }
    netsnmp_free_request_data_sets(&request);
    return request.status;
}

/* The number of cells that a walk shows. */
static int walk(netsnmp_handler_registration* table)
{
    netsnmp_variable_list* var = nullptr;
    snmp_varlist_add_variable(&var, table->rootoid, table->rootoid_len, ASN_NULL, nullptr, 0);
    int cells = 0;
    while (cells < 50 && ask(table, var, {MODE_GETNEXT}) == 0 && var->type != ASN_NULL) {
        cells++;
        snmp_set_var_typed_value(var, ASN_NULL, nullptr, 0);
    }
    snmp_free_varbind(var);
    return cells;
}

static bool set(netsnmp_handler_registration* table, oid column, oid row, u_char type,
                const void* value, size_t size)
{
    std::vector<oid> name(table->rootoid, table->rootoid + table->rootoid_len);
    name.insert(name.end(), {1, column, row, 3});
    netsnmp_variable_list* var = nullptr;
    snmp_varlist_add_variable(&var, name.data(), name.size(), type, value, size);
    const int status =
        ask(table, var, {MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_COMMIT});
    snmp_free_varbind(var);
    return status == 0;
}

static bool set_switch(netsnmp_handler_registration* table, long value)
{
    return set(table, 3, 2, ASN_INTEGER, &value, sizeof(value)) &&
           has(read_file(SWITCHES), value == 1 ? "[ 253," : "[ 255,");
}

static bool raise_fault(tpg_context_t* ctx)
{
    std::string bytes =
        notify(3, 9, 0, big_endian(1) + big_endian(0) + '\x32' + std::string(50, '\0'));
    bytes.resize(sizeof(tpg_msg_trap_notify_t));
    auto* message = reinterpret_cast<tpg_msg_trap_notify_t*>(bytes.data());
    traps = 0;
    as_agent([&] { tpg_msg_trap_notify(ctx, message, nullptr); });
    return traps == 1;
}

/* ---- the life ---- */

/* What went wrong, or "". */
static std::string serve(tpg_context_t* ctx, tpg_jsonmib_register_info_t* card)
{
    std::string wrong;
    const auto check = [&wrong](bool good, const char* what) {
        wrong += good ? "" : std::string(" ") + what;
    };
    if (card->gen_table_reginfo == nullptr || card->gen_table_reginfo[0] == nullptr ||
        card->fault_table_reginfo == nullptr || card->fault_table_reginfo[0] == nullptr) {
        return " tables";
    }
    netsnmp_handler_registration* gen = card->gen_table_reginfo[0];
    netsnmp_handler_registration* fault = card->fault_table_reginfo[0];
    const std::string text(150, 'x');
    const long number = 7;
    check(walk(gen) == 6 && walk(fault) == 12, "walk");
    check(set(gen, 2, 1, ASN_INTEGER, &number, sizeof(number)), "set");
    check(set(gen, 3, 2, ASN_OCTET_STR, text.data(), text.size()), "string");
    check(set_switch(fault, 2) && set_switch(fault, 1), "switch");
    check(raise_fault(ctx), "trap");
    return wrong;
}

/* What went wrong, or "". */
static std::string live(tpg_context_t* ctx)
{
    tpg_jsonmib_register_info_t* card = &ctx->jsonmib_reg_info[2];
    const auto registered = [card] { return card->actual_reginfo == card; };
    std::string wrong;
    const auto check = [&wrong](bool good, const char* what) {
        wrong += good ? "" : std::string(" ") + what;
    };
    ctx->levent_base = event_base_new();
    ctx->lev_snmp_timeout = event_new(ctx->levent_base, -1, 0, levent_snmp_timeout, ctx);
    list_init(&ctx->ipc_clnt_list);
    list_init(&ctx->lev_snmp_fd_list);
    as_agent([&] { tpg_create_svr_listener(ctx); });
    const int fd = unix_socket(TPG_SVR_PATH);
    check(update(ctx, fd, TPG_MSG_LIBMIB_REGISTER) && registered(), "register");
    wrong += serve(ctx, card);
    check(update(ctx, fd, TPG_MSG_LIBMIB_UNREGISTER) && !registered(), "unregister");
    check(update(ctx, fd, TPG_MSG_LIBMIB_REGISTER) && registered(), "register-again");
    jsonmib_table_info_t** faults = card->fault_json_table;
    check(faults != nullptr && faults[0] != nullptr && faults[0]->send_trap_storage[2][0] == 253,
          "recall");
    close(fd);
    check(turn(ctx, [&] { return ctx->ipc_clnt_total == 0 && !registered(); }), "close");
    as_agent([&] { tpg_free_svr_listener(ctx); });
    tpg_free_clients(ctx);
    levent_snmp_free_list(ctx);
    jsonmib_queue_release(ctx);
    event_free(ctx->lev_snmp_timeout);
    event_base_free(ctx->levent_base);
    return wrong;
}

/* Nothing of an earlier life is left on the disks. */
static void clear_disks()
{
    for (const char* place : {"/tmp/card", "/mnt/flash0/cards/fam_slot03"}) {
        clear_folder(place);
    }
    write_file("/tmp/card/libmib.so", "");
    write_file("/tmp/card/document", DOCUMENT);
    write_file("/tmp/card/objdump", OBJDUMP, 0700);
}

/* The lowest descriptor that is free. */
static int free_descriptor()
{
    const int fd = fcntl(STDIN_FILENO, F_DUPFD, 3);
    close(fd);
    return fd;
}

static bool leaks()
{
#ifdef __SANITIZE_ADDRESS__
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

/* Makes the n-th call of the kind fail during run; false when it was not reached. */
template <typename run_t> static bool failing(fault_kind kind, int n, run_t run)
{
    fault_state = {kind, n, false, 0};
    run();
    const bool failed = fault_state.left <= 0;
    fault_state = {};
    return failed || kind == fault_kind::none;
}

/* A life with a failure, and a second one without, which must lack nothing; the exit status. */
static int live_twice(fault_kind kind, int n)
{
    std::unique_ptr<tpg_context_t> ctx = new_context();
    clear_disks();
    const int descriptor = free_descriptor();
    if (!failing(kind, n, [&] { live(ctx.get()); })) {
        return NOT_REACHED;
    }
    fprintf(stderr, "%s\n", AGAIN_MARK);
    const std::string wrong = live(ctx.get());
    const bool kept = free_descriptor() != descriptor;
    ctx.reset();
    fprintf(stderr, "second life:%s%s\n", wrong.c_str(), kept ? " descriptor" : "");
    return !wrong.empty() || kept || leaks() ? 1 : 0;
}

/* The agent's start; its loop ends at once. */
static int start(fault_kind kind, int n)
{
    char name[] = "tpg";
    char* argv[] = {name, nullptr};
    setenv("BASE_BOARD", "3100KX", 1);
    loop_ends = true;
    return failing(kind, n, [&] { as_agent([&] { tpg_main(1, argv); }); }) ? 0 : NOT_REACHED;
}

extern "C" int __wrap_event_base_loop(event_base* base, int flags);
extern "C" int __wrap_event_base_loop(event_base* base, int flags)
{
    return loop_ends ? event_base_loopbreak(base) : __real_event_base_loop(base, flags);
}

/* ---- trials ---- */

using run_t = int (*)(fault_kind, int);

/* What is thrown ends the process here, as it would in a callback of the libraries. */
[[noreturn]] static void run_child(run_t run, fault_kind kind, int n) noexcept
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(LOG, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    dup2(log, STDERR_FILENO);
    close(log);
    _exit(run(kind, n));
}

/* Runs one in a process of its own; its wait status. The log is in LOG. */
static int isolated(run_t run, fault_kind kind, int n)
{
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(run, kind, n);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

/* The Error and Warn lines of a log, without the process. */
static std::set<std::string> complaints(const std::string& log)
{
    std::set<std::string> lines;
    const std::regex complaint(R"(\|(?:Error|Warn) \(tpg:\d+\)(\|[^\n]*))");
    for (std::sregex_iterator at(log.begin(), log.end(), complaint), end; at != end; ++at) {
        lines.insert((*at)[1]);
    }
    return lines;
}

/* The calls of a kind are shared out among so many processes of this test. */
constexpr int PARTS = 6;

struct calls_t {
    const char* name;
    fault_kind kind;
    int part;
};

static void PrintTo(const calls_t& calls, std::ostream* out)
{
    *out << calls.name << calls.part;
}

struct fault : testing::TestWithParam<calls_t> {
    static inline pid_t daemon;
    static void SetUpTestSuite()
    {
        const int listener = unix_socket(daemon_path(3), true);
        daemon = fork();
        if (daemon == 0) {
            run_daemon(listener);
        }
        close(listener);
        setenv("PATH", (std::string("/tmp/card:") + getenv("PATH")).c_str(), 1);
    }
    static void TearDownTestSuite()
    {
        kill(daemon, SIGKILL);
        waitpid(daemon, nullptr, 0);
        unlink(daemon_path(3).c_str());
    }
    /* Lets every call of the kind fail in its turn. */
    void fail_each(run_t run, int at_least, const std::vector<std::string>& silent)
    {
        int ended = 0;
        int n = 1 + GetParam().part;
        const int clean = isolated(run, fault_kind::none, 1);
        const std::set<std::string> usual = complaints(read_file(LOG));
        ASSERT_EQ(clean, 0) << read_file(LOG);
        for (;; n += PARTS) {
            const int status = isolated(run, GetParam().kind, n);
            if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_REACHED) {
                break;
            }
            const std::string log = read_file(LOG);
            ended += judge(status, log, usual, silent);
            ASSERT_LT(n, 2000);
        }
        printf("%s: of %d calls one in %d failed, %d ended by an assertion\n", GetParam().name,
               n - 1, PARTS, ended);
        EXPECT_GT(n, at_least);
    }
    /* 1 when the agent ended on purpose. */
    static int judge(int status, const std::string& log, const std::set<std::string>& usual,
                     const std::vector<std::string>& silent)
    {
        const size_t mark = log.find(FAULT_MARK);
        const std::string after =
            mark == std::string::npos ? "" : log.substr(mark + sizeof(FAULT_MARK) - 1);
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), SIGABRT) << log;
            EXPECT_TRUE(std::regex_search(after, ASSERTION)) << log;
            return 1;
        }
        EXPECT_EQ(WEXITSTATUS(status), 0) << log;
        std::set<std::string> lines = complaints(after.substr(0, after.find(AGAIN_MARK)));
        std::erase_if(lines, [&](const std::string& line) { return usual.contains(line); });
        EXPECT_EQ(lines.empty(),
                  std::ranges::any_of(
                      silent, [&](const std::string& start) { return after.starts_with(start); }))
            << log;
        return 0;
    }
};

TEST_P(fault, in_a_cards_life)
{
    fail_each(live_twice, 20, SILENT_LIFE);
}

TEST_P(fault, at_the_start)
{
    fail_each(start, 0, SILENT_START);
}

static std::vector<calls_t> all_calls()
{
    std::vector<calls_t> all;
    for (int part = 0; part < PARTS; part++) {
        all.insert(all.end(), {{"alloc", fault_kind::alloc, part},
                               {"file", fault_kind::file, part},
                               {"socket", fault_kind::socket, part},
                               {"library", fault_kind::library, part}});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(, fault, testing::ValuesIn(all_calls()), [](const auto& calls) {
    return calls.param.name + std::to_string(calls.param.part);
});
