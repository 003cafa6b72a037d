#ifndef UEVGEND_MSG_I_H
#define UEVGEND_MSG_I_H

/* Messages between the agent and a slot's control daemon. */

#include "common_msg.h"

#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>

/* The address of the daemon that controls the slot, 1 to 15; slot 1 is the controller board. */
inline sockaddr_un uevgend_svr_address(uint32_t slot_no)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (slot_no == 1) {
        snprintf(addr.sun_path, sizeof(addr.sun_path), "/tmp/.devm_svr");
    } else {
        snprintf(addr.sun_path, sizeof(addr.sun_path), "/tmp/.uevgend_svr%u", slot_no);
    }
    return addr;
}

enum uevgend_msg_type : uint16_t {
    UEVGEND_MSG_GET = 1,
    UEVGEND_MSG_SET = 2,
};

/* Head, id and index in front of the data of every message but the get request. */
constexpr size_t UEVGEND_DATA_OFS = 24;
/* Data bytes of the fixed message form; longer values use a message as long as they need. */
constexpr size_t UEVGEND_DATA_FIXED = 128;

struct ctrl_get_request_t {
    uint32_t ulVarId;
    uint32_t ulIndex;
    uint16_t usLength; /* data bytes wanted back */
    uint16_t usReserved;
};

struct ctrl_get_reply_t {
    uint32_t ulVarId;
    uint32_t ulIndex;
    int8_t scErrCode; /* 0: success */
    uint8_t ucReserved;
    uint16_t usDataLen;
    uint8_t ucData[UEVGEND_DATA_FIXED];
};

struct ctrl_set_request_t {
    uint32_t ulVarId;
    uint32_t ulIndex;
    uint16_t usFlags;
    uint16_t usLength; /* valid bytes in ucData */
    uint8_t ucData[UEVGEND_DATA_FIXED];
};

struct ctrl_set_reply_t {
    uint32_t ulVarId;
    uint32_t ulIndex;
    int8_t scErrCode; /* 0: success */
    uint8_t ucLogLevel;
    uint16_t ucReserved;
    char acErrMsg[UEVGEND_DATA_FIXED];
};

struct uevgend_get_msg_t {
    com_msg_head_t head;
    ctrl_get_request_t ctrl_get;
};

struct uevgend_get_reply_msg_t {
    com_msg_head_t head;
    ctrl_get_reply_t ctrl_get_reply;
};

struct uevgend_set_msg_t {
    com_msg_head_t head;
    ctrl_set_request_t ctrl_set;
};

struct uevgend_set_reply_msg_t {
    com_msg_head_t head;
    ctrl_set_reply_t ctrl_set_reply;
};

static_assert(offsetof(uevgend_get_msg_t, ctrl_get.ulVarId) == 12);
static_assert(offsetof(uevgend_get_msg_t, ctrl_get.ulIndex) == 16);
static_assert(offsetof(uevgend_get_msg_t, ctrl_get.usLength) == 20);
static_assert(offsetof(uevgend_get_msg_t, ctrl_get.usReserved) == 22);
static_assert(sizeof(uevgend_get_msg_t) == 24);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ulVarId) == 12);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ulIndex) == 16);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.scErrCode) == 20);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ucReserved) == 21);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.usDataLen) == 22);
static_assert(offsetof(uevgend_get_reply_msg_t, ctrl_get_reply.ucData) == UEVGEND_DATA_OFS);
static_assert(sizeof(uevgend_get_reply_msg_t) == 152);
static_assert(offsetof(uevgend_set_msg_t, ctrl_set.ulVarId) == 12);
static_assert(offsetof(uevgend_set_msg_t, ctrl_set.ulIndex) == 16);
static_assert(offsetof(uevgend_set_msg_t, ctrl_set.usFlags) == 20);
static_assert(offsetof(uevgend_set_msg_t, ctrl_set.usLength) == 22);
static_assert(offsetof(uevgend_set_msg_t, ctrl_set.ucData) == UEVGEND_DATA_OFS);
static_assert(sizeof(uevgend_set_msg_t) == 152);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ulVarId) == 12);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ulIndex) == 16);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.scErrCode) == 20);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ucLogLevel) == 21);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.ucReserved) == 22);
static_assert(offsetof(uevgend_set_reply_msg_t, ctrl_set_reply.acErrMsg) == UEVGEND_DATA_OFS);
static_assert(sizeof(uevgend_set_reply_msg_t) == 152);

#endif
