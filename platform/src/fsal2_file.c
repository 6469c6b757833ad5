/* fsal2_file.c - the stand-in file layer on the local file system: handles are descriptors. */
#define _FILE_OFFSET_BITS 64 /* 64-bit offsets on 32-bit ARM too */

#include "fsal2_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <unistd.h>

enum {
    kKnownFlags = FSAL2_FILE_READ | FSAL2_FILE_WRITE | FSAL2_FILE_CREATE | FSAL2_FILE_CREATE_POSIX,
    kCreateMode = 0666
};

int32_t fsal2FileOpen(int32_t volume, const char* path, int32_t flags, int32_t owner)
{
    (void)volume; /* one volume: the local file system */
    (void)owner;
    if (path == NULL || (flags & ~kKnownFlags) != 0)
        return -EINVAL;

    int posixFlags = (flags & FSAL2_FILE_WRITE) ? O_RDWR : O_RDONLY;
    if (flags & (FSAL2_FILE_CREATE | FSAL2_FILE_CREATE_POSIX))
        posixFlags |= O_CREAT;
    int fd = open(path, posixFlags | O_CLOEXEC, kCreateMode);
    if (fd < 0)
        return -errno;
    return fd;
}

int32_t fsal2FileRead(int32_t handle, void* buffer, int32_t length, int32_t owner,
                      int64_t offset, int32_t priority)
{
    (void)owner;
    (void)priority;
    if (buffer == NULL || length < 0)
        return -EINVAL;

    ssize_t n;
    do {
        n = offset == FSAL2_FILE_CURRENT_POSITION ? read(handle, buffer, (size_t)length)
                                                  : pread(handle, buffer, (size_t)length, offset);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return -errno;
    return (int32_t)n;
}

int32_t fsal2FileWrite(int32_t handle, const void* buffer, int32_t length, int32_t owner,
                       int64_t offset, int32_t priority)
{
    (void)owner;
    (void)priority;
    if (buffer == NULL || length < 0)
        return -EINVAL;

    const char* p = (const char*)buffer;
    int32_t done = 0;
    while (done < length) { /* a short write is continued: the caller sees all or an error */
        ssize_t n = offset == FSAL2_FILE_CURRENT_POSITION
                        ? write(handle, p + done, (size_t)(length - done))
                        : pwrite(handle, p + done, (size_t)(length - done), offset + done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        if (n == 0)
            return -EIO; /* no progress: never loop on a device that takes nothing */
        done += (int32_t)n;
    }
    return done;
}

int32_t fsal2FileClose(int32_t handle, int32_t owner)
{
    (void)owner;
    if (close(handle) < 0)
        return -errno;
    return 0;
}
