// A tiny application of the installed library: a timer on the main loop ends the process.
#include <cstdio>
#include <cstdlib>

#include "ltlinuxselectmainloop.h"

static int done(int, const ltTime&, void*)
{
    std::printf("consumer: timer fired on the installed library\n");
    std::exit(0);
}

int main()
{
    ltLinuxSelectMainLoop* loop = ltLinuxSelectMainLoop::getMainLoop();
    if (loop->addTimer(timerPeriodic, ltTime::noTime, ltTime(0, 10000), done, nullptr) == 0)
        return 1;
    loop->exec();
}
