/* Cards: registering them, and the traps behind their notifies. */

#include "manager.h"
#include "tpg_msg_i.h"

#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

constexpr int TRAP_LIMIT_MS = 2000;

/* ---- registering ---- */

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

/* The other build has a /tmp of its own, a folder in this one. */
static int connect_card(int subject)
{
    sockaddr_un addr = {AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s%s",
             subject == BENCH_OTHER ? "/tmp/other" : "/tmp", TPG_SVR_PATH + strlen("/tmp"));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    (void)connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    return fd;
}

/*
 * The agent acknowledges a message before it acts on it; so the acknowledgement of another one,
 * that does nothing, is awaited too.
 */
int plug(void* session, int subject, uint32_t slot, const char* product, size_t table)
{
    static int idle[BENCH_OTHER + 1];
    if (idle[subject] == 0) {
        idle[subject] = connect_card(subject);
    }
    const int card = connect_card(subject);
    send_update(card, TPG_MSG_LIBMIB_REGISTER, slot, product);
    send_update(idle[subject], TPG_MSG_LIBMIB_UNREGISTER, UINT8_MAX, "none");
    if (!get_cell(session, subject, table, slot - 1)) {
        fprintf(stderr, "bench-manager: no answer of the card in slot %u\n", slot);
        exit(EXIT_FAILURE);
    }
    return card;
}

/* The agent closes a connection when it has withdrawn what came over it. */
void unplug(int card)
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
void measure_registration(void* session, int rounds)
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
        const int card = plug(session, BENCH_TPG, 1, "small", 0);
        row("register to answer, ms")->samples[BENCH_TPG].push_back((now_us() - start) / 1000);
        unplug(card);
        poll(nullptr, 0, TOMBSTONE_MS); /* the next one is to be registered with the master, too */
        start = now_us();
        for (const char* tool : {SYMBOL, DATA, HEAD}) {
            if (system(tool) != 0) {
                miss(std::string("failed: ") + tool);
            }
        }
        row("its external commands alone, ms")
            ->samples[BENCH_TPG]
            .push_back((now_us() - start) / 1000);
    }
}

/* ---- traps ---- */

void notify(int card, uint32_t slot)
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

int open_sink()
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(1162);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int sink = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    (void)bind(sink, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    return sink;
}

bool trap_came(int sink, int limit_ms)
{
    char bytes[1500];
    pollfd wanted = {sink, POLLIN, 0};
    return poll(&wanted, 1, limit_ms) == 1 && recv(sink, bytes, sizeof(bytes), 0) > 0;
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
        (trap_came(sink, TRAP_LIMIT_MS) ? came : lost)++;
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
        (void)trap_came(sink, TRAP_LIMIT_MS);
        const double start = now_us();
        snmp_free_pdu(ask(session, SNMP_MSG_GET, name, len));
        times.push_back(now_us() - start);
    }
    row("GET behind a trap p50, us")->samples[BENCH_TPG].push_back(percentile(times, 0.5));
}

void measure_traps(void* session, const std::vector<int>& cards, int rounds)
{
    constexpr int SINGLE = 300;
    const int sink = open_sink();
    for (int round = 0; round < rounds; round++) {
        samples_t times;
        int lost = 0;
        for (int i = 0; i < SINGLE && lost < 10; i++) {
            const double start = now_us();
            notify(cards[4], 5);
            lost += trap_came(sink, TRAP_LIMIT_MS) ? 0 : 1;
            times.push_back(now_us() - start);
        }
        row("notify to trap p50, us")->samples[BENCH_TPG].push_back(percentile(times, 0.5));
        row("notify to trap p99, us")->samples[BENCH_TPG].push_back(percentile(times, 0.99));
        measure_get_behind_trap(session, sink, cards[4]);
        lost += measure_burst("traps per second, 15 cards", sink, cards, 2000);
        lost += measure_burst("traps per second, 1 card", sink, {cards[0]}, 300);
        if (lost != 0) {
            miss(std::to_string(lost) + " traps lost");
        }
    }
    close(sink);
}
