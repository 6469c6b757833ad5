// tour_mainloop.cpp - the main loop: a periodic timer and a pipe written by another thread.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "ltlinuxselectmainloop.h"
#include "tour.h"

namespace {

int ticks = 0;

int onTick(int id, const ltTime& expiry, void*)
{
    ++ticks;
    std::printf("  timer %d fired (tick %d, due at %d.%06d s on the monotonic clock)\n", id, ticks,
                expiry.sec, expiry.usec);
    if (ticks == 3) {
        std::printf("  timer %d removes itself after three ticks\n", id);
        ltLinuxSelectMainLoop::getMainLoop()->removeTimer(id);
    }
    std::fflush(stdout);
    return 0;
}

int onReadable(int id, int fd, void*)
{
    char buffer[64];
    const ssize_t n = read(fd, buffer, sizeof buffer - 1);
    if (n <= 0) {
        std::printf("  pipe closed: handle %d removed\n", id);
        ltLinuxSelectMainLoop::getMainLoop()->removeIOHandle(id);
        close(fd);
        return 0;
    }
    buffer[n] = '\0';
    std::printf("  handle %d: read \"%s\" from fd %d on the loop thread\n", id, buffer, fd);
    std::fflush(stdout);
    return 0;
}

}  // namespace

void tourMainLoop(ltLinuxSelectMainLoop& loop)
{
    tourHeading("Main loop: a periodic timer and a watched pipe");
    std::printf("A periodic timer every 500 ms, and a pipe that a worker thread writes into.\n"
                "Both callbacks run on the loop thread, with no library lock held.\n");

    const int timer = loop.addTimer(timerPeriodic, ltTime::noTime, ltTime(0, 500000), onTick, nullptr);
    std::printf("  added periodic timer %d\n", timer);

    int fds[2];
    if (pipe(fds) != 0) {
        std::perror("pipe");
        return;
    }
    const int handle = loop.addIOHandle(handleRead, fds[0], onReadable, nullptr);
    std::printf("  watching fd %d for reading as handle %d\n", fds[0], handle);

    // Adding a handle wakes the loop, which then rebuilds its descriptor sets. The loop
    // watches the descriptors only on a pass after the handle table changed, so the worker
    // re-adds the handle before each write to have it watched again.
    const int writeFd = fds[1];
    std::thread([writeFd] {
        const char* words[] = {"hello", "from", "a worker"};
        for (const char* w : words) {
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
            (void)!write(writeFd, w, strlen(w));
            ltLinuxSelectMainLoop* l = ltLinuxSelectMainLoop::getMainLoop();
            l->removeIOHandle(l->addIOHandle(handleWrite, writeFd, nullptr, nullptr));
        }
    }).detach();
}
