/* The control channel against a daemon whose replies are written in advance. */

#include "golden.h"
#include "tpg_jsonmib_ctrl.h"
#include "uevgend_msg_i.h"
#include "unit.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

struct ctrl : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    jsonmib_ipc_info_t* slot = &ctx->jsonmib_ipc_info[2];
    int daemon = -1;

    void connect_slot()
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        daemon = ends[0];
        *slot = {1, 0, ends[1], 0};
    }
    void TearDown() override
    {
        close(daemon);
        jsonmib_ipc_disconnect(ctx.get(), 3);
    }
    void answer(const void* reply, size_t size) const
    {
        ASSERT_EQ(send(daemon, reply, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
    }
    /* A get reply of size bytes for variable and index 0x203, filled with data. */
    void answer_get(uint32_t variable, size_t size, char data, int8_t code = 0) const
    {
        std::string bytes(size, data);
        uevgend_get_reply_msg_t reply = {};
        reply.ctrl_get_reply.ulVarId = variable;
        reply.ctrl_get_reply.ulIndex = 0x203;
        reply.ctrl_get_reply.scErrCode = code;
        memcpy(bytes.data(), &reply, UEVGEND_DATA_OFS);
        answer(bytes.data(), size);
    }
    /* Gets variable 101; the log is kept. */
    int get(void* data, uint32_t length)
    {
        int ret = 0;
        log = log_of([&] { ret = jsonmib_ctrl_get(ctx.get(), 3, 101, 0x203, data, length); });
        return ret;
    }
    /* The bytes waiting at one end. */
    static std::string pending(int fd)
    {
        char bytes[1024];
        const ssize_t n = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        return {bytes, static_cast<size_t>(std::max<ssize_t>(n, 0))};
    }
    std::string log;
};

/* A golden request as this process sends it. */
template <size_t size> static std::string sent(std::array<uint8_t, size> bytes)
{
    const auto pid = static_cast<uint32_t>(getpid());
    memcpy(bytes.data() + offsetof(com_msg_head_t, ulPid), &pid, sizeof(pid));
    return {bytes.begin(), bytes.end()};
}

TEST_F(ctrl, golden_exchanges)
{
    connect_slot();
    int32_t value = 0;
    answer(GOLDEN_GET_REPLY.host().data(), 152);
    EXPECT_EQ(get(&value, 4), 0);
    EXPECT_EQ(value, GOLDEN_VALUE);
    EXPECT_EQ(pending(daemon), sent(GOLDEN_GET.host()));
    answer(GOLDEN_SET_REPLY.host().data(), 152);
    EXPECT_EQ(jsonmib_ctrl_set(ctx.get(), 3, 101, 0x203, &GOLDEN_VALUE, 4), -1);
    EXPECT_EQ(pending(daemon), sent(GOLDEN_SET.host()));
    EXPECT_EQ(pending(slot->fd), "");
}

TEST_F(ctrl, sizes)
{
    connect_slot();
    for (const uint32_t length : {0U, 4U, 128U, 129U, 200U}) {
        SCOPED_TRACE(length);
        const size_t size = length > 128 ? length + 24 : 152;
        std::string data(length, 'x');
        answer_get(101, size, 'y');
        answer("!", 1);
        EXPECT_EQ(get(data.data(), length), 0);
        EXPECT_EQ(data, std::string(length, 'y'));
        EXPECT_EQ(pending(slot->fd), "!");
        std::string bytes = pending(daemon);
        uevgend_get_msg_t request;
        ASSERT_EQ(bytes.size(), sizeof(request));
        memcpy(&request, bytes.data(), sizeof(request));
        EXPECT_EQ(request.ctrl_get.usLength, length);

        answer_get(101, 152, 0);
        EXPECT_EQ(jsonmib_ctrl_set(ctx.get(), 3, 101, 0x203, data.data(), length), 0);
        bytes = pending(daemon);
        ASSERT_EQ(bytes.size(), size);
        EXPECT_EQ(bytes.substr(24), data + std::string(size - 24 - length, '\0'));
        com_msg_head_t head;
        memcpy(&head, bytes.data(), sizeof(head));
        EXPECT_EQ(head.usMsgLen, size);
    }
}

TEST_F(ctrl, refused_and_lost)
{
    connect_slot();
    std::string data(200, 'x');
    answer_get(101, 224, 'y', -7);
    EXPECT_EQ(get(data.data(), 200), -7);
    EXPECT_EQ(data, std::string(200, '\0'));
    data.assign(4, 'x');
    answer_get(101, 100, 'y'); /* not whole */
    shutdown(daemon, SHUT_WR);
    EXPECT_EQ(get(data.data(), 4), JSONMIB_CTRL_TRANSPORT);
    EXPECT_TRUE(has(log, "Error recv from slot_no 3 failed. request 152 bytes but received 100"));
    EXPECT_EQ(data, std::string(4, '\0'));
    EXPECT_EQ(slot->fd + slot->connected, 0);
    close(daemon);
    connect_slot();
    close(daemon);
    log = log_of([&] {
        EXPECT_EQ(jsonmib_ctrl_set(ctx.get(), 3, 101, 0, "data", 4), JSONMIB_CTRL_TRANSPORT);
    });
    EXPECT_TRUE(has(log, "Error send to slot_no 3 failed. request 152 bytes but sent 0 bytes. "));
    EXPECT_EQ(slot->fd + slot->connected, 0);
    EXPECT_EQ(get(data.data(), 4), JSONMIB_CTRL_TRANSPORT);
    EXPECT_EQ(log, "Error slot_no 3 ipc is down\nError connction to slot_no 3 is not available\n"
                   "Error jsonmib_ipc_send failed\n");
    EXPECT_EQ(slot->fd, 0);
}

/* After a time-out the reply may still come: before or after the next request. */
TEST_F(ctrl, late_replies)
{
    char data[4];
    connect_slot();
    slot->owed = 152;
    answer_get(99, 152, 'n');
    answer_get(101, 152, 'y');
    EXPECT_EQ(get(data, 4), 0);
    EXPECT_EQ(data[0], 'y');
    EXPECT_EQ(slot->owed, 0U);

    slot->owed = 152;
    pending(daemon);
    std::thread thread([this] {
        char request[24];
        recv(daemon, request, sizeof(request), MSG_WAITALL);
        answer_get(99, 152, 'n');
        answer_get(101, 152, 'y');
    });
    EXPECT_EQ(get(data, 4), 0);
    thread.join();
    EXPECT_EQ(data[0], 'y');
    EXPECT_EQ(slot->owed, 0U);
    EXPECT_EQ(pending(slot->fd), "");

    answer_get(99, 152, 'n'); /* without a time-out the echo is not looked at */
    EXPECT_EQ(get(data, 4), 0);
    EXPECT_EQ(data[0], 'n');
    slot->owed = 1;
    answer("?", 1);
    answer_get(0, 152, 'z');
    EXPECT_EQ(get(data, 4), 0);
    EXPECT_EQ(data[0], 'z');
}

TEST_F(ctrl, connects_when_asked)
{
    for (const uint32_t slot_no : {1U, 3U, 15U}) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path =
            slot_no == 1 ? "/tmp/.devm_svr" : "/tmp/.uevgend_svr" + std::to_string(slot_no);
        set_text(address.sun_path, path);
        const auto connect_log = [&](int expected) {
            return log_of([&] { EXPECT_EQ(jsonmib_ipc_connect(ctx.get(), slot_no), expected); });
        };
        const std::string number = std::to_string(slot_no);
        const jsonmib_ipc_info_t* info = &ctx->jsonmib_ipc_info[slot_no - 1];
        write_file(path, "no socket");
        EXPECT_EQ(connect_log(-1),
                  "Error connect slot_no " + number + " failed, Connection refused\n");
        const int kept = info->fd;
        EXPECT_GT(kept, 0);
        EXPECT_EQ(info->connected, 0);
        unlink(path.c_str());
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(connect_log(0), "Info Connected to slot_no " + number + "\n");
        EXPECT_EQ(info->fd, kept);
        EXPECT_EQ(info->connected, 1);
        jsonmib_ipc_disconnect(ctx.get(), slot_no);
        EXPECT_EQ(info->fd, 0);
        close(listener);
        unlink(path.c_str());
    }
}
