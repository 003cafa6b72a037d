#include "chassis_client.h"

#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static void client_connect(chassis_slot_t* slot);
static int client_socket();
static void client_lost(chassis_slot_t* slot);
static void client_retry_cb(int fd, short what, void* arg);
static void client_event_cb(bufferevent* bev, short what, void* arg);
static void client_read_cb(bufferevent* bev, void* arg);
static void client_send_update(chassis_slot_t* slot, uint16_t type);
static int client_send(chassis_slot_t* slot, const void* msg, size_t length);
static com_msg_head_t client_head(uint16_t type, size_t length);
static void client_located(chassis_slot_t* slot);
static void client_settle(const chassis_slot_t* slot);

constexpr timeval RETRY_INTERVAL = {0, 200000};

void chassis_client_plug(chassis_slot_t* slot)
{
    chassis_client_t* client = &slot->client;
    client->registered = slot->card;
    if (client->link == chassis_link::off) {
        client->insertions++;
        client_connect(slot);
    } else if (client->link == chassis_link::connected && slot->card) {
        client_send_update(slot, TPG_MSG_LIBMIB_REGISTER);
    }
    client_located(slot);
}

void chassis_client_unplug(chassis_slot_t* slot)
{
    chassis_client_t* client = &slot->client;
    if (client->link == chassis_link::off) {
        return;
    }
    client->link = chassis_link::off;
    client->registered = false;
    client->acks_due = 0;
    client->removals++;
    client->bev.reset();
    client->retry.reset();
    client_located(slot);
    client_settle(slot);
}

int chassis_client_unregister(chassis_slot_t* slot)
{
    if (slot->client.link != chassis_link::connected) {
        return -1;
    }
    slot->client.registered = false;
    client_send_update(slot, TPG_MSG_LIBMIB_UNREGISTER);
    return 0;
}

int chassis_client_fault(chassis_slot_t* slot, uint32_t var, uint32_t index, std::string_view data)
{
    if (slot->client.link != chassis_link::connected) {
        return -1;
    }
    tpg_msg_trap_notify_t msg = {};
    const size_t length =
        data.copy(reinterpret_cast<char*>(msg.trap_notify.data), sizeof(msg.trap_notify.data));
    msg.head = client_head(TPG_MSG_TRAP_NOTIFY, TPG_TRAP_HEAD_LEN + length);
    msg.trap_notify.var_id = var;
    msg.trap_notify.index = index;
    msg.trap_notify.slot_no = static_cast<uint8_t>(slot->slot_no);
    msg.trap_notify.data_len = static_cast<uint16_t>(length);
    return client_send(slot, &msg, TPG_TRAP_HEAD_LEN + length);
}

bool chassis_client_settled(const chassis_slot_t* slot)
{
    return slot->client.link != chassis_link::connected || slot->client.acks_due == 0;
}

const char* chassis_client_state(const chassis_slot_t* slot)
{
    const chassis_client_t* client = &slot->client;
    if (client->link == chassis_link::off) {
        return "unplugged";
    }
    if (client->link == chassis_link::waiting) {
        return "agent-absent";
    }
    if (client->acks_due != 0) {
        return "unacknowledged";
    }
    if (!client->registered) {
        return "connected";
    }
    /* The acknowledgement says that the message has come, not what became of it. */
    return client->taken ? "registered" : "sent";
}

static void client_connect(chassis_slot_t* slot)
{
    chassis_client_t* client = &slot->client;
    const int fd = client_socket();
    if (fd < 0) {
        client_lost(slot);
        return;
    }
    client->bev.reset(bufferevent_socket_new(slot->chassis->base.get(), fd, BEV_OPT_CLOSE_ON_FREE));
    if (!client->bev) {
        close(fd);
        client_lost(slot);
        return;
    }
    bufferevent_setcb(client->bev.get(), client_read_cb, nullptr, client_event_cb, slot);
    bufferevent_enable(client->bev.get(), EV_READ | EV_WRITE);
    client->link = chassis_link::connected;
    if (client->registered) {
        client_send_update(slot, TPG_MSG_LIBMIB_REGISTER);
    }
}

/* A socket connected to the agent, or -1; an agent with a full backlog counts as absent. */
static int client_socket()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string_view(TPG_SVR_PATH).copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* There is no agent, or no longer: another try a little later. */
static void client_lost(chassis_slot_t* slot)
{
    chassis_client_t* client = &slot->client;
    client->bev.reset();
    client->acks_due = 0;
    client->link = chassis_link::waiting;
    if (!client->retry) {
        client->retry.reset(evtimer_new(slot->chassis->base.get(), client_retry_cb, slot));
    }
    if (!client->retry || evtimer_add(client->retry.get(), &RETRY_INTERVAL) != 0) {
        fprintf(stderr, "tpg-chassis: slot %u: no timer, the client gives up\n", slot->slot_no);
    }
    client_settle(slot);
}

static void client_retry_cb(int fd, short what, void* arg)
{
    (void)fd;
    (void)what;
    client_connect(static_cast<chassis_slot_t*>(arg));
}

static void client_event_cb(bufferevent* bev, short what, void* arg)
{
    (void)bev;
    (void)what;
    client_lost(static_cast<chassis_slot_t*>(arg));
}

/* Takes acknowledgements; nothing else ever comes from the agent. */
static void client_read_cb(bufferevent* bev, void* arg)
{
    auto* slot = static_cast<chassis_slot_t*>(arg);
    evbuffer* input = bufferevent_get_input(bev);
    tpg_msg_libmib_update_ack_t ack = {};
    while (evbuffer_get_length(input) >= sizeof(ack)) {
        evbuffer_remove(input, &ack, sizeof(ack));
        const uint16_t type = ack.head.usMsgType;
        const uint16_t length = ack.head.usMsgLen;
        if (type != TPG_MSG_LIBMIB_REGISTER || length != sizeof(ack) ||
            slot->client.acks_due == 0) {
            fprintf(stderr,
                    "tpg-chassis: slot %u: not an expected acknowledgement: type %u, length %u; "
                    "connection closed\n",
                    slot->slot_no, type, length);
            client_lost(slot);
            return;
        }
        slot->client.acks_due--;
    }
    client_settle(slot);
}

static void client_send_update(chassis_slot_t* slot, uint16_t type)
{
    slot->client.taken = false;
    tpg_msg_libmib_update_t msg = {};
    msg.head = client_head(type, sizeof(msg));
    msg.libmib_update = slot->identity;
    if (client_send(slot, &msg, sizeof(msg)) == 0) {
        slot->client.acks_due++;
    }
}

/* Sends at once if it can, so that a message is out before the operator's next command. */
static int client_send(chassis_slot_t* slot, const void* msg, size_t length)
{
    bufferevent* bev = slot->client.bev.get();
    size_t sent = 0;
    if (evbuffer_get_length(bufferevent_get_output(bev)) == 0) {
        const ssize_t count = send(bufferevent_getfd(bev), msg, length, MSG_NOSIGNAL);
        sent = count > 0 ? static_cast<size_t>(count) : 0;
    }
    if (sent == length) {
        return 0;
    }
    return bufferevent_write(bev, static_cast<const char*>(msg) + sent, length - sent);
}

/* A header with its parity. */
static com_msg_head_t client_head(uint16_t type, size_t length)
{
    com_msg_head_t head = {};
    head.usMsgType = type;
    head.usMsgLen = static_cast<uint16_t>(length);
    head.ulPid = static_cast<uint32_t>(getpid());
    head.usReserved = com_msg_parity(&head, TPG_PARITY_KEY);
    return head;
}

/* Shows the slot in the board's product location table. */
static void client_located(chassis_slot_t* slot)
{
    chassis_slot_t* board = &slot->chassis->slots[CHASSIS_BOARD_SLOT - 1];
    const chassis_client_t* client = &slot->client;
    if (!board->board || !slot->card) {
        return;
    }
    const bool plugged = client->link != chassis_link::off;
    chassis_vars_locate(&board->vars, slot->slot_no, client->insertions, client->removals,
                        plugged ? slot->identity.prod_string : "");
}

static void client_settle(const chassis_slot_t* slot)
{
    event_active(slot->chassis->settled.get(), EV_TIMEOUT, 0);
}
