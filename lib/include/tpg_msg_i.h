#ifndef TPG_MSG_I_H
#define TPG_MSG_I_H

/* Messages between card clients and the agent on its local stream socket. */

#include "common_msg.h"

constexpr char TPG_SVR_PATH[] = "/tmp/.tpg_svr";
constexpr char TPG_PARITY_KEY[] = "tpg";

/* Every message fits the agent's read buffer. */
constexpr size_t TPG_MSG_MAX = 1024;

enum tpg_msg_type : uint16_t {
    TPG_MSG_LIBMIB_REGISTER = 1, /* also the type of the agent's acknowledgement */
    TPG_MSG_LIBMIB_UNREGISTER = 2,
    TPG_MSG_TRAP_NOTIFY = 3,
};

constexpr size_t TPG_PROD_STRING_MAX = 16;
constexpr size_t TPG_LIBMIB_PATH_MAX = 128;

/* A card's identity and the path of its MIB library. Texts are NUL-terminated. */
struct tpg_libmib_update_t {
    char prod_string[TPG_PROD_STRING_MAX];
    char prod_family[TPG_PROD_STRING_MAX];
    char board_sn[TPG_PROD_STRING_MAX];
    uint8_t major_rev;
    uint8_t minor_rev;
    uint8_t slot_no; /* 1 to 15 */
    uint8_t features;
    uint32_t build_number;
    char libmib_path[TPG_LIBMIB_PATH_MAX];
};

struct tpg_msg_libmib_update_t {
    com_msg_head_t head;
    tpg_libmib_update_t libmib_update;
};

struct tpg_msg_libmib_update_ack_t {
    com_msg_head_t head;
};

constexpr size_t TPG_TRAP_HEAD_LEN = 24;
constexpr size_t TPG_TRAP_DATA_MAX = TPG_MSG_MAX - TPG_TRAP_HEAD_LEN;

/*
 * What a notify's data may hold, as far as data_len goes: an offset to the trap
 * number, the row and the length of a text, the text. Numbers have their highest
 * byte first, whatever the byte order of the board.
 */
constexpr size_t TPG_TRAP_OFFSET_LEN = 4;
constexpr size_t TPG_TRAP_FIRST_INDEX_OFS = 4;
constexpr size_t TPG_TRAP_TEXT_LEN_OFS = 8;
constexpr size_t TPG_TRAP_TEXT_OFS = 9;

/* A fault variable of a card changed; data_len bytes of data are valid. */
struct tpg_trap_notify_t {
    uint32_t var_id;
    uint32_t index;
    uint8_t slot_no;
    uint8_t reserved;
    uint16_t data_len;
    uint8_t data[TPG_TRAP_DATA_MAX];
};

struct tpg_msg_trap_notify_t {
    com_msg_head_t head;
    tpg_trap_notify_t trap_notify;
};

static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.prod_string) == 12);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.prod_family) == 28);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.board_sn) == 44);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.major_rev) == 60);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.minor_rev) == 61);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.slot_no) == 62);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.features) == 63);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.build_number) == 64);
static_assert(offsetof(tpg_msg_libmib_update_t, libmib_update.libmib_path) == 68);
static_assert(sizeof(tpg_libmib_update_t) == 184);
static_assert(sizeof(tpg_msg_libmib_update_t) == 196);
static_assert(sizeof(tpg_msg_libmib_update_ack_t) == 12);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.var_id) == 12);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.index) == 16);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.slot_no) == 20);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.reserved) == 21);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.data_len) == 22);
static_assert(offsetof(tpg_msg_trap_notify_t, trap_notify.data) == TPG_TRAP_HEAD_LEN);
static_assert(sizeof(tpg_msg_trap_notify_t) == TPG_MSG_MAX);

#endif
