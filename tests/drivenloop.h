//===- drivenloop.h - A select loop whose passes the test drives (tests) ---===//
//
// exec() never returns, so tests run the loop one pass at a time on their own thread, which
// then plays the loop thread: no threads, no sleeps. pass() wakes the loop first, so a pass
// never blocks in select(); waitingPass() does not, for tests of what wakes it. A loop made
// with started = false is as before exec(): begin() starts it.
//
//===----------------------------------------------------------------------===//
#ifndef DRIVENLOOP_H
#define DRIVENLOOP_H

#include "ltlinuxselectmainloop.h"

class DrivenLoop : public ltLinuxSelectMainLoop {
public:
    using ltLinuxSelectMainLoop::pipeReadFd;
    using ltLinuxSelectMainLoop::PassState;

    explicit DrivenLoop(bool started = true)
    {
        if (started)
            begin();
    }
    void begin() { beginExec(state); }
    void pass()
    {
        wakeupEventLoop();
        runOnePass(state);
    }
    void waitingPass() { runOnePass(state); }

    PassState state;
};

#endif  // DRIVENLOOP_H
