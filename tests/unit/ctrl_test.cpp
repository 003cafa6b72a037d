/* The control channel against a daemon whose replies are written in advance. */

#include "golden.h"
#include "tpg_jsonmib_queue.h"
#include "uevgend_msg_i.h"
#include "unit.h"

#include <sys/socket.h>
#include <thread>

/* Both ends of the connection of slot 3. A read that has nothing to come fails in the end. */
struct ctrl : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    jsonmib_ipc_info_t* slot = &ctx->jsonmib_ipc_info[2];
    int peer = -1;

    void SetUp() override
    {
        constexpr timeval DEADLINE = {60, 0};
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        for (const int fd : ends) {
            ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &DEADLINE, sizeof(DEADLINE)), 0);
        }
        peer = ends[0];
        *slot = {1, 0, ends[1], nullptr};
    }
    void TearDown() override
    {
        close(peer);
        jsonmib_queue_release(ctx.get());
    }
    /* A reply of size bytes for the variable and index 0x203, filled with data. */
    void answer_for(uint32_t variable, size_t size, char data, int8_t code = 0) const
    {
        std::string bytes(size, data);
        uevgend_get_reply_msg_t reply = {};
        reply.ctrl_get_reply.ulVarId = variable;
        reply.ctrl_get_reply.ulIndex = variable == 0 ? 0 : 0x203;
        reply.ctrl_get_reply.scErrCode = code;
        memcpy(bytes.data(), &reply, UEVGEND_DATA_OFS);
        EXPECT_EQ(send(peer, bytes.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
    }
    /* "RESULT DATA" of a get of variable 101. */
    std::string get(uint32_t length)
    {
        std::string data(length, 'x');
        const int ret = jsonmib_ctrl_get(ctx.get(), 3, 101, 0x203, data.data(), length);
        return std::to_string(ret) + " " + data;
    }
    /* The bytes waiting at one end. */
    static std::string pending(int fd)
    {
        char bytes[1024];
        const ssize_t n = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        return {bytes, static_cast<size_t>(std::max<ssize_t>(n, 0))};
    }
};

/* A golden request as this process sends it, with the length of its data. */
template <size_t size>
static std::string sent(std::array<uint8_t, size> bytes, size_t length_at, size_t length)
{
    const auto pid = static_cast<uint32_t>(getpid());
    const auto number = static_cast<uint16_t>(length);
    memcpy(bytes.data() + offsetof(com_msg_head_t, ulPid), &pid, sizeof(pid));
    memcpy(bytes.data() + length_at, &number, sizeof(number));
    return {bytes.begin(), bytes.end()};
}

TEST_F(ctrl, sizes)
{
    for (const uint32_t length : {0U, 128U, 129U, 200U}) {
        const auto size = static_cast<uint16_t>(length > 128 ? length + 24 : 152);
        answer_for(101, size, 'y');
        EXPECT_EQ(send(peer, "!", 1, MSG_NOSIGNAL), 1);
        EXPECT_EQ(get(length), "0 " + std::string(length, 'y'));
        EXPECT_EQ(pending(slot->fd), "!");
        EXPECT_EQ(pending(peer), sent(GOLDEN_GET[HOST], 20, length));

        const std::string data(length, 'd');
        answer_for(101, 152, 0);
        EXPECT_EQ(jsonmib_ctrl_set(ctx.get(), 3, 101, 0x203, data.data(), length), 0);
        std::string expected = sent(GOLDEN_SET[HOST], 22, length).substr(0, 24) + data;
        expected.resize(size);
        memcpy(&expected[offsetof(com_msg_head_t, usMsgLen)], &size, sizeof(size));
        EXPECT_EQ(pending(peer), expected);
    }
    answer_for(101, 224, 'y', -7);
    EXPECT_EQ(get(200), "-7 " + std::string(200, '\0'));
}

/* After a time-out the reply may still come: before the next request or behind it. */
TEST_F(ctrl, late_replies)
{
    const jsonmib_asked_t never_answered = {UEVGEND_MSG_GET, 98, 0x203, 152};
    const jsonmib_asked_t text = {UEVGEND_MSG_GET, 99, 0x203, 280};
    const jsonmib_asked_t nameless = {UEVGEND_MSG_GET, 0, 0, 152};
    const jsonmib_asked_t again = {UEVGEND_MSG_GET, 101, 0x203, 152};
    jsonmib_replies_t* replies = &ctx->jsonmib_queue[2].replies;
    for (const bool before : {true, false}) {
        for (const jsonmib_asked_t& dead : {text, nameless, again}) {
            replies->dead[0] = never_answered;
            replies->dead[1] = dead;
            replies->dead_total = 2;
            const bool either = dead.var_id == again.var_id;
            std::thread daemon([this, dead, before] {
                if (before) {
                    answer_for(dead.var_id, dead.reply_len, 'y');
                }
                char request[24];
                recv(peer, request, sizeof(request), MSG_WAITALL);
                if (!before) {
                    answer_for(dead.var_id, dead.reply_len, 'y');
                }
                answer_for(101, 152, 'y');
            });
            EXPECT_EQ(get(1), "0 y");
            daemon.join();
            EXPECT_LE(replies->dead_total, either ? 2U : 1U);
            *replies = {};
            (void)pending(slot->fd);
        }
    }
    answer_for(99, 152, 'n'); /* without a time-out the echo is not looked at */
    EXPECT_EQ(get(1), "0 n");
}
