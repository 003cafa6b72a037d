/*
 * What slow and hung cards cost the others: requests, SETs and traps while
 * some slots' daemons take 5 ms for an answer, or give none.
 */

#include "exchange.h"
#include "manager.h"

#include <cstdlib>
#include <fstream>
#include <functional>
#include <list>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

/* A row of the table: one sample a round. */
struct slow_row_t {
    std::string name;
    samples_t p50_ms, p99_ms, a_second, to_ideal;
    int answered, lost, sessions_lost;
};

/* Something that is done over and over; true when it was answered. */
using probe_t = std::function<bool()>;
/* What another manager does over and over. */
using load_t = std::function<void(void* session)>;

constexpr size_t TABLE = 1; /* 960 rows in 15 slots */
constexpr uint32_t DELAY_US = 5000;
constexpr uint32_t HEALTHY = 5;
constexpr uint32_t HUNG[] = {9, 3, 12};
constexpr uint32_t BOARD = 1; /* whose daemon has the board's values */
constexpr int SILENT_MS = 5000;
constexpr int PAUSE_MS = 5;
constexpr int SET_PAUSE_MS = 50; /* so that a walk is back at its hung card */
constexpr int SETTLE_MS = 100;
constexpr int RECOVERY_MS = 60000;
constexpr int PATIENT_US = 15000000; /* longer than master and agent wait for a card */
constexpr int IMPATIENT_US = 6000000;

static std::list<slow_row_t> slow_rows; /* its rows stay where they are */

static slow_row_t* slow_row(const std::string& name)
{
    auto it = std::find_if(slow_rows.begin(), slow_rows.end(),
                           [&](const slow_row_t& r) { return r.name == name; });
    if (it != slow_rows.end()) {
        return &*it;
    }
    return &slow_rows.emplace_back(slow_row_t{name, {}, {}, {}, {}, 0, 0, 0});
}

/* The cell of a column and a row's first index in a slot. */
static uint32_t cell_at(uint32_t column, uint32_t index, uint32_t slot)
{
    const bench_table_t* table = &BENCH_TABLES[TABLE];
    return column * bench_block(table, 2) + index * bench_block(table, 3) + slot - 1;
}

static bool get_slot(void* session, uint32_t slot)
{
    static uint32_t count;
    return get_cell(session, BENCH_TPG, TABLE,
                    cell_at(0, count++ % BENCH_TABLES[TABLE].radix[2], slot));
}

static bool set_slot(void* session, uint32_t slot)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(BENCH_TPG, TABLE, cell_at(0, 0, slot), name);
    const long value = 1;
    netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_SET);
    snmp_pdu_add_variable(request, name, len, ASN_INTEGER, &value, sizeof(value));
    netsnmp_pdu* answer = ask(session, request);
    snmp_free_pdu(answer);
    return answer != nullptr;
}

/* Probes for a while, with a pause behind each. */
static slow_row_t* probe(const std::string& name, int limit_ms, int pause_ms, const probe_t& once)
{
    samples_t times_ms;
    slow_row_t* row = slow_row(name);
    const double end = now_us() + limit_ms * 1000.0;
    while (now_us() < end) {
        const double start = now_us();
        (once() ? row->answered : row->lost)++;
        times_ms.push_back((now_us() - start) / 1000);
        poll(nullptr, 0, pause_ms);
    }
    row->p50_ms.push_back(percentile(times_ms, 0.5));
    row->p99_ms.push_back(percentile(times_ms, 0.99));
    return row;
}

static void set_pace(uint32_t slot, uint32_t delay_us)
{
    if (exchange_pace(slot, delay_us) != 0) {
        fprintf(stderr, "bench-manager: no control of the daemons\n");
        exit(EXIT_FAILURE);
    }
}

/* ---- slow cards ---- */

/* Three cells of each slot from 2 on, in one request. */
static bool get_of_all(void* session)
{
    std::vector<uint32_t> cells;
    for (uint32_t slot = 2; slot <= TPG_SLOT_MAX; slot++) {
        for (uint32_t column = 0; column < BENCH_COLUMNS; column++) {
            cells.push_back(cell_at(column, 0, slot));
        }
    }
    netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GET);
    for (const uint32_t cell : cells) {
        oid name[BENCH_OID_MAX];
        snmp_add_null_var(request, name, bench_cell_oid(BENCH_TPG, TABLE, cell, name));
    }
    netsnmp_pdu* answer = ask(session, request);
    const netsnmp_variable_list* var = answer != nullptr ? answer->variables : nullptr;
    size_t right = 0;
    while (var != nullptr && right < cells.size() && is_cell(var, BENCH_TPG, TABLE, cells[right])) {
        right++;
        var = var->next_variable;
    }
    snmp_free_pdu(answer);
    return right == cells.size();
}

static void measure_get_of_all(void* session)
{
    constexpr double IDEAL_MS = BENCH_COLUMNS * DELAY_US / 1000.0;
    slow_row_t* row = probe("GET of 42 cells of 14 slots, 5 ms each", 1000, PAUSE_MS,
                            [session] { return get_of_all(session); });
    row->to_ideal.push_back(row->p50_ms.back() / IDEAL_MS);
}

/* A get without agent and master: what the daemons, and this machine, could give. */
static bool get_directly(void*, uint32_t slot)
{
    const bench_var_t var = {slot, 1, 0};
    int32_t value = 0;
    return exchange_get(&var, &value) == 0;
}

/* Each of the managers polls a slot of its own. */
static void measure_managers(const std::string& name,
                             const std::function<bool(void* session, uint32_t slot)>& once)
{
    constexpr uint32_t MANAGERS = 8, FIRST_SLOT = 2;
    constexpr double SECONDS = 2, IDEAL = MANAGERS * 1e6 / DELAY_US;
    auto* answered =
        static_cast<uint32_t*>(mmap(nullptr, MANAGERS * sizeof(uint32_t), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const double start = now_us();
    for (uint32_t i = 0; i < MANAGERS; i++) {
        if (fork() == 0) {
            void* session = open_session(IMPATIENT_US);
            while (now_us() < start + SECONDS * 1e6) {
                answered[i] += once(session, FIRST_SLOT + i) ? 1 : 0;
            }
            _exit(EXIT_SUCCESS);
        }
    }
    while (wait(nullptr) > 0) {
    }
    const double spent_us = now_us() - start;
    slow_row_t* row = slow_row(name);
    uint32_t total = 0;
    for (uint32_t i = 0; i < MANAGERS; i++) {
        total += answered[i];
    }
    munmap(answered, MANAGERS * sizeof(uint32_t));
    row->answered += static_cast<int>(total);
    row->a_second.push_back(total / spent_us * 1e6);
    row->to_ideal.push_back(row->a_second.back() / IDEAL);
}

/* ---- hung cards ---- */

/* Goes on with what is behind a name; false when that cannot be read or is not below the root. */
static bool go_on(void* session, const oid* root, size_t root_len, oid* name, size_t* len)
{
    netsnmp_pdu* answer = ask(session, SNMP_MSG_GETNEXT, name, *len);
    if (answer == nullptr) {
        return false;
    }
    const netsnmp_variable_list* var = answer->variables;
    const bool below = snmp_oidsubtree_compare(root, root_len, var->name, var->name_length) == 0;
    *len = var->name_length;
    std::copy_n(var->name, *len, name);
    snmp_free_pdu(answer);
    return below;
}

/* Walks a table; a cell that cannot be read is left behind. */
static void walk_card(void* session)
{
    const bench_table_t* table = &BENCH_TABLES[TABLE];
    oid root[BENCH_OID_MAX], name[MAX_OID_LEN];
    const size_t root_len = bench_table_oid(BENCH_TPG, TABLE, root);
    size_t len = root_len;
    std::copy_n(root, root_len, name);
    for (uint32_t cell = 0; cell < bench_block(table, 0);
         cell = bench_after(table, name + root_len, len - root_len)) {
        if (!go_on(session, root, root_len, name, &len)) {
            len = bench_cell_oid(BENCH_TPG, TABLE, cell, name);
        }
    }
}

/* Walks the board's tables, up to a cell that cannot be read. */
static void walk_board(void* session)
{
    constexpr oid ROOT[] = {1, 3, 6, 1, 4, 1, 32473, 10, 232};
    oid name[MAX_OID_LEN];
    size_t len = std::size(ROOT);
    std::copy_n(ROOT, len, name);
    while (go_on(session, ROOT, std::size(ROOT), name, &len)) {
    }
}

/* How often the agent lost its master, by its own log. */
static int sessions()
{
    std::ifstream log("/tmp/tpg.log");
    int count = -1; /* the first one is none lost */
    for (std::string line; std::getline(log, line);) {
        count += line.find("AgentX subagent connected") != std::string::npos ? 1 : 0;
    }
    return count;
}

/* Slots without answers, and managers that meet them. */
struct hang_t {
    std::vector<uint32_t> slots;
    std::vector<pid_t> managers;
    int sessions;
};

static hang_t hang(const std::vector<uint32_t>& slots)
{
    for (const uint32_t slot : slots) {
        set_pace(slot, BENCH_HUNG);
    }
    return {slots, {}, sessions()};
}

static void load(hang_t* hung, uint32_t managers, long timeout_us, int retries, const load_t& work)
{
    for (uint32_t i = 0; i < managers; i++) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (void* session = open_session(timeout_us, retries);;) {
                work(session);
            }
        }
        hung->managers.push_back(pid);
    }
    poll(nullptr, 0, SETTLE_MS); /* until they wait */
}

/* Ends the managers, wakes the daemons up, and waits until all slots are answered for again. */
static void recover(hang_t* hung, slow_row_t* row)
{
    for (const pid_t pid : hung->managers) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    for (const uint32_t slot : hung->slots) {
        set_pace(slot, 0);
    }
    void* session = open_session(PATIENT_US);
    const double end = now_us() + RECOVERY_MS * 1000.0;
    for (uint32_t slot = 1; slot <= TPG_SLOT_MAX;) {
        if (get_slot(session, slot)) {
            slot++;
        } else if (now_us() > end) {
            miss(row->name + ": slot " + std::to_string(slot) + " did not recover");
            break;
        } else {
            poll(nullptr, 0, 100);
        }
    }
    snmp_sess_close(session);
    row->sessions_lost += sessions() - hung->sessions;
}

/* How long a healthy card is asked beside hung ones: until they are silent, and longer. */
constexpr int BESIDE_MS = SILENT_MS + 2000;

static slow_row_t* get_beside(const std::string& name)
{
    void* session = open_session(IMPATIENT_US);
    slow_row_t* row = probe("GET beside " + name, BESIDE_MS, PAUSE_MS,
                            [session] { return get_slot(session, HEALTHY); });
    snmp_sess_close(session);
    return row;
}

static void measure_one_hung()
{
    hang_t hung = hang({HUNG[0]});
    load(&hung, 1, PATIENT_US, 0, walk_card);
    slow_row_t* row = get_beside("a walked hung card");
    void* session = open_session(PATIENT_US);
    probe("SET beside a walked hung card, silent by then", 2000, SET_PAUSE_MS,
          [session] { return set_slot(session, HEALTHY); });
    snmp_sess_close(session);
    recover(&hung, row);
}

static void measure_three_hung()
{
    hang_t hung = hang({std::begin(HUNG), std::end(HUNG)});
    load(&hung, std::size(HUNG), PATIENT_US, 0, walk_card);
    recover(&hung, get_beside("3 walked hung cards"));
}

static void measure_hung_board()
{
    hang_t hung = hang({BOARD});
    load(&hung, 1, PATIENT_US, 0, walk_board);
    recover(&hung, get_beside("the board's walked hung daemon"));
}

/* Managers as they come, with a time-out of 1 s and 5 retries. */
static void measure_retries()
{
    hang_t hung = hang({HUNG[0]});
    load(&hung, 3, 1000000, 5, [](void* session) { get_slot(session, HUNG[0]); });
    recover(&hung, get_beside("3 managers with retries at a hung card"));
}

static void measure_traps_beside(const std::string& name, int card, const load_t& work)
{
    const int sink = open_sink();
    hang_t hung = hang({HUNG[0]});
    load(&hung, 1, PATIENT_US, 0, work);
    slow_row_t* row =
        probe("notify to trap beside " + name, SILENT_MS + 500, PAUSE_MS, [sink, card] {
            notify(card, HEALTHY);
            return trap_came(sink, IMPATIENT_US / 1000);
        });
    close(sink);
    recover(&hung, row);
}

/* ---- all of it ---- */

void measure_slow(void* session, const std::vector<int>& cards, int rounds)
{
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "slow cards: round %d of %d\n", round + 1, rounds);
        for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
            set_pace(slot, DELAY_US);
        }
        measure_get_of_all(session);
        measure_managers("8 managers, each at a slot of its own, 5 ms", get_slot);
        measure_managers("their daemons by themselves", get_directly);
        for (uint32_t slot = 1; slot <= TPG_SLOT_MAX; slot++) {
            set_pace(slot, 0);
        }
        fprintf(stderr, "hung cards: round %d of %d\n", round + 1, rounds);
        measure_one_hung();
        measure_three_hung();
        measure_hung_board();
        measure_retries();
        measure_traps_beside("a hung card's GET", cards[HEALTHY - 1],
                             [](void* busy) { get_slot(busy, HUNG[0]); });
        measure_traps_beside("a SET to a hung card", cards[HEALTHY - 1],
                             [](void* busy) { set_slot(busy, HUNG[0]); });
    }
}

/* As cell_text, with a digit more below 2. */
static std::string figure(const samples_t& samples)
{
    char text[64];
    if (samples.empty() || percentile(samples, 0.5) >= 2) {
        return cell_text(samples);
    }
    snprintf(text, sizeof(text), "%.2f (%.2f-%.2f)", percentile(samples, 0.5),
             percentile(samples, 0), percentile(samples, 1));
    return text;
}

void print_slow()
{
    printf("\n| %-50s | %-19s | %-19s | %-16s | %-17s | answered | lost | sessions lost |\n",
           "beside slow and hung cards", "p50, ms", "p99, ms", "a second", "to the ideal");
    printf("|---|---|---|---|---|---|---|---|\n");
    for (const slow_row_t& r : slow_rows) {
        if (r.answered == 0 && (r.lost == 0 || !r.to_ideal.empty())) {
            miss(r.name + ": no figure");
        }
        printf("| %-50s | %-19s | %-19s | %-16s | %-17s | %8d | %4d | %13d |\n", r.name.c_str(),
               figure(r.p50_ms).c_str(), figure(r.p99_ms).c_str(), figure(r.a_second).c_str(),
               figure(r.to_ideal).c_str(), r.answered, r.lost, r.sessions_lost);
    }
}
