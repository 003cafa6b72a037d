#ifndef COMMON_MSG_H
#define COMMON_MSG_H

/*
 * The header of every fixed-layout message on the controller board. All
 * fields travel in the byte order of the board's processor, without conversion.
 */

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr uint32_t TPG_SLOT_MAX = 15; /* slots of a chassis, numbered 1 to 15 */

struct com_msg_head_t {
    uint16_t usMsgType;
    uint16_t usMsgLen; /* whole message in bytes, header included */
    uint16_t usFlags;
    uint16_t usReserved; /* header parity in messages to the agent */
    uint32_t ulPid;      /* process id of the sender */
};

static_assert(sizeof(com_msg_head_t) == 12);
static_assert(offsetof(com_msg_head_t, usMsgType) == 0);
static_assert(offsetof(com_msg_head_t, usMsgLen) == 2);
static_assert(offsetof(com_msg_head_t, usFlags) == 4);
static_assert(offsetof(com_msg_head_t, usReserved) == 6);
static_assert(offsetof(com_msg_head_t, ulPid) == 8);

/*
 * XOR of the seed (the first two characters of key, the first in the high
 * byte; missing ones count as zero) with the six 16-bit words of head, its
 * usReserved taken as zero. A sender stores the result in usReserved.
 */
inline uint16_t com_msg_parity(const com_msg_head_t* head, std::string_view key)
{
    unsigned parity = 0;
    if (!key.empty()) {
        parity = unsigned{static_cast<unsigned char>(key[0])} << 8U;
    }
    if (key.size() > 1) {
        parity |= static_cast<unsigned char>(key[1]);
    }
    parity ^= head->usMsgType;
    parity ^= head->usMsgLen;
    parity ^= head->usFlags;
    parity ^= head->ulPid >> 16U;
    parity ^= head->ulPid & 0xffffU;
    return static_cast<uint16_t>(parity);
}

/* 0 when head's usReserved holds the parity of the rest, 1 otherwise. */
inline int tpg_check_parity(const com_msg_head_t* head, std::string_view key)
{
    return com_msg_parity(head, key) == head->usReserved ? 0 : 1;
}

#endif
