/* Whose the clients' socket is. */

#include "tpg_main_socket.h"

#include "tpg_log.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/* Which files this agent has bound, by tpg_socket. By now another agent's may stand under a name. */
static struct {
    const char* path; /* null when there is none */
    dev_t device;
    ino_t inode;
} bound[2];

bool tpg_socket_is_taken(tpg_context_t* ctx)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, TPG_SVR_PATH, sizeof(TPG_SVR_PATH));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    /* An agent that is busy, or stopped, lets its backlog fill up. */
    const bool taken =
        connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 || errno == EAGAIN;
    close(fd);
    if (taken) {
        TPG_ERROR(ctx, "another agent answers on %s: this one ends", TPG_SVR_PATH);
    }
    return taken;
}

void tpg_socket_note(tpg_context_t* ctx, tpg_socket which, const char* path)
{
    struct stat st;
    if (lstat(path, &st) != 0) {
        TPG_WARN(ctx, "%s is left behind at the end, %s", path, strerror(errno));
        return;
    }
    bound[static_cast<size_t>(which)] = {path, st.st_dev, st.st_ino};
}

void tpg_socket_remove(tpg_socket which)
{
    struct stat st;
    auto* own = &bound[static_cast<size_t>(which)];
    if (own->path != nullptr && lstat(own->path, &st) == 0 && st.st_dev == own->device &&
        st.st_ino == own->inode) {
        unlink(own->path);
    }
    own->path = nullptr;
}
