//===- ltmainloopmember.h - Something the main loop runs on every pass ----===//
///
/// \class ltMainLoopMember
/// A registered member (chiefly an ltEventQueue) is asked on every pass of the loop, on the
/// loop thread and with no loop mutex held, for its next piece of work until it says that it
/// has nothing more.
///
//===----------------------------------------------------------------------===//
#ifndef LTMAINLOOPMEMBER_H
#define LTMAINLOOPMEMBER_H

#include "ltexport.h"

class LT_EXPORT ltMainLoopMember {
public:
    /// Does one piece of work. 0 asks to be called again at once; any other value means that
    /// nothing more is to be done on this pass. Loop thread only.
    virtual int processNextEvent() = 0;
    virtual ~ltMainLoopMember();
};

#endif // LTMAINLOOPMEMBER_H
