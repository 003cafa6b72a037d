/*
 * Measures all subjects side by side, in interleaved rounds, and prints the
 * tables: walks, single requests, several managers at once, traps,
 * registration; and what slow and hung cards cost the others (slow.cpp).
 */

#include "manager.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

/* Some work for a subject; 0, or -1 when not all of it came. */
using work_t = std::function<int(int subject)>;

static void print_table();

constexpr int SUBJECTS = BENCH_PASS; /* with a column of the table */
constexpr uint32_t LARGE_CARD_SLOTS = 15, SMALL_CARD_SLOTS = 3;
constexpr size_t COLUMNS_TABLE = 4;
constexpr double STEP_LIMIT_US = 30e6;
static std::vector<row_t> rows;
static int pids[BENCH_OTHER + 1]; /* 0: there is no such subject */
static bool quick;                /* one round: fewer cells */
static bool incomplete;

/* ---- SNMP ---- */

netsnmp_session* open_session(long timeout_us, int retries)
{
    static char peer[] = "udp:127.0.0.1:1161", community[] = "public";
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = peer;
    session.community = reinterpret_cast<u_char*>(community);
    session.community_len = strlen(community);
    session.timeout = timeout_us;
    session.retries = retries;
    return static_cast<netsnmp_session*>(snmp_sess_open(&session));
}

netsnmp_pdu* ask(void* session, netsnmp_pdu* request)
{
    netsnmp_pdu* answer = nullptr;
    snmp_sess_synch_response(session, request, &answer);
    if (answer != nullptr && answer->errstat == 0 && answer->variables != nullptr) {
        return answer;
    }
    snmp_free_pdu(answer);
    return nullptr;
}

netsnmp_pdu* ask(void* session, int type, const oid* name, size_t len, long repetitions)
{
    netsnmp_pdu* request = snmp_pdu_create(type);
    request->non_repeaters = 0;
    request->max_repetitions = repetitions;
    snmp_add_null_var(request, name, len);
    return ask(session, request);
}

bool is_cell(const netsnmp_variable_list* var, int subject, size_t table, uint32_t cell)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(subject, table, cell, name);
    const bench_var_t what = bench_var(&BENCH_TABLES[table], cell);
    return var->type == ASN_INTEGER && *var->val.integer == bench_value(what.var_id, what.index) &&
           snmp_oid_compare(var->name, var->name_length, name, len) == 0;
}

bool get_cell(void* session, int subject, size_t table, uint32_t cell)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(subject, table, cell, name);
    netsnmp_pdu* answer = ask(session, SNMP_MSG_GET, name, len);
    const bool right = answer != nullptr && is_cell(answer->variables, subject, table, cell);
    snmp_free_pdu(answer);
    return right;
}

/* Walks the first cells of a table, each one checked; 0, or -1 when not all came in time. */
static int walk(void* session, int subject, size_t table, uint32_t cells, uint32_t repetitions)
{
    oid name[MAX_OID_LEN];
    size_t len = bench_table_oid(subject, table, name);
    const double end = now_us() + STEP_LIMIT_US;
    for (uint32_t cell = 0; cell < cells;) {
        const uint32_t most = std::min(repetitions, cells - cell);
        netsnmp_pdu* answer =
            ask(session, most > 0 ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT, name, len, most);
        if (answer == nullptr || now_us() > end) {
            snmp_free_pdu(answer);
            return -1;
        }
        for (const netsnmp_variable_list* var = answer->variables; var != nullptr;
             var = var->next_variable, cell++) {
            if (!is_cell(var, subject, table, cell)) {
                snmp_free_pdu(answer);
                return -1;
            }
            len = var->name_length;
            std::copy_n(var->name, len, name);
        }
        snmp_free_pdu(answer);
    }
    return 0;
}

/* Columns of one table, asked for side by side. */
struct columns_t {
    const char* name;
    uint32_t columns;
    uint32_t repetitions; /* of a GETBULK; 0: a GETNEXT */
};

constexpr columns_t COLUMNS[] = {
    {"GETNEXT of 8 columns", 8, 0},
    {"GETBULK of 3 columns", 3, 10},
};

/* Asks for what is behind the row before this one, in each of the columns. */
static netsnmp_pdu* ask_columns(void* session, int subject, const columns_t* what, uint32_t at)
{
    const bench_table_t* table = &BENCH_TABLES[COLUMNS_TABLE];
    netsnmp_pdu* request =
        snmp_pdu_create(what->repetitions > 0 ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT);
    request->non_repeaters = 0;
    request->max_repetitions = what->repetitions;
    for (uint32_t column = 0; column < what->columns; column++) {
        oid name[BENCH_OID_MAX];
        const uint32_t cell = column * bench_block(table, 2) + (at > 0 ? at - 1 : 0);
        const size_t len = bench_cell_oid(subject, COLUMNS_TABLE, cell, name);
        snmp_add_null_var(request, name, at > 0 ? len : len - (table->digits - 2));
    }
    return ask(session, request);
}

/* Walks the first rows of some columns, each cell checked; 0, or -1 when not all came. */
static int walk_columns(void* session, int subject, const columns_t* what, uint32_t count)
{
    const uint32_t block = bench_block(&BENCH_TABLES[COLUMNS_TABLE], 2);
    const uint32_t step = std::max<uint32_t>(1, what->repetitions);
    for (uint32_t at = 0; at < count; at += step) {
        netsnmp_pdu* answer = ask_columns(session, subject, what, at);
        const netsnmp_variable_list* var = answer != nullptr ? answer->variables : nullptr;
        uint32_t right = 0;
        while (var != nullptr &&
               is_cell(var, subject, COLUMNS_TABLE,
                       right % what->columns * block + at + right / what->columns)) {
            right++;
            var = var->next_variable;
        }
        snmp_free_pdu(answer);
        if (right != what->columns * step) {
            return -1;
        }
    }
    return 0;
}

/* ---- tables ---- */

static std::string of_subject(const std::string& name, int subject)
{
    return name + ", subject " + std::to_string(subject) + ": ";
}

static double cpu_us(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
    double ns = 0;
    file >> ns;
    return ns / 1000;
}

static double resident_mb(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    double pages = 0;
    file >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

static void measure_walk(const std::string& name, void* session, int subject, size_t table,
                         uint32_t cells, uint32_t repetitions)
{
    const uint32_t times = std::max<uint32_t>(1, 1500 / cells);
    const double cpu = cpu_us(pids[subject]), start = now_us();
    for (uint32_t i = 0; i < times; i++) {
        if (walk(session, subject, table, cells, repetitions) != 0) {
            miss(of_subject(name, subject) + "not complete");
            return;
        }
    }
    const double total = static_cast<double>(times) * cells;
    row(name + ", us/cell")->samples[subject].push_back((now_us() - start) / total);
    row(name + ", agent's CPU, us/cell")
        ->samples[subject]
        .push_back((cpu_us(pids[subject]) - cpu) / total);
}

/*
 * The agent against another subject, in turns of a few milliseconds: what the
 * machine does meanwhile meets both alike.
 */
static void measure_ratio(const std::string& name, int other, const work_t& work)
{
    const int turns = quick ? 6 : 20;
    for (int i = 0; i < turns; i++) {
        double spent[BENCH_OTHER + 1] = {};
        for (const int subject : {other, int{BENCH_TPG}, int{BENCH_TPG}, other}) {
            const double start = now_us();
            if (work(subject) != 0) {
                miss(of_subject(name, subject) + "not complete");
                return;
            }
            spent[subject] += now_us() - start;
        }
        row(name)->ratios.push_back(spent[other] / spent[BENCH_TPG]);
    }
}

constexpr uint32_t TURN_CELLS = 360;

static work_t walks(void* session, size_t table, uint32_t repetitions)
{
    const uint32_t cells = std::min(TURN_CELLS, bench_block(&BENCH_TABLES[table], 0));
    return [=](int subject) {
        int status = 0;
        for (uint32_t done = 0; done < TURN_CELLS && status == 0; done += cells) {
            status = walk(session, subject, table, cells, repetitions);
        }
        return status;
    };
}

static work_t gets(void* session, size_t table)
{
    return [=](int subject) {
        int status = 0;
        for (uint32_t cell = 0; cell < TURN_CELLS && status == 0; cell++) {
            status = get_cell(session, subject, table, cell) ? 0 : -1;
        }
        return status;
    };
}

static work_t column_walks(void* session, const columns_t* what)
{
    return [=](int subject) {
        return walk_columns(session, subject, what, TURN_CELLS / what->columns);
    };
}

static void measure_single(const std::string& name, void* session, int subject, size_t table,
                           int type, int times)
{
    static std::mt19937 random(1);
    const uint32_t cells = bench_block(&BENCH_TABLES[table], 0);
    samples_t times_us;
    const double end = now_us() + STEP_LIMIT_US;
    for (int i = 0; i < times && now_us() < end; i++) {
        const auto cell = static_cast<uint32_t>(random() % (cells - 1));
        oid asked[BENCH_OID_MAX];
        const size_t len = bench_cell_oid(subject, table, cell, asked);
        const double start = now_us();
        netsnmp_pdu* answer = ask(session, type, asked, len);
        times_us.push_back(now_us() - start);
        if (answer == nullptr ||
            !is_cell(answer->variables, subject, table, type == SNMP_MSG_GET ? cell : cell + 1)) {
            miss(of_subject(name, subject) + "wrong answer");
            snmp_free_pdu(answer);
            return;
        }
        snmp_free_pdu(answer);
    }
    row(name + " p50, us")->samples[subject].push_back(percentile(times_us, 0.5));
    row(name + " p99, us")->samples[subject].push_back(percentile(times_us, 0.99));
}

/* Four processes walk one table at once. */
static void measure_four(const std::string& name, int subject, size_t table, uint32_t cells)
{
    constexpr int MANAGERS = 4;
    const double start = now_us();
    for (int i = 0; i < MANAGERS; i++) {
        if (fork() == 0) {
            _exit(walk(open_session(5000000), subject, table, cells, 0) == 0 ? 0 : 1);
        }
    }
    int failed = 0, status = 0;
    while (wait(&status) > 0) {
        failed += status != 0 ? 1 : 0;
    }
    if (failed != 0) {
        miss(of_subject(name, subject) + std::to_string(failed) + " walks not complete");
        return;
    }
    row(name + ", us/cell")->samples[subject].push_back((now_us() - start) / MANAGERS / cells);
}

/* How much of a table is walked: all of it, or one column of it, if that does not take minutes. */
static uint32_t walked_cells(int subject, size_t table)
{
    constexpr uint32_t QUICK_CELLS = 3000;
    const uint32_t cells = bench_block(&BENCH_TABLES[table], 0);
    const bool part = table == 3 || (table == 2 && subject == BENCH_ITERATOR);
    const uint32_t walked = part ? cells / BENCH_COLUMNS : cells;
    return quick ? std::min(walked, QUICK_CELLS) : walked;
}

static bool is_asked_singly(size_t table)
{
    return table == 1 || table == 3;
}

static void measure_subject(const std::string& name, void* session, int subject, size_t table)
{
    const uint32_t cells = walked_cells(subject, table);
    if (table != 3) {
        measure_walk(name + "walk", session, subject, table, cells, 0);
    }
    measure_walk(name + "bulk walk", session, subject, table, cells, 50);
    if (is_asked_singly(table)) {
        measure_single(name + "GET", session, subject, table, SNMP_MSG_GET, 2000);
        measure_single(name + "GETNEXT", session, subject, table, SNMP_MSG_GETNEXT,
                       subject == BENCH_ITERATOR ? 500 : 2000);
    }
    if (table == 1) {
        measure_four(name + "4 managers walk", subject, table, cells);
    }
}

static void measure_table(void* session, size_t table, int rounds)
{
    const uint32_t count = bench_block(&BENCH_TABLES[table], 0) / BENCH_COLUMNS;
    const std::string name = std::to_string(count) + " rows: ";
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "%sround %d of %d\n", name.c_str(), round + 1, rounds);
        measure_ratio(name + "walk, us/cell", BENCH_LIVE, walks(session, table, 0));
        measure_ratio(name + "bulk walk, us/cell", BENCH_LIVE, walks(session, table, 50));
        if (is_asked_singly(table)) {
            measure_ratio(name + "GET p50, us", BENCH_LIVE, gets(session, table));
        }
        if (table == 0) {
            measure_ratio(name + "walk, against the iterator", BENCH_ITERATOR,
                          walks(session, table, 0));
            measure_ratio(name + "bulk walk, against it", BENCH_ITERATOR,
                          walks(session, table, 50));
        }
        for (int subject = 1; subject <= SUBJECTS; subject++) {
            if (table != 3 || subject != BENCH_ITERATOR) { /* minutes a walk */
                measure_subject(name, session, subject, table);
            }
        }
    }
}

static void measure_columns(void* session, int rounds)
{
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "columns: round %d of %d\n", round + 1, rounds);
        for (const columns_t& what : COLUMNS) {
            const std::string name = std::string(what.name) + ", us/cell";
            const work_t work = column_walks(session, &what);
            measure_ratio(name, BENCH_LIVE, work);
            for (int subject = 1; subject <= SUBJECTS; subject++) {
                const double start = now_us();
                if (work(subject) != 0) {
                    miss(of_subject(name, subject) + "not complete");
                    return;
                }
                row(name)->samples[subject].push_back((now_us() - start) / TURN_CELLS);
            }
        }
    }
}

/*
 * The agent against another build of it that has the same cards, before anything else is asked of
 * either: what a process has lived through shows in its figures.
 */
static void measure_other(void* session, int rounds)
{
    const std::string suffix = ", against the other build";
    std::vector<int> cards;
    for (uint32_t slot = 1; slot <= LARGE_CARD_SLOTS; slot++) {
        cards.push_back(plug(session, BENCH_TPG, slot, "big", 1));
        plug(session, BENCH_OTHER, slot, "other", 1);
    }
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "other build: round %d of %d\n", round + 1, rounds);
        measure_ratio("960 rows: walk" + suffix, BENCH_OTHER, walks(session, 1, 0));
        measure_ratio("960 rows: bulk walk" + suffix, BENCH_OTHER, walks(session, 1, 50));
        measure_ratio("960 rows: GET" + suffix, BENCH_OTHER, gets(session, 1));
        for (const columns_t& what : COLUMNS) {
            measure_ratio(what.name + suffix, BENCH_OTHER, column_walks(session, &what));
        }
    }
    row("resident memory by then, MB")->samples[BENCH_TPG] = {resident_mb(pids[BENCH_TPG])};
    row("the other build's, MB")->samples[BENCH_TPG] = {resident_mb(pids[BENCH_OTHER])};
    kill(pids[BENCH_OTHER], SIGTERM);
    for (const int card : cards) {
        unplug(card);
    }
}

/* ---- the result ---- */

void miss(const std::string& what)
{
    fprintf(stderr, "%s\n", what.c_str());
    incomplete = true;
}

double now_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(now).count();
}

row_t* row(const std::string& name)
{
    auto it =
        std::find_if(rows.begin(), rows.end(), [&](const row_t& r) { return r.name == name; });
    return it != rows.end() ? &*it : &rows.emplace_back(row_t{name, {}, {}});
}

double percentile(samples_t samples, double part)
{
    std::sort(samples.begin(), samples.end());
    const auto rank = static_cast<size_t>(std::ceil(part * double(samples.size())));
    return samples.empty() ? 0 : samples[std::max<size_t>(rank, 1) - 1];
}

std::string cell_text(const samples_t& samples)
{
    char text[64] = "";
    if (!samples.empty()) {
        const double middle = percentile(samples, 0.5);
        const int digits = middle < 100 ? 1 : 0;
        snprintf(text, sizeof(text), "%.*f (%.*f-%.*f)", digits, middle, digits,
                 percentile(samples, 0), digits, percentile(samples, 1));
    }
    return text;
}

/* How many times as fast as the live limit: measured in turns, or else compared round by round. */
static std::string ratio_text(const row_t& row)
{
    samples_t ratios = row.ratios;
    const auto ours = row.samples.find(BENCH_TPG), other = row.samples.find(BENCH_LIVE);
    for (size_t i = 0; row.ratios.empty() && other != row.samples.end() &&
                       i < std::min(ours->second.size(), other->second.size());
         i++) {
        ratios.push_back(other->second[i] / ours->second[i]);
    }
    char text[64] = "";
    if (!ratios.empty()) {
        snprintf(text, sizeof(text), "%.2f (%.2f-%.2f)", percentile(ratios, 0.5),
                 percentile(ratios, 0.25), percentile(ratios, 0.75));
    }
    return text;
}

static void print_table()
{
    printf("| %-40s | %-19s | %-19s | %-19s | %-19s | %-19s | live limit/tpg (quartiles) |\n",
           "median (lowest-highest)", "tpg", "limit", "live limit", "iterator", "pass_persist");
    printf("|---|---|---|---|---|---|---|\n");
    for (row_t& r : rows) {
        if (r.samples[BENCH_TPG].empty() && r.ratios.empty()) {
            miss(r.name + ": no figure");
        }
        printf("| %-40s |", r.name.c_str());
        for (int subject = 1; subject <= SUBJECTS; subject++) {
            printf(" %-19s |", cell_text(r.samples[subject]).c_str());
        }
        printf(" %-26s |\n", ratio_text(r).c_str());
    }
}

static int helper_pid(int master)
{
    const std::string task = "/proc/" + std::to_string(master) + "/task/" + std::to_string(master);
    std::ifstream file(task + "/children");
    int pid = 0;
    file >> pid;
    return pid;
}

static void measure_all(void* session, int rounds)
{
    const int fewer = (rounds + 1) / 2;
    if (pids[BENCH_OTHER] != 0) {
        measure_other(session, rounds);
    }
    measure_registration(session, rounds);
    std::vector<int> cards;
    for (uint32_t slot = 1; slot <= SMALL_CARD_SLOTS; slot++) {
        cards.push_back(plug(session, BENCH_TPG, slot, "small", 0));
    }
    measure_table(session, 0, rounds);
    for (const int card : cards) {
        unplug(card);
    }
    cards.clear();
    for (uint32_t slot = 1; slot <= LARGE_CARD_SLOTS; slot++) {
        cards.push_back(plug(session, BENCH_TPG, slot, "big", 1));
    }
    measure_table(session, 1, rounds);
    measure_table(session, 2, fewer);
    measure_table(session, 3, fewer);
    measure_columns(session, rounds);
    measure_traps(session, cards, rounds);
    for (int subject = 1; subject <= SUBJECTS; subject++) {
        row("resident memory, MB")->samples[subject].push_back(resident_mb(pids[subject]));
    }
    measure_slow(session, cards, fewer);
    row("resident memory at the end, MB")->samples[BENCH_TPG] = {resident_mb(pids[BENCH_TPG])};
}

/*
 * Arguments: rounds, the process ids of tpg, limit, live limit and iterator, of the master, and of
 * another build of tpg if there is one. Ends as failed when a figure is missing.
 */
int main(int argc, char** argv)
{
    if (argc != 7 && argc != 8) {
        return EXIT_FAILURE;
    }
    const int rounds = atoi(argv[1]);
    quick = rounds == 1;
    for (int subject = 1; subject <= BENCH_ITERATOR; subject++) {
        pids[subject] = atoi(argv[subject + 1]);
    }
    pids[BENCH_OTHER] = argc == 8 ? atoi(argv[7]) : 0;
    init_snmp("bench_manager");
    void* session = open_session(5000000);
    walk(session, BENCH_PASS, 0, 1, 0); /* starts the helper */
    pids[BENCH_PASS] = helper_pid(atoi(argv[6]));
    measure_all(session, rounds);
    print_table();
    print_slow();
    return incomplete ? EXIT_FAILURE : EXIT_SUCCESS;
}
