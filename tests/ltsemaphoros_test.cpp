// The named semaphore; syslog is interposed below to collect its lines.
#include "ltsemaphoros.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

using Lines = std::vector<std::pair<int, std::string>>;  // (priority, text)
static Lines logged;

#define LT_RECORD_LINE \
    char text[256]; va_list args; va_start(args, format); vsnprintf(text, sizeof text, format, args); va_end(args); logged.emplace_back(priority, text)

extern "C" void syslog(int priority, const char* format, ...) { LT_RECORD_LINE; }
extern "C" void __syslog_chk(int priority, int, const char* format, ...) { LT_RECORD_LINE; }  // fortified

namespace {

// A name of this process's own, unlinked before and after use.
struct UniqueName {
    explicit UniqueName(const char* what) : name("/lt_test_" + std::to_string(getpid()) + what) { (void)sem_unlink(name.c_str()); logged.clear(); }
    ~UniqueName() { (void)sem_unlink(name.c_str()); }
    ltSemaPhoros object() const { return ltSemaPhoros(std::string(name)); }
    int value() const  // -1: no such semaphore
    {
        int v = -1;
        if (sem_t* sem = sem_open(name.c_str(), 0); sem != SEM_FAILED)
            sem_getvalue(sem, &v), sem_close(sem);
        return v;
    }
    const std::string name;
};

TEST(SemaphoreSignal, CreatesAtZeroPostsOnceAndReportsEachFailedStep)
{
    UniqueName n("_steps"), full("_full");
    const ltSemaPhoros sem = n.object();
    EXPECT_EQ(-1, sem.lock(0));  // no such semaphore: fails at once
    const mode_t oldMask = umask(0);
    EXPECT_EQ(0, sem.unlock(O_CREAT));  // created at 0, then posted once
    umask(oldMask);
    EXPECT_EQ(1, n.value());
    struct stat st;
    ASSERT_EQ(0, stat(("/dev/shm/sem." + n.name.substr(1)).c_str(), &st));
    EXPECT_EQ(0666U, st.st_mode & 0777);
    EXPECT_EQ(-1, sem.lock(O_CREAT | O_EXCL));  // exists: the open fails, no wait
    EXPECT_EQ(0, sem.lock(0));  // takes the posted value without blocking
    EXPECT_EQ(0, n.value());

    sem_t* raw = sem_open(full.name.c_str(), O_CREAT, 0600, SEM_VALUE_MAX);
    ASSERT_TRUE(raw != SEM_FAILED && sem_close(raw) == 0);
    EXPECT_EQ(-1, full.object().unlock(0));  // a post past the maximum fails
    EXPECT_EQ((Lines{{LOG_ERR, "ltSemaPhoros: Couldn't open " + n.name},
                     {LOG_ERR, "ltSemaPhoros: Couldn't open " + n.name},
                     {LOG_ERR, "ltSemaPhoros: Couldn't post " + full.name}}),
              logged);

    UniqueName e("_eintr");
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};  // no SA_RESTART: the wait returns EINTR
    ASSERT_EQ(0, sigaction(SIGALRM, &sa, nullptr));
    itimerval every100ms = {{0, 100000}, {0, 100000}};  // repeats until the wait is cut short
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &every100ms, nullptr));
    const int result = e.object().lock(O_CREAT);  // value 0: blocks until a signal
    itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(-1, result);
    EXPECT_EQ((Lines{{LOG_ERR, "ltSemaPhoros: Couldn't wait " + e.name}}), logged);
}

}  // namespace
