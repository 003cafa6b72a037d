#ifndef SUPPORT_H
#define SUPPORT_H

/* What all tests share: files, local sockets, and the messages of a card client. */

#include "tpg_msg_i.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

inline bool has(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string& path, std::string_view text, unsigned mode = 0644)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode));
}

/* Empties a folder, which is there then. */
inline void clear_folder(const std::string& path)
{
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
}

/* Fills a text field, which is then terminated when the text is shorter. */
template <size_t size> void set_text(char (&field)[size], std::string_view text)
{
    memset(field, 0, size);
    text.copy(field, size);
}

template <typename record_t> std::string bytes_of(const record_t& record)
{
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

/* A stream socket that listens at the path, or is connected to it; -1 if it cannot be. */
inline int unix_socket(const std::string& path, bool listens = false)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    set_text(address.sun_path, path);
    const auto* place = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listens ? bind(fd, place, sizeof(address)) != 0 || listen(fd, 8) != 0
                : connect(fd, place, sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* True when the process is gone, or only waits for somebody to ask how it ended. */
inline bool has_ended(pid_t pid)
{
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || has(stat, ") Z ");
}

/* ---- messages ---- */

inline com_msg_head_t client_head(uint16_t type, size_t length)
{
    com_msg_head_t head = {type, static_cast<uint16_t>(length), 0, 0, 1234};
    head.usReserved = com_msg_parity(&head, TPG_PARITY_KEY);
    return head;
}

/* A register or unregister message of major.minor.build = 1.minor.0. */
inline tpg_msg_libmib_update_t client_update(tpg_msg_type type, int slot, std::string_view product,
                                             std::string_view family, int minor,
                                             std::string_view library)
{
    tpg_msg_libmib_update_t msg = {client_head(type, sizeof(msg)), {}};
    set_text(msg.libmib_update.prod_string, product);
    set_text(msg.libmib_update.prod_family, family);
    set_text(msg.libmib_update.libmib_path, library);
    msg.libmib_update.major_rev = 1;
    msg.libmib_update.minor_rev = static_cast<uint8_t>(minor);
    msg.libmib_update.slot_no = static_cast<uint8_t>(slot);
    return msg;
}

/* A notify of a fault variable, with data; the last bytes of the message may be cut off. */
inline std::string notify(int slot, uint32_t var, uint32_t index, std::string_view data = "",
                          size_t cut = 0)
{
    const size_t length = TPG_TRAP_HEAD_LEN + data.size() - cut;
    tpg_msg_trap_notify_t msg = {
        client_head(TPG_MSG_TRAP_NOTIFY, length),
        {var, index, static_cast<uint8_t>(slot), 0, static_cast<uint16_t>(data.size()), {}}};
    data.copy(reinterpret_cast<char*>(msg.trap_notify.data), TPG_TRAP_DATA_MAX);
    return {reinterpret_cast<const char*>(&msg), length};
}

/* A number as four bytes of such data. */
inline std::string big_endian(uint32_t number)
{
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>(number >> shift & 0xffU);
    }
    return bytes;
}

#endif
