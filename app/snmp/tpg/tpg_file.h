#ifndef TPG_FILE_H
#define TPG_FILE_H

/* Files that others may have had their hands on: only regular ones, never more than told. */

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sys/types.h>

/* Frees what the C library allocated. */
struct tpg_heap_free {
    void operator()(void* block) const
    {
        free(block);
    }
};
using tpg_heap_bytes = std::unique_ptr<uint8_t, tpg_heap_free>;
using tpg_heap_chars = std::unique_ptr<char, tpg_heap_free>;

/* Closes a descriptor at the end of its scope; -1 for none. */
struct tpg_fd_t {
    int fd;
    ~tpg_fd_t();
};

/* True when something stands under the name, or behind the link that does. */
bool tpg_file_exists(const char* path);

/* What kind of file a descriptor leads to, as st_mode; 0 or -1 with errno set. */
int tpg_file_mode(int fd, mode_t* mode);

enum class tpg_links : bool {
    follow,
    refuse,
};

/*
 * Opens a regular file for reading. Returns its descriptor, which the caller
 * closes, and its size in *size (bytes); -1 with errno set, EINVAL for
 * anything but a regular file.
 */
int tpg_file_open_read(const char* path, tpg_links links, off_t* size);

/*
 * Creates or truncates a regular file for writing. A link is never followed.
 * Returns its descriptor, which the caller closes, or -1 with errno set.
 */
int tpg_file_open_write(const char* path);

/* Reads exactly size bytes; 0, or -1 with errno set (EIO at an early end). */
int tpg_file_read(int fd, void* buf, size_t size);

/* Writes all size bytes; 0, or -1 with errno set. */
int tpg_file_write(int fd, const void* buf, size_t size);

/* Flushes the directory that holds path, so that the file's name is on the disk; 0 or -1. */
int tpg_file_sync_dir(const char* path);

#endif
