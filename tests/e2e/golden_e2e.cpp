/* The bytes that cards and daemons of the board send, byte for byte, and those of the other order.
 */

#include "../support/daemon.h"
#include "world.h"

#include <array>
#include <bit>
#include <thread>

/* size bytes: pairs of hexadecimal digits, 'text', and @ with the offset to go on at. */
template <size_t size> static consteval std::array<uint8_t, size> image(std::string_view text)
{
    std::array<uint8_t, size> bytes = {};
    size_t at = 0;
    const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\'') {
            for (i++; text[i] != '\''; i++) {
                bytes[at++] = static_cast<uint8_t>(text[i]);
            }
        } else if (text[i] == '@') {
            for (at = 0; i + 1 < text.size() && text[i + 1] != ' '; i++) {
                at = at * 10 + static_cast<size_t>(digit(text[i + 1]));
            }
        } else if (text[i] != ' ') {
            bytes[at++] = static_cast<uint8_t>(digit(text[i]) * 16 + digit(text[i + 1]));
            i++;
        }
    }
    return bytes;
}

/* A message as it is on a big-endian and on a little-endian board. */
template <size_t size> using golden_t = std::array<std::array<uint8_t, size>, 2>;
static constexpr size_t HOST = std::endian::native == std::endian::big ? 0 : 1;
static constexpr size_t FOREIGN = 1 - HOST;

/* Sender 1234; slot 3; version 1.2.566. */
static constexpr golden_t<196> GOLDEN_REGISTER = {
    image<196>("0001 00c4 0000 7067 000004d2 'qmc4512' @28 'qmc' @44 'SN0042' @60 01 02 03 00 "
               "00000236 '/tmp/card/libmib.so'"),
    image<196>("0100 c400 0000 6770 d2040000 'qmc4512' @28 'qmc' @44 'SN0042' @60 01 02 03 00 "
               "36020000 '/tmp/card/libmib.so'")};
/* Variable 101, index 0x0203. */
static constexpr golden_t<24> GOLDEN_GET = {
    image<24>("0001 0018 0000 0000 000004d2 00000065 00000203 0004 0000"),
    image<24>("0100 1800 0000 0000 d2040000 65000000 03020000 0400 0000")};
static constexpr golden_t<152> GOLDEN_GET_REPLY = {
    image<152>("0001 0098 0000 0000 000004d2 00000065 00000203 00 00 0004 01020304"),
    image<152>("0100 9800 0000 0000 d2040000 65000000 03020000 00 00 0400 04030201")};
/* What GOLDEN_GET_REPLY carries. */
static constexpr int32_t GOLDEN_VALUE = 0x01020304;

TEST_F(World, ServesTheBytesOfItsOwnByteOrderOnly)
{
    const std::string range = R"({"range0": 1, "range1": 4})",
                      text = R"({"gen_table_array": [{"name": "ports",
        "oid": [1, 3, 6, 1, 4, 1, 32473, 7, 1], "index_array": [)" +
                             range + "," + range + R"(], "param_array":
        [{"var_id": 101, "type": 1, "range1": 9}]}]})";
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
    const int listener = unix_socket(daemon_path(3), true);
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
