//===- ltsemaphoros.h - Signals between processes via named semaphores ----===//
///
/// \class ltSemaPhoros
/// ltSemaPhoros holds the name of a POSIX named semaphore. Every lock() or unlock() opens the
/// semaphore by that name, does one wait or one post, and closes it again: no handle is kept
/// between calls, and the object can be made and dropped freely on either side.
///
/// A semaphore created here starts at 0, so the first lock() on a fresh name blocks until some
/// process calls unlock(): the class is a signal (one side waits, the other posts), not a mutex
/// that starts unlocked. This class never unlinks the semaphore.
///
/// Failures go to the system log (default facility; openlog is never called):
/// ```
///   LOG_ERR     "ltSemaPhoros: Couldn't open %s"   sem_open failed; nothing else is tried
///   LOG_ERR     "ltSemaPhoros: Couldn't wait %s"   sem_wait failed (EINTR included)
///   LOG_ERR     "ltSemaPhoros: Couldn't post %s"   sem_post failed
///   LOG_WARNING "ltSemaPhoros: Couldn't close %s"  sem_close failed; the result stands
/// ```
/// The object is immutable and keeps no handle: any thread, several at once.
///
//===----------------------------------------------------------------------===//
#ifndef LTSEMAPHOROS_H
#define LTSEMAPHOROS_H

#include <string>

#include "ltexport.h"

class LT_EXPORT ltSemaPhoros {
public:
    /// Copies the name, which is passed to sem_open as it stands (POSIX form: one leading
    /// slash and no other); touches no system object. Takes an rvalue (a temporary or a
    /// std::move'd string): kept, existing callers are built against this signature.
    explicit ltSemaPhoros(const std::string&& name);

    /// Opens the semaphore with the sem_open flags 'oflag' (O_CREAT, optionally with O_EXCL,
    /// or 0 for an existing one only; with O_CREAT a new semaphore gets mode 0666 before the
    /// umask and value 0), waits on it once and closes it. Blocks while the value is 0.
    /// Returns 0, or -1 when the open or the wait failed. A wait interrupted by a signal is
    /// not repeated: it counts as a failure.
    int lock(int oflag) const;

    /// As lock(), but posts once instead of waiting. Returns 0, or -1 when the open or the
    /// post failed.
    int unlock(int oflag) const;

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    std::string name;  // as given to the constructor; neither validated nor altered
};

#endif // LTSEMAPHOROS_H
