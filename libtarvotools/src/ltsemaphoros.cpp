//===- ltsemaphoros.cpp - Signals between processes via named semaphores --===//
//
// lock() and unlock() share one open / operate / close sequence and differ only in the
// operation. Messages go to syslog, not to the platform debug output.
//
//===----------------------------------------------------------------------===//
#include "ltsemaphoros.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <syslog.h>

#include "ltresult.h"

namespace {

constexpr mode_t kCreateMode = 0666;     // before the process umask
constexpr unsigned kInitialValue = 0;    // a new semaphore starts "taken": it is a signal

enum class Operation { Wait, Post };

int openOperateClose(const std::string& name, int oflag, Operation op)
{
    sem_t* sem = (oflag & O_CREAT) != 0 ? sem_open(name.c_str(), oflag, kCreateMode, kInitialValue)
                                        : sem_open(name.c_str(), oflag);
    if (sem == SEM_FAILED) {
        syslog(LOG_ERR, "ltSemaPhoros: Couldn't open %s", name.c_str());
        return lt_internal::kFailed;
    }

    int result = lt_internal::kOk;
    if (op == Operation::Wait) {
        // One sem_wait, not repeated on EINTR: an interrupted wait is a failure, by design.
        if (sem_wait(sem) == -1) {
            syslog(LOG_ERR, "ltSemaPhoros: Couldn't wait %s", name.c_str());
            result = lt_internal::kFailed;
        }
    } else if (sem_post(sem) == -1) {
        syslog(LOG_ERR, "ltSemaPhoros: Couldn't post %s", name.c_str());
        result = lt_internal::kFailed;
    }

    if (sem_close(sem) == -1)  // a failed close is reported but does not change the result
        syslog(LOG_WARNING, "ltSemaPhoros: Couldn't close %s", name.c_str());
    return result;
}

}  // namespace

ltSemaPhoros::ltSemaPhoros(const std::string&& name) : name(name) {}

int ltSemaPhoros::lock(int oflag) const
{
    return openOperateClose(name, oflag, Operation::Wait);
}

int ltSemaPhoros::unlock(int oflag) const
{
    return openOperateClose(name, oflag, Operation::Post);
}
