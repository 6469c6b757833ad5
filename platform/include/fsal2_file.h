/** \file
 * fsal2_file.h - the platform file layer: open, read, write and close files on a volume.
 *
 * A stand-in for the platform's file-abstraction library, with the functions libtarvotools-mt
 * imports, working on the local file system. All functions have C linkage.
 *
 * Handles: a successful open returns a handle >= 0. In this stand-in the handle is the POSIX
 * descriptor of the opened file, so callers that write on it with write(2) reach the same file
 * (existing callers do). Failures return a negative errno value.
 *
 * The owner and priority arguments tag a request for the platform's scheduler of storage
 * requests; the stand-in accepts any value and ignores them. */
#ifndef FSAL2_FILE_H
#define FSAL2_FILE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Open flags: a bit set. With no access bit the file is opened for reading only. Files are
 * never truncated on open: writing over a longer file leaves its tail in place. */
enum {
    FSAL2_FILE_READ = 0x01,        /**< open for reading (also the access when no bit is given) */
    FSAL2_FILE_WRITE = 0x02,       /**< open for reading and writing */
    FSAL2_FILE_CREATE = 0x04,      /**< create the file (mode 0666 less the umask) if missing */
    FSAL2_FILE_CREATE_POSIX = 0x40 /**< the same as FSAL2_FILE_CREATE, at the bit of O_CREAT */
};

/** The offset that means "at the current position of the handle". */
#define FSAL2_FILE_CURRENT_POSITION ((int64_t)-1)

/** Opens path on volume with the given flags. volume selects the storage the path lives on;
 * the stand-in has one, the local file system, and takes every path as it is (any volume
 * value is accepted). Returns a handle >= 0, -EINVAL for a null path or unknown flag bits, or
 * the negative errno of the failed open. */
int32_t fsal2FileOpen(int32_t volume, const char* path, int32_t flags, int32_t owner);

/** Reads up to length bytes into buffer at offset (FSAL2_FILE_CURRENT_POSITION: at the current
 * position, which then advances). Returns the number of bytes read, 0 at the end of the file,
 * -EINVAL for a negative length or a null buffer, or the negative errno of the failed read. */
int32_t fsal2FileRead(int32_t handle, void* buffer, int32_t length, int32_t owner,
                      int64_t offset, int32_t priority);

/** Writes length bytes from buffer at offset (FSAL2_FILE_CURRENT_POSITION: at the current
 * position). Writes everything unless an error occurs: returns length, -EINVAL for a negative
 * length or a null buffer, or the negative errno of the failed write. */
int32_t fsal2FileWrite(int32_t handle, const void* buffer, int32_t length, int32_t owner,
                       int64_t offset, int32_t priority);

/** Closes the handle. Returns 0, or the negative errno of the failed close (-EBADF for a
 * handle that is not open, such as the negative result of a failed open). */
int32_t fsal2FileClose(int32_t handle, int32_t owner);

#ifdef __cplusplus
}
#endif

#endif /* FSAL2_FILE_H */
