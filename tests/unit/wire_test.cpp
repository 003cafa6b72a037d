/* The wire messages against their golden images, and the header parity. */

#include "golden.h"
#include "tpg_msg_i.h"
#include "uevgend_msg_i.h"

#include <cstring>
#include <gtest/gtest.h>

/* The golden image read as the record it is on this host, and the other one refused. */
template <typename message_t, size_t size>
static void expect_image(const golden_t<size>& golden, const message_t& message)
{
    message_t read = {};
    memcpy(&read, golden[HOST].data(), size);
    EXPECT_EQ(memcmp(&read, &message, sizeof(message)), 0);
    com_msg_head_t foreign;
    memcpy(&foreign, golden[FOREIGN].data(), sizeof(foreign));
    EXPECT_GT(foreign.usMsgType, TPG_MSG_TRAP_NOTIFY);
    EXPECT_EQ(tpg_check_parity(&foreign, TPG_PARITY_KEY), 1);
}

TEST(wire, images)
{
    expect_image(GOLDEN_REGISTER,
                 tpg_msg_libmib_update_t{
                     {TPG_MSG_LIBMIB_REGISTER, 196, 0, 0x7067, 1234},
                     {"qmc4512", "qmc", "SN0042", 1, 2, 3, 0, 566, "/tmp/card/libmib.so"}});
    expect_image(GOLDEN_ACK,
                 tpg_msg_libmib_update_ack_t{{TPG_MSG_LIBMIB_REGISTER, 12, 1, 0, 1234}});
    expect_image(GOLDEN_TRAP,
                 tpg_msg_trap_notify_t{
                     {TPG_MSG_TRAP_NOTIFY, 37, 0, 0x7084, 1234},
                     {200, 0x203, 3, 0, 13, {0, 0, 0, 5, 0, 0, 0, 7, 4, 'p', 'o', 'r', 't'}}});
    expect_image(GOLDEN_GET,
                 uevgend_get_msg_t{{UEVGEND_MSG_GET, 24, 0, 0, 1234}, {101, 0x203, 4, 0}});
    uevgend_get_reply_msg_t value = {{UEVGEND_MSG_GET, 152, 0, 0, 1234}, {101, 0x203, 0, 0, 4, {}}};
    memcpy(value.ctrl_get_reply.ucData, &GOLDEN_VALUE, sizeof(GOLDEN_VALUE));
    expect_image(GOLDEN_GET_REPLY, value);
    uevgend_set_msg_t set = {{UEVGEND_MSG_SET, 152, 0, 0, 1234}, {101, 0x203, 0, 4, {}}};
    memcpy(set.ctrl_set.ucData, &GOLDEN_VALUE, sizeof(GOLDEN_VALUE));
    expect_image(GOLDEN_SET, set);
    expect_image(GOLDEN_SET_REPLY, uevgend_set_reply_msg_t{{UEVGEND_MSG_SET, 152, 0, 0, 1234},
                                                           {101, 0x203, -1, 3, 0, "refused"}});
}

TEST(wire, parity)
{
    com_msg_head_t head;
    memcpy(&head, GOLDEN_TRAP[HOST].data(), sizeof(head));
    EXPECT_EQ(tpg_check_parity(&head, "tpg"), 0);
    for (size_t bit = 0; bit < sizeof(head) * 8; bit++) {
        auto bytes = GOLDEN_REGISTER[HOST];
        bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        memcpy(&head, bytes.data(), sizeof(head));
        EXPECT_EQ(tpg_check_parity(&head, "tpg"), 1) << "bit " << bit;
    }
    head = {1, 12, 0, 0xffff, 0x00020005};
    EXPECT_EQ(com_msg_parity(&head, "\xff\xfe"), 0xfffe ^ 1 ^ 12 ^ 2 ^ 5);
}
