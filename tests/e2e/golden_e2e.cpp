/* The bytes that cards and daemons of the board send, byte for byte, and those of the other order.
 */

#include "../unit/golden.h"
#include "uevgend_msg_i.h"
#include "world.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* A control daemon of slot 3 that answers one request, if it is the expected one. */
static pid_t answer_once()
{
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), UEVGEND_SVR_PATH_FMT, 3);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        constexpr size_t PID_OFS = offsetof(com_msg_head_t, ulPid);
        const int fd = accept(listener, nullptr, nullptr);
        auto request = GOLDEN_GET[HOST];
        const bool whole = recv(fd, request.data(), request.size(), MSG_WAITALL) == 24;
        memcpy(&request[PID_OFS], &GOLDEN_GET[HOST][PID_OFS], sizeof(uint32_t));
        if (whole && request == GOLDEN_GET[HOST]) {
            send(fd, GOLDEN_GET_REPLY[HOST].data(), GOLDEN_GET_REPLY[HOST].size(), MSG_NOSIGNAL);
        }
        _exit(0);
    }
    close(listener);
    return pid;
}

TEST_F(World, ServesTheBytesOfItsOwnByteOrderOnly)
{
    const std::string text =
        document({{"ports", "1.3.6.1.4.1.32473.7.1", {{1, 4}, {1, 4}}, {{101, 1, 0, 9}}}});
    run({"mkdir", "-p", "/tmp/card"});
    write_file("/tmp/card/libmib.so.json", text);
    write_file(std::string(BUILT_IN) + "/libmibqmc4512.so.json", text);
    agents_start(&w);

    const int foreign = client_connect();
    client_send(foreign, GOLDEN_REGISTER[FOREIGN].data(), GOLDEN_REGISTER[FOREIGN].size());
    /* 16 times 12 bytes are no header; the last four wait for eight more. */
    EXPECT_TRUE(log_has(w, "tpg_svr_conn_readcb(): Invalid header", 16));
    EXPECT_EQ(log_count(w, "Registering"), 0);
    close(foreign);

    const int card = client_connect();
    client_send(card, GOLDEN_REGISTER[HOST].data(), GOLDEN_REGISTER[HOST].size());
    EXPECT_TRUE(log_has(w, "Registering qmc4512:qmc version 1.2.566 slot_no 3"));
    EXPECT_TRUE(log_has(w, "[after] slot 3"));
    const pid_t daemon_pid = answer_once();
    EXPECT_EQ(get("1.3.6.1.4.1.32473.7.1.1.1.3.4.3"), "INTEGER: " + std::to_string(GOLDEN_VALUE));
    kill(daemon_pid, SIGKILL);
    close(card);
}
