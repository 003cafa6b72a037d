/* Card clients' byte streams: through the reader and the dispatcher into the registry. */

#include "fuzz.h"

#include "tpg_main_server.h"
#include "tpg_msg_i.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <event2/event.h>
#include <iterator>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

static void act(tpg_context_t*, fuzz_input_t*);
static void pump(tpg_context_t*);
static bool connected(tpg_context_t*, uint32_t);
static void hang_up(uint32_t, bool);
static void send_message(uint32_t, uint16_t, std::string_view, size_t);
static tpg_libmib_update_t read_card(tpg_context_t*, fuzz_input_t*);
static void send_notify(uint32_t, fuzz_input_t*);

/* What one step of an input does. */
enum kind : uint32_t { RAW, FRAMED, REGISTER, UNREGISTER, NOTIFY, HANG_UP, REQUESTS, KINDS };

constexpr uint32_t CLIENTS = 3;
constexpr uint32_t SWITCH_SLOTS = 3; /* slots that have a folder for their switches */

/* Each card's library is a place beside one of these documents. */
static constexpr const char* DOCUMENTS[] = {"card", "newer", "nested", "halfway"};
static constexpr const char* FAMILIES[] = {"alpha", "beta", "card", ""};

static int peers[CLIENTS]; /* the clients' ends; 0 for none */
static int requests_left;  /* they take by far the longest */

/* Once: documents, one of them beside a library. */
static void prepare()
{
    for (const char* name : DOCUMENTS) {
        const std::string file = std::string(name) + ".json";
        fuzz_write_file(("/tmp/" + file).c_str(), fuzz_seed(("document/" + file).c_str()));
    }
    fuzz_write_file("/tmp/card", "library");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int STEPS_MAX = 24;
    requests_left = 2;
    static const bool prepared = (prepare(), true);
    (void)prepared;
    for (const char* family : FAMILIES) {
        for (uint32_t slot = 1; slot <= SWITCH_SLOTS; slot++) {
            fuzz_clear_switches(family, slot);
        }
    }
    fuzz_input_t in = {data, size};
    tpg_context_t* ctx = fuzz_begin(&in);
    for (int i = 0; i < STEPS_MAX && in.size > 0; i++) {
        act(ctx, &in);
        pump(ctx);
    }
    for (uint32_t client = 0; client < CLIENTS; client++) {
        hang_up(client, true);
    }
    pump(ctx);
    fuzz_end(ctx);
    return 0;
}

static void act(tpg_context_t* ctx, fuzz_input_t* in)
{
    const uint32_t choice = fuzz_number(in, 1);
    const uint32_t client = choice / KINDS % CLIENTS;
    if (!connected(ctx, client)) {
        return;
    }
    switch (choice % KINDS) {
    case RAW: {
        const std::string_view bytes = fuzz_bytes(in, fuzz_number(in, 1));
        send(peers[client], bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        break;
    }
    case FRAMED: {
        const uint32_t type = fuzz_number(in, 1);
        const uint32_t missing = fuzz_number(in, 1);
        const std::string_view bytes = fuzz_bytes(in, fuzz_number(in, 2) % TPG_MSG_MAX);
        send_message(client, type % 5, bytes, missing < 16 ? missing : 0);
        break;
    }
    case REGISTER:
    case UNREGISTER: {
        const tpg_libmib_update_t card = read_card(ctx, in);
        send_message(client,
                     choice % KINDS == REGISTER ? TPG_MSG_LIBMIB_REGISTER
                                                : TPG_MSG_LIBMIB_UNREGISTER,
                     {reinterpret_cast<const char*>(&card), sizeof(card)}, 0);
        break;
    }
    case NOTIFY:
        send_notify(client, in);
        break;
    case HANG_UP:
        hang_up(client, fuzz_number(in, 1) % 2 == 0);
        break;
    default:
        if (requests_left-- > 0) {
            fuzz_use_tables(ctx);
        }
        break;
    }
}

/* ---- connections ---- */

/* Serves what has arrived; a client's pause between messages is not waited for. */
static void pump(tpg_context_t* ctx)
{
    constexpr int ROUNDS_MAX = 32;
    bool again = true;
    for (int round = 0; again && round < ROUNDS_MAX; round++) {
        event_base_loop(ctx->levent_base, EVLOOP_NONBLOCK);
        again = false;
        for (list_head* node = ctx->ipc_clnt_list.next; node != &ctx->ipc_clnt_list;
             node = node->next) {
            tpg_ipc_clnt_t* client = list_entry(node, tpg_ipc_clnt_t, node);
            if (event_pending(client->rdcb_timer, EV_TIMEOUT, nullptr) != 0) {
                event_del(client->rdcb_timer);
                tpg_readcb_timeout_cb(-1, EV_TIMEOUT, client);
                again = true;
            }
        }
    }
}

static bool connected(tpg_context_t* ctx, uint32_t client)
{
    if (peers[client] != 0) {
        return true;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    tpg_svr_accept_cb(nullptr, ends[0], nullptr, 0, ctx);
    peers[client] = ends[1];
    return true;
}

/* A client that leaves acknowledgements unread breaks its connection, another one ends it. */
static void hang_up(uint32_t client, bool read_first)
{
    char waste[4096];
    if (peers[client] == 0) {
        return;
    }
    while (read_first && recv(peers[client], waste, sizeof(waste), MSG_DONTWAIT) > 0) {
    }
    close(peers[client]);
    peers[client] = 0;
}

/* ---- messages ---- */

/* The last missing bytes are announced and never sent. */
static void send_message(uint32_t client, uint16_t type, std::string_view payload, size_t missing)
{
    com_msg_head_t head = {};
    head.usMsgType = type;
    head.usMsgLen = static_cast<uint16_t>(sizeof(head) + payload.size() + missing);
    head.ulPid = 4711 + client;
    head.usReserved = com_msg_parity(&head, TPG_PARITY_KEY);
    std::string message(reinterpret_cast<const char*>(&head), sizeof(head));
    message += payload;
    send(peers[client], message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

/* Slot, version, document and family; or to the byte what is registered in the slot. */
static tpg_libmib_update_t read_card(tpg_context_t* ctx, fuzz_input_t* in)
{
    const uint32_t place = fuzz_number(in, 1);
    const uint32_t what = fuzz_number(in, 1);
    const uint32_t slot = place % (TPG_SLOT_MAX + 2);
    if (place >= 128 && slot >= 1 && slot <= TPG_SLOT_MAX) {
        return ctx->jsonmib_reg_info[slot - 1].libmib_reginfo;
    }
    const char* document = DOCUMENTS[what % 4];
    tpg_libmib_update_t card =
        fuzz_card(slot, FAMILIES[what / 4 % 4], (std::string("/tmp/") + document).c_str());
    snprintf(card.prod_string, sizeof(card.prod_string), "%s", document);
    card.major_rev = static_cast<uint8_t>(what / 16 % 4);
    card.build_number = what / 64;
    return card;
}

static void send_notify(uint32_t client, fuzz_input_t* in)
{
    static constexpr uint32_t VARIABLES[] = {200, 201, 202, 300};
    tpg_trap_notify_t notify = {};
    notify.slot_no = static_cast<uint8_t>(fuzz_number(in, 1) % (TPG_SLOT_MAX + 2));
    notify.var_id = VARIABLES[fuzz_number(in, 1) % std::size(VARIABLES)];
    notify.index = fuzz_number(in, 4);
    const std::string_view bytes = fuzz_bytes(in, fuzz_number(in, 1));
    notify.data_len = static_cast<uint16_t>(bytes.size());
    bytes.copy(reinterpret_cast<char*>(notify.data), bytes.size());
    constexpr size_t HEAD = TPG_TRAP_HEAD_LEN - sizeof(com_msg_head_t);
    send_message(client, TPG_MSG_TRAP_NOTIFY,
                 {reinterpret_cast<const char*>(&notify), HEAD + bytes.size()}, 0);
}
