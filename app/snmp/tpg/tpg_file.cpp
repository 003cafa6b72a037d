/* Files: regular ones only, whole reads and writes. */

#include "tpg_file.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static int file_require_regular(int, off_t*);

constexpr mode_t FILE_MODE = 0644;

/* Or a file with a large inode number could not even be looked at. */
static_assert(sizeof(off_t) == sizeof(int64_t));

tpg_fd_t::~tpg_fd_t()
{
    if (fd >= 0) {
        close(fd);
    }
}

bool tpg_file_exists(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

int tpg_file_mode(int fd, mode_t* mode)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return -1;
    }
    *mode = st.st_mode;
    return 0;
}

/* Keeps fd when it is a regular file; otherwise closes it and returns -1. */
static int file_require_regular(int fd, off_t* size)
{
    struct stat st;
    int error = 0;
    if (fstat(fd, &st) != 0) {
        error = errno;
    } else if (!S_ISREG(st.st_mode)) {
        error = EINVAL;
    } else {
        *size = st.st_size;
        return fd;
    }
    close(fd);
    errno = error;
    return -1;
}

/* Without O_NONBLOCK, opening a pipe that nobody writes to would block for ever. */
int tpg_file_open_read(const char* path, tpg_links links, off_t* size)
{
    int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    if (links == tpg_links::refuse) {
        flags |= O_NOFOLLOW;
    }
    const int fd = open(path, flags);
    return fd < 0 ? -1 : file_require_regular(fd, size);
}

int tpg_file_open_write(const char* path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, FILE_MODE);
    off_t size = 0;
    if (fd < 0 || file_require_regular(fd, &size) < 0) {
        return -1;
    }
    if (size > 0 && ftruncate(fd, 0) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int tpg_file_read(int fd, void* buf, size_t size)
{
    char* bytes = static_cast<char*>(buf);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd, bytes + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            errno = n == 0 ? EIO : errno;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

int tpg_file_write(int fd, const void* buf, size_t size)
{
    const char* bytes = static_cast<const char*>(buf);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, bytes + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

int tpg_file_sync_dir(const char* path)
{
    char dir[PATH_MAX] = ".";
    const char* slash = strrchr(path, '/');
    const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
    if (length >= sizeof(dir)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(dir, path, length);
    const tpg_fd_t dir_fd = {open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    return dir_fd.fd < 0 ? -1 : fsync(dir_fd.fd);
}
