/* One request and its answer over the agent's socket. */

#include "tpgctl.h"

#include "tpg_ctl_i.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/* A card that comes in has its library read by tools, which takes a while. */
constexpr timeval PATIENCE = {120, 0};
constexpr size_t ANSWER_MAX = size_t{1024} * 1024;

/* A connection to a socket, or -1 with errno set. */
static int connect_to(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strlen(path));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof(PATIENCE));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof(PATIENCE));
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

/* One that may not be asked is told apart from one that is not there. */
static int connect_any(bool* forbidden)
{
    for (const char* path : {TPG_CTL_PATH, TPG_CTL_PATH_TMP}) {
        const int fd = connect_to(path);
        if (fd >= 0) {
            return fd;
        }
        *forbidden = *forbidden || errno == EACCES || errno == EPERM;
    }
    return -1;
}

/* The answer's line without its end; empty when none came. A refusal may come unasked. */
static std::string exchange(int fd, const std::string& request)
{
    const std::string line = request + "\n";
    send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    std::string answer;
    char part[4096];
    while (answer.size() < ANSWER_MAX) {
        const ssize_t n = recv(fd, part, sizeof(part), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return {};
        }
        answer.append(part, static_cast<size_t>(n));
        const size_t end = answer.find('\n');
        if (end != std::string::npos) {
            return answer.substr(0, end);
        }
    }
    return {};
}

json_object* ctl_member(json_object* object, const char* key)
{
    json_object* value = nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}

reply_t ctl_ask(const std::string& request)
{
    bool forbidden = false;
    const int fd = connect_any(&forbidden);
    if (fd < 0) {
        return forbidden ? reply_t{EXIT_REFUSED, {}, "only root and the agent's own user may ask"}
                         : reply_t{EXIT_NO_AGENT, {}, "no agent is running"};
    }
    const std::string line = exchange(fd, request);
    close(fd);
    json_t answer(json_tokener_parse(line.c_str()));
    if (json_object_get_type(answer.get()) != json_type_object) {
        return {EXIT_NO_AGENT, {}, "the agent does not answer"};
    }
    if (json_object_get_boolean(ctl_member(answer.get(), "ok")) == 0) {
        json_object* error = ctl_member(answer.get(), "error");
        return {EXIT_REFUSED, {}, error == nullptr ? "refused" : json_object_get_string(error)};
    }
    return {EXIT_DONE, std::move(answer), {}};
}
