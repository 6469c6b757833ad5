// demo.cpp - a guided tour of libtarvotools-mt.
//
// The sections that need no main loop run first and return. Then the loop sections arm
// their timers, descriptors and event handlers on the process-wide loop, and main() runs it.
// exec() never returns, so a last timer ends the process once the tour is over.
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "ltlinuxselectmainloop.h"
#include "tour.h"

void tourHeading(const char* title)
{
    std::printf("\n=== %s ===\n", title);
    std::fflush(stdout);
}

namespace {

int endTour(int, const ltTime&, void*)
{
    tourHeading("End of the tour");
    std::printf("The main loop never returns, so this last timer ends the process.\n");
    std::fflush(stdout);
    std::exit(EXIT_SUCCESS);
}

}  // namespace

int main()
{
    std::printf("libtarvotools-mt: a tour of the library\n");

    tourTimerQueueAndExecutor();
    tourConfigAndUris();
    tourCrypto();
    tourContainers();

    // The loop is a lazily created singleton: get it before any other thread uses it.
    ltLinuxSelectMainLoop* loop = ltLinuxSelectMainLoop::getMainLoop();
    tourMainLoop(*loop);
    tourEvents(*loop);

    // A one-shot timer is always absolute (wall clock): end the tour a few seconds from now.
    ltTime end = ltTime(static_cast<int32_t>(std::time(nullptr)) + kTourLoopSeconds + 1, 0);
    loop->addTimer(timerAbsolute, end, ltTime::noTime, endTour, nullptr);
    std::printf("\nRunning the main loop for about %d seconds...\n", kTourLoopSeconds + 1);
    std::fflush(stdout);
    loop->exec();
}
