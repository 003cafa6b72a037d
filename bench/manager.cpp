/*
 * Measures all subjects side by side, in interleaved rounds, and prints the
 * table: walks, single requests, four managers at once, traps, registration.
 */

#include "table.h"
#include "tpg_msg_i.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

using samples_t = std::vector<double>;

/* The result: one row a measure, one column a subject. */
struct row_t {
    std::string name;
    std::map<int, samples_t> samples;
    samples_t ratios; /* how many times as fast as the other subject, the live limit mostly */
};

static row_t* row(const std::string& name);
static double now_us();
static double percentile(samples_t samples, double part);
static void print_table();

constexpr int SUBJECTS = BENCH_PASS;
constexpr uint32_t LARGE_CARD_SLOTS = 15, SMALL_CARD_SLOTS = 3;
constexpr double STEP_LIMIT_US = 30e6;
static std::vector<row_t> rows;
static int pids[SUBJECTS + 1];

/* ---- SNMP ---- */

static netsnmp_session* open_session(long timeout_us)
{
    static char peer[] = "udp:127.0.0.1:1161", community[] = "public";
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = peer;
    session.community = reinterpret_cast<u_char*>(community);
    session.community_len = strlen(community);
    session.timeout = timeout_us;
    session.retries = 0;
    return static_cast<netsnmp_session*>(snmp_sess_open(&session));
}

/* The answer to a request for one name, to be freed; null on a time-out or an error status. */
static netsnmp_pdu* ask(void* session, int type, const oid* name, size_t len, long repetitions = 0)
{
    netsnmp_pdu* request = snmp_pdu_create(type);
    request->non_repeaters = 0;
    request->max_repetitions = repetitions;
    snmp_add_null_var(request, name, len);
    netsnmp_pdu* answer = nullptr;
    snmp_sess_synch_response(session, request, &answer);
    if (answer != nullptr && answer->errstat == 0 && answer->variables != nullptr) {
        return answer;
    }
    snmp_free_pdu(answer);
    return nullptr;
}

static bool is_cell(const netsnmp_variable_list* var, int subject, size_t table, uint32_t cell)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(subject, table, cell, name);
    const bench_var_t what = bench_var(&BENCH_TABLES[table], cell);
    return var->type == ASN_INTEGER && *var->val.integer == bench_value(what.var_id, what.index) &&
           snmp_oid_compare(var->name, var->name_length, name, len) == 0;
}

/* Walks the first cells of a table, each one checked; 0, or -1 when not all of them came in time.
 */
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

/* ---- tables ---- */

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
            fprintf(stderr, "%s, subject %d: not complete\n", name.c_str(), subject);
            row(name + ", us/cell")->samples[subject] = {};
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
static void measure_ratio(const std::string& name, void* session, int other, size_t table,
                          uint32_t repetitions)
{
    constexpr int PAIRS = 10;
    constexpr uint32_t CELLS = 360;
    const uint32_t cells = std::min(CELLS, bench_block(&BENCH_TABLES[table], 0));
    for (int i = 0; i < 2 * PAIRS; i++) {
        double spent[SUBJECTS + 1] = {};
        for (const int subject : {other, int{BENCH_TPG}, int{BENCH_TPG}, other}) {
            const double start = now_us();
            for (uint32_t done = 0; done < CELLS; done += cells) {
                if (walk(session, subject, table, cells, repetitions) != 0) {
                    return;
                }
            }
            spent[subject] += now_us() - start;
        }
        row(name)->ratios.push_back(spent[other] / spent[BENCH_TPG]);
    }
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
            fprintf(stderr, "%s, subject %d: wrong answer\n", name.c_str(), subject);
            snmp_free_pdu(answer);
            return;
        }
        snmp_free_pdu(answer);
    }
    row(name + " p50, us")->samples[subject].push_back(percentile(times_us, 0.5));
    row(name + " p99, us")->samples[subject].push_back(percentile(times_us, 0.99));
}

/* Four processes walk one table at once. */
static void measure_four(const std::string& name, int subject, size_t table)
{
    constexpr int MANAGERS = 4;
    const uint32_t cells = bench_block(&BENCH_TABLES[table], 0);
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
        fprintf(stderr, "%s, subject %d: %d walks not complete\n", name.c_str(), subject, failed);
        return;
    }
    row(name + ", us/cell")->samples[subject].push_back((now_us() - start) / MANAGERS / cells);
}

static void measure_table(void* session, size_t table, int rounds)
{
    const uint32_t cells = bench_block(&BENCH_TABLES[table], 0);
    const uint32_t count = cells / BENCH_COLUMNS;
    const std::string name = std::to_string(count) + " rows: ";
    const bool large = table == 3;
    for (int round = 0; round < rounds; round++) {
        fprintf(stderr, "%sround %d of %d\n", name.c_str(), round + 1, rounds);
        measure_ratio(name + "walk, us/cell", session, BENCH_LIVE, table, 0);
        measure_ratio(name + "bulk walk, us/cell", session, BENCH_LIVE, table, 50);
        if (table == 0) {
            measure_ratio(name + "walk, against the iterator", session, BENCH_ITERATOR, table, 0);
            measure_ratio(name + "bulk walk, against it", session, BENCH_ITERATOR, table, 50);
        }
        for (int subject = 1; subject <= SUBJECTS; subject++) {
            if (large && subject == BENCH_ITERATOR) {
                continue; /* minutes a walk */
            }
            const bool part = large || (table == 2 && subject == BENCH_ITERATOR);
            if (!large) {
                measure_walk(name + "walk", session, subject, table, part ? count : cells, 0);
            }
            measure_walk(name + "bulk walk", session, subject, table, part ? count : cells, 50);
            if (table == 1 || large) {
                measure_single(name + "GET", session, subject, table, SNMP_MSG_GET, 2000);
                measure_single(name + "GETNEXT", session, subject, table, SNMP_MSG_GETNEXT,
                               subject == BENCH_ITERATOR ? 500 : 2000);
            }
            if (table == 1) {
                measure_four(name + "4 managers walk", subject, table);
            }
        }
    }
}

/* ---- cards ---- */

template <typename message_t> static void seal(message_t* message, uint16_t type, size_t length)
{
    message->head = {type, static_cast<uint16_t>(length), 0, 0, static_cast<uint32_t>(getpid())};
    message->head.usReserved = com_msg_parity(&message->head, TPG_PARITY_KEY);
}

/* Sends an update over a connection and takes its acknowledgement. */
static void send_update(int fd, uint16_t type, uint32_t slot, const char* product)
{
    tpg_msg_libmib_update_t message = {};
    tpg_libmib_update_t* card = &message.libmib_update;
    seal(&message, type, sizeof(message));
    snprintf(card->prod_string, sizeof(card->prod_string), "%s", product);
    snprintf(card->prod_family, sizeof(card->prod_family), "%s", product);
    card->major_rev = 1;
    card->slot_no = static_cast<uint8_t>(slot);
    snprintf(card->libmib_path, sizeof(card->libmib_path), "/tmp/libbench-card-%s.so", product);
    tpg_msg_libmib_update_ack_t ack = {};
    send(fd, &message, sizeof(message), MSG_NOSIGNAL);
    recv(fd, &ack, sizeof(ack), MSG_WAITALL);
}

static int connect_card()
{
    sockaddr_un addr = {AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", TPG_SVR_PATH);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    (void)connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    return fd;
}

/*
 * Registers a card and waits until its first cell is answered. The agent acknowledges a message
 * before it acts on it; so the acknowledgement of another one, that does nothing, is awaited too.
 */
static int plug(void* session, uint32_t slot, const char* product, size_t table)
{
    static const int idle = connect_card();
    const int card = connect_card();
    send_update(card, TPG_MSG_LIBMIB_REGISTER, slot, product);
    send_update(idle, TPG_MSG_LIBMIB_UNREGISTER, UINT8_MAX, "none");
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(BENCH_TPG, table, slot - 1, name);
    netsnmp_pdu* answer = ask(session, SNMP_MSG_GET, name, len);
    if (answer == nullptr || !is_cell(answer->variables, BENCH_TPG, table, slot - 1)) {
        fprintf(stderr, "bench-manager: no answer of the card in slot %u\n", slot);
        exit(EXIT_FAILURE);
    }
    snmp_free_pdu(answer);
    return card;
}

/* The agent closes a connection when it has withdrawn what came over it. */
static void unplug(int card)
{
    char byte = 0;
    shutdown(card, SHUT_WR);
    recv(card, &byte, sizeof(byte), 0);
    close(card);
}

/* A manager that watches the chassis: TCP delays acknowledgements on a connection in use. */
static void keep_busy(void* session)
{
    constexpr oid LED[] = {1, 3, 6, 1, 4, 1, 32473, 10, 232, 4, 7, 1, 1, 1};
    for (int i = 0; i < 20; i++) {
        snmp_free_pdu(ask(session, SNMP_MSG_GET, LED, std::size(LED)));
    }
}

/* Beside it, the tools by themselves that find the document in the card's library. */
static void measure_registration(void* session, int rounds)
{
    static constexpr char SYMBOL[] =
        "objdump -t /tmp/libbench-card-small.so | grep jsonmib_small | "
        "sed -e 's/l//' -e 's/O//' -e 's/.data//' > /tmp/symbol";
    static constexpr char DATA[] =
        "objdump -s -j .data --start-address=0x4008 /tmp/libbench-card-small.so > /tmp/data";
    static constexpr char HEAD[] = "objdump -h /tmp/libbench-card-small.so > /tmp/head";
    constexpr int TOMBSTONE_MS = 2500;
    for (int round = 0; round < 2 * rounds; round++) {
        keep_busy(session);
        double start = now_us();
        const int card = plug(session, 1, "small", 0);
        row("register to answer, ms")->samples[BENCH_TPG].push_back((now_us() - start) / 1000);
        unplug(card);
        poll(nullptr, 0, TOMBSTONE_MS); /* the next one is to be registered with the master, too */
        start = now_us();
        for (const char* tool : {SYMBOL, DATA, HEAD}) {
            if (system(tool) != 0) {
                fprintf(stderr, "failed: %s\n", tool);
            }
        }
        row("its external commands alone, ms")
            ->samples[BENCH_TPG]
            .push_back((now_us() - start) / 1000);
    }
}

/* ---- traps ---- */

static void notify(int card, uint32_t slot)
{
    static uint32_t count;
    tpg_msg_trap_notify_t message = {};
    message.trap_notify.data_len = 4;
    const size_t length = TPG_TRAP_HEAD_LEN + message.trap_notify.data_len;
    seal(&message, TPG_MSG_TRAP_NOTIFY, length);
    message.trap_notify.var_id = 200;
    message.trap_notify.index = count++ % 64;
    message.trap_notify.slot_no = static_cast<uint8_t>(slot);
    send(card, &message, length, MSG_NOSIGNAL);
}

static bool trap_came(int sink)
{
    char bytes[1500];
    pollfd wanted = {sink, POLLIN, 0};
    return poll(&wanted, 1, 2000) == 1 && recv(sink, bytes, sizeof(bytes), 0) > 0;
}

/* Notifies with some traps still to come, the cards in turn; returns how many got lost. */
static int measure_burst(const std::string& name, int sink, const std::vector<int>& cards, int many)
{
    constexpr int WINDOW = 30;
    const double start = now_us();
    int sent = 0, came = 0, lost = 0;
    while (came < many && lost < 10) {
        for (; sent < many && sent < came + WINDOW; sent++) {
            const auto card = static_cast<uint32_t>(sent) % static_cast<uint32_t>(cards.size());
            notify(cards[card], card + 1);
        }
        (trap_came(sink) ? came : lost)++;
    }
    row(name)->samples[BENCH_TPG].push_back(came / (now_us() - start) * 1e6);
    return lost;
}

/* What a manager does that got a trap: it asks. */
static void measure_get_behind_trap(void* session, int sink, int card)
{
    oid name[BENCH_OID_MAX];
    const size_t len = bench_cell_oid(BENCH_TPG, 1, 0, name);
    samples_t times;
    for (int i = 0; i < 20; i++) {
        notify(card, 5);
        (void)trap_came(sink);
        const double start = now_us();
        snmp_free_pdu(ask(session, SNMP_MSG_GET, name, len));
        times.push_back(now_us() - start);
    }
    row("GET behind a trap p50, us")->samples[BENCH_TPG].push_back(percentile(times, 0.5));
}

static void measure_traps(void* session, const std::vector<int>& cards, int rounds)
{
    constexpr int SINGLE = 300;
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(1162);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int sink = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    (void)bind(sink, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    for (int round = 0; round < rounds; round++) {
        samples_t times;
        int lost = 0;
        for (int i = 0; i < SINGLE && lost < 10; i++) {
            const double start = now_us();
            notify(cards[4], 5);
            lost += trap_came(sink) ? 0 : 1;
            times.push_back(now_us() - start);
        }
        row("notify to trap p50, us")->samples[BENCH_TPG].push_back(percentile(times, 0.5));
        row("notify to trap p99, us")->samples[BENCH_TPG].push_back(percentile(times, 0.99));
        measure_get_behind_trap(session, sink, cards[4]);
        lost += measure_burst("traps per second, 15 cards", sink, cards, 2000);
        lost += measure_burst("traps per second, 1 card", sink, {cards[0]}, 300);
        if (lost != 0) {
            fprintf(stderr, "%d traps lost\n", lost);
        }
    }
    close(sink);
}

/* ---- the result ---- */

static double now_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(now).count();
}

static row_t* row(const std::string& name)
{
    auto it =
        std::find_if(rows.begin(), rows.end(), [&](const row_t& r) { return r.name == name; });
    return it != rows.end() ? &*it : &rows.emplace_back(row_t{name, {}, {}});
}

static double percentile(samples_t samples, double part)
{
    std::sort(samples.begin(), samples.end());
    return samples.empty() ? 0 : samples[static_cast<size_t>(part * double(samples.size() - 1))];
}

static std::string cell_text(const samples_t& samples)
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

/* Arguments: rounds, the process ids of tpg, limit, live limit and iterator, and of the master. */
int main(int argc, char** argv)
{
    if (argc != 7) {
        return EXIT_FAILURE;
    }
    const int rounds = atoi(argv[1]);
    for (int subject = 1; subject <= BENCH_ITERATOR; subject++) {
        pids[subject] = atoi(argv[subject + 1]);
    }
    init_snmp("bench_manager");
    void* session = open_session(5000000);
    walk(session, BENCH_PASS, 0, 1, 0); /* starts the helper */
    pids[BENCH_PASS] = helper_pid(atoi(argv[6]));

    measure_registration(session, rounds);
    std::vector<int> cards;
    for (uint32_t slot = 1; slot <= SMALL_CARD_SLOTS; slot++) {
        cards.push_back(plug(session, slot, "small", 0));
    }
    measure_table(session, 0, rounds);
    for (const int card : cards) {
        unplug(card);
    }
    cards.clear();
    for (uint32_t slot = 1; slot <= LARGE_CARD_SLOTS; slot++) {
        cards.push_back(plug(session, slot, "big", 1));
    }
    measure_table(session, 1, rounds);
    measure_table(session, 2, (rounds + 1) / 2);
    measure_table(session, 3, (rounds + 1) / 2);
    measure_traps(session, cards, rounds);
    for (int subject = 1; subject <= SUBJECTS; subject++) {
        row("resident memory, MB")->samples[subject].push_back(resident_mb(pids[subject]));
    }
    print_table();
    return EXIT_SUCCESS;
}
