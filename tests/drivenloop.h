//===- drivenloop.h - A select loop whose passes the test drives (tests) ---===//
// The test's thread plays the loop thread, a pass at a time: pass() wakes the loop first, so it
// never blocks in select(); waitingPass() does not. Made with started = false, begin() starts it.
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
