/* Card clients' byte streams: through the reader and the dispatcher into the registry. */

#include "fuzz.h"

#include "tpg_main_server.h"

#include <event2/event.h>

/* What one step of an input does. */
enum kind : uint32_t { RAW, FRAMED, REGISTER, UNREGISTER, NOTIFY, HANG_UP, REQUESTS, KINDS };

constexpr uint32_t CLIENTS = 3;

/* Each card's library is a place beside one of these documents. */
static constexpr const char* DOCUMENTS[] = {"card", "newer", "nested", "halfway"};
static constexpr const char* FAMILIES[] = {"alpha", "beta", "card", ""};

static int peers[CLIENTS]; /* the clients' ends; 0 for none */

/* Documents, one of them beside a library. */
static bool prepare()
{
    for (const std::string name : DOCUMENTS) {
        write_file("/tmp/" + name + ".json", fuzz_seed("document/" + name + ".json"));
    }
    write_file("/tmp/card", "library");
    return true;
}

/* Serves what has arrived; a client's pause between messages is not waited for. */
static void pump(tpg_context_t* ctx)
{
    constexpr int ROUNDS_MAX = 32;
    bool again = true;
    for (int round = 0; again && round < ROUNDS_MAX; round++) {
        fuzz_turn(ctx, EVLOOP_NONBLOCK);
        again = false;
        list_head* next = nullptr; /* serving a client may end it */
        for (list_head* node = ctx->ipc_clnt_list.next; node != &ctx->ipc_clnt_list; node = next) {
            next = node->next;
            tpg_ipc_clnt_t* client = list_entry(node, tpg_ipc_clnt_t, node);
            if (event_pending(client->rdcb_timer, EV_TIMEOUT, nullptr) != 0) {
                event_del(client->rdcb_timer);
                tpg_readcb_timeout_cb(-1, EV_TIMEOUT, client);
                again = true;
            }
        }
    }
}

/* A client that leaves acknowledgements unread breaks its connection, another one ends it. */
static void hang_up(int* peer, bool read_first)
{
    char waste[4096];
    while (read_first && recv(*peer, waste, sizeof(waste), MSG_DONTWAIT) > 0) {
    }
    if (*peer != 0) {
        close(*peer);
    }
    *peer = 0;
}

/* Slot, version, document and family; or to the byte what is registered in the slot. */
static std::string update(tpg_context_t* ctx, tpg_msg_type type, std::string_view* in)
{
    const uint32_t place = fuzz_number(in);
    const uint32_t what = fuzz_number(in);
    const uint32_t slot = place % (TPG_SLOT_MAX + 2);
    const std::string document = DOCUMENTS[what % 4];
    auto msg = client_update(type, static_cast<int>(slot), document, FAMILIES[what / 4 % 4], 0,
                             "/tmp/" + document);
    msg.libmib_update.major_rev = static_cast<uint8_t>(what / 16 % 4);
    msg.libmib_update.build_number = what / 64;
    if (place >= 128 && slot >= 1 && slot <= TPG_SLOT_MAX) {
        msg.libmib_update = ctx->jsonmib_reg_info[slot - 1].libmib_reginfo;
    }
    return bytes_of(msg);
}

/* The bytes that one step sends. */
static std::string message(tpg_context_t* ctx, uint32_t kind, std::string_view* in)
{
    static constexpr uint32_t VARIABLES[] = {200, 201, 202, 300};
    if (kind == RAW) {
        return std::string(fuzz_bytes(in, fuzz_number(in)));
    }
    if (kind == FRAMED) { /* the last missing bytes are announced and never sent */
        const auto type = static_cast<uint16_t>(fuzz_number(in) % 5);
        const uint32_t missing = fuzz_number(in);
        const std::string_view bytes = fuzz_bytes(in, fuzz_number(in, 2) % TPG_MSG_MAX);
        const size_t length = sizeof(com_msg_head_t) + bytes.size() + (missing < 16 ? missing : 0);
        return bytes_of(client_head(type, length)).append(bytes);
    }
    if (kind == NOTIFY) {
        const uint32_t slot = fuzz_number(in) % (TPG_SLOT_MAX + 2);
        const uint32_t var = VARIABLES[fuzz_number(in) % std::size(VARIABLES)];
        const uint32_t index = fuzz_number(in, 4);
        return notify(static_cast<int>(slot), var, index, fuzz_bytes(in, fuzz_number(in)));
    }
    return update(ctx, kind == REGISTER ? TPG_MSG_LIBMIB_REGISTER : TPG_MSG_LIBMIB_UNREGISTER, in);
}

static void act(tpg_context_t* ctx, std::string_view* in, int* requests_left)
{
    const uint32_t choice = fuzz_number(in);
    int* peer = &peers[choice / KINDS % CLIENTS];
    int ends[2] = {};
    if (*peer == 0) {
        FUZZ_REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
        tpg_svr_accept_cb(nullptr, ends[0], nullptr, 0, ctx);
        *peer = ends[1];
    }
    if (choice % KINDS == HANG_UP) {
        hang_up(peer, fuzz_number(in) % 2 == 0);
    } else if (choice % KINDS != REQUESTS) {
        const std::string bytes = message(ctx, choice % KINDS, in);
        send(*peer, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if ((*requests_left)-- > 0) {
        fuzz_use_tables(ctx);
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    constexpr int STEPS_MAX = 24;
    int requests_left = 2; /* they take by far the longest */
    static const bool prepared = prepare();
    FUZZ_REQUIRE(prepared);
    for (const std::string family : FAMILIES) {
        for (const char* slot : {"_slot01", "_slot02", "_slot03"}) { /* others keep no switches */
            clear_folder("/mnt/flash0/cards/" + family + slot);
        }
    }
    for (int i = 0; i < STEPS_MAX && !in.empty(); i++) {
        act(ctx, &in, &requests_left);
        pump(ctx);
    }
    for (int& peer : peers) {
        hang_up(&peer, true);
    }
    pump(ctx);
}
