#ifndef GOLDEN_H
#define GOLDEN_H

/*
 * Every wire message byte by byte, in both byte orders. The big-endian images
 * are what cards and daemons on the controller board send.
 */

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

/* size bytes: pairs of hexadecimal digits, 'text', and @ with the offset to go on at. */
template <size_t size> consteval std::array<uint8_t, size> image(std::string_view text)
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
inline constexpr size_t HOST = std::endian::native == std::endian::big ? 0 : 1;
inline constexpr size_t FOREIGN = 1 - HOST;

/* Sender 1234; slot 3; version 1.2.566. */
inline constexpr golden_t<196> GOLDEN_REGISTER = {
    image<196>("0001 00c4 0000 7067 000004d2 'qmc4512' @28 'qmc' @44 'SN0042' @60 01 02 03 00 "
               "00000236 '/tmp/card/libmib.so'"),
    image<196>("0100 c400 0000 6770 d2040000 'qmc4512' @28 'qmc' @44 'SN0042' @60 01 02 03 00 "
               "36020000 '/tmp/card/libmib.so'")};
inline constexpr golden_t<12> GOLDEN_ACK = {image<12>("0001 000c 0001 0000 000004d2"),
                                            image<12>("0100 0c00 0100 0000 d2040000")};
/* Variable 200, row 0x0203, slot 3; offset 5, first index 7, text "port". */
inline constexpr golden_t<37> GOLDEN_TRAP = {
    image<37>("0003 0025 0000 7084 000004d2 000000c8 00000203 03 00 000d 00000005 00000007 04 "
              "'port'"),
    image<37>("0300 2500 0000 8470 d2040000 c8000000 03020000 03 00 0d00 00000005 00000007 04 "
              "'port'")};
/* Variable 101, index 0x0203. */
inline constexpr golden_t<24> GOLDEN_GET = {
    image<24>("0001 0018 0000 0000 000004d2 00000065 00000203 0004 0000"),
    image<24>("0100 1800 0000 0000 d2040000 65000000 03020000 0400 0000")};
inline constexpr golden_t<152> GOLDEN_GET_REPLY = {
    image<152>("0001 0098 0000 0000 000004d2 00000065 00000203 00 00 0004 01020304"),
    image<152>("0100 9800 0000 0000 d2040000 65000000 03020000 00 00 0400 04030201")};
inline constexpr golden_t<152> GOLDEN_SET = {
    image<152>("0002 0098 0000 0000 000004d2 00000065 00000203 0000 0004 01020304"),
    image<152>("0200 9800 0000 0000 d2040000 65000000 03020000 0000 0400 04030201")};
inline constexpr golden_t<152> GOLDEN_SET_REPLY = {
    image<152>("0002 0098 0000 0000 000004d2 00000065 00000203 ff 03 0000 'refused'"),
    image<152>("0200 9800 0000 0000 d2040000 65000000 03020000 ff 03 0000 'refused'")};
/* What GOLDEN_GET_REPLY and GOLDEN_SET carry. */
inline constexpr int32_t GOLDEN_VALUE = 0x01020304;

#endif
