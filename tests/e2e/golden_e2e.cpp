/* The bytes that cards and daemons of the board send, byte for byte, and those of the other order.
 */

#include "../unit/golden.h"
#include "uevgend_msg_i.h"
#include "world.h"

#include <thread>

TEST_F(World, ServesTheBytesOfItsOwnByteOrderOnly)
{
    const std::string text =
        document({{"ports", "1.3.6.1.4.1.32473.7.1", {{1, 4}, {1, 4}}, {{101, 1, 0, 9}}}});
    std::filesystem::create_directory("/tmp/card");
    write_file("/tmp/card/libmib.so.json", text);
    write_file(std::string(BUILT_IN) + "/libmibqmc4512.so.json", text);
    agents_start(&w);

    const int foreign = client_connect();
    client_send(foreign, bytes_of(GOLDEN_REGISTER[FOREIGN]));
    /* 16 times 12 bytes are no header; the last four wait for eight more. */
    EXPECT_TRUE(log_has(w, "tpg_svr_conn_readcb(): Invalid header", 16));
    EXPECT_EQ(log_count(w, "Registering"), 0);
    close(foreign);

    const int card = client_connect();
    client_send(card, bytes_of(GOLDEN_REGISTER[HOST]));
    EXPECT_TRUE(log_has(w, "Registering qmc4512:qmc version 1.2.566 slot_no 3"));
    EXPECT_TRUE(log_has(w, "[after] slot 3"));
    /* A control daemon of slot 3 that answers one request, if it is the expected one. */
    const int listener = unix_socket("/tmp/.uevgend_svr3", true);
    std::thread daemon([listener] {
        constexpr size_t PID_OFS = offsetof(com_msg_head_t, ulPid);
        const int fd = accept(listener, nullptr, nullptr);
        auto request = GOLDEN_GET[FOREIGN];
        recv(fd, request.data(), request.size(), MSG_WAITALL);
        memcpy(&request[PID_OFS], &GOLDEN_GET[HOST][PID_OFS], sizeof(uint32_t));
        if (request == GOLDEN_GET[HOST]) {
            send(fd, GOLDEN_GET_REPLY[HOST].data(), GOLDEN_GET_REPLY[HOST].size(), MSG_NOSIGNAL);
        }
        close(fd);
    });
    EXPECT_EQ(get("1.3.6.1.4.1.32473.7.1.1.1.3.4.3"), "INTEGER: " + std::to_string(GOLDEN_VALUE));
    shutdown(listener, SHUT_RDWR);
    daemon.join();
    close(card);
}
