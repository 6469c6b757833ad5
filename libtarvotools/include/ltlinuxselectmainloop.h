//===- ltlinuxselectmainloop.h - The process-wide select() main loop ------===//
///
/// \class ltLinuxSelectMainLoop
/// The library's concrete main loop: a process-wide singleton that waits in select() on the
/// watched descriptors and a private wake-up pipe, with a time-out taken from the earliest
/// armed timer. exec() holds the calling thread for good; run() is the same loop, left again
/// through quit().
///
/// Things a caller must know (kept: applications rely on them):
///   - The descriptor sets are rebuilt only on a pass after the handle table changed, and are
///     cleared on every pass: on a pass after which no handle was added or removed, select()
///     watches only the wake-up pipe and the time-out. A handle added with
///     addPersistentIOHandle() is watched on every pass instead.
///   - exec() never returns and ignores quit(); new code calls run() and quit().
///   - Any number of wake-ups between two select() returns are written as one byte.
///   - A handle of type 3 is never dispatched, but its fd still counts for select()'s nfds.
///   - A periodic timer with a zero period keeps the loop firing timers for ever.
///   - A descriptor closed without removing its handle is still put into the sets whenever
///     they are rebuilt. Errors of select() are not reported: the loop starts a new pass.
///   - A descriptor at or past FD_SETSIZE (1024) cannot go into select()'s sets: its handle
///     is added (a non-zero id) and stored, but never watched, dispatched or counted for nfds,
///     and every rebuild of the sets says so on the platform debug output ("Descriptor %d of
///     handle %d is not below FD_SETSIZE (%d): not watched."). Applications keep their watched
///     descriptors below 1024. This guard is ours: the plain rule would write past the set.
///
//===----------------------------------------------------------------------===//
#ifndef LTLINUXSELECTMAINLOOP_H
#define LTLINUXSELECTMAINLOOP_H

#include <sys/select.h>

#include <cstdint>

#include "ltabstractmainloop.h"
#include "ltexport.h"

class LT_EXPORT ltLinuxSelectMainLoop : public ltAbstractMainLoop {
public:
    /// The process-wide loop, created with new on the first call. There is no lock: make the
    /// first call before other threads use the loop.
    static ltLinuxSelectMainLoop* getMainLoop();
    static ltLinuxSelectMainLoop* singleton_;  ///< the loop getMainLoop() made; null before

    /// Sets the pending flag (wake-ups before exec() write nothing) and creates the pipe; the
    /// result of pipe() is not checked. Applications use getMainLoop() instead.
    ltLinuxSelectMainLoop();
    /// Destroys the base only; the pipe descriptors are not closed.
    ~ltLinuxSelectMainLoop() override;

    /// Writes one byte into the wake-up pipe unless one is pending already. Any thread.
    void wakeupEventLoop() override;
    /// Runs the loop on the calling thread. Never returns: quit() does not stop it, and
    /// run() is refused on this loop from then on.
    void exec() override;

    /// Watches fd for 'type' on every pass until removeIOHandle(id), unlike the handles of
    /// doAddIOHandle(), which are watched only on the pass after the handle table changed.
    /// Otherwise the same: one id space with the other handles, the same removal, callback
    /// null means userData is an ltIOHandleReceiver, the callback runs on the loop thread with
    /// no loop mutex held and is called on every pass on which fd is ready (a readable
    /// descriptor left unread is reported again on the next pass). A descriptor at or past
    /// FD_SETSIZE is stored but never watched, as for the other handles.
    ///
    /// Returns the id, or 0 when fd is -1, the handle table is full or there is no memory.
    /// Any thread; wakes the loop. The loop owns neither fd nor userData: remove the handle
    /// before closing fd.
    int addPersistentIOHandle(handleType_t type, int fd, ltIOHandleCallback callback, void* userData);

    /// Runs the loop on the calling thread, pass after pass as exec() does, until quit() is
    /// called: the pass during which the request is seen (or, for a request made before
    /// run(), the first pass) is completed, and then run() returns 0 and consumes the
    /// request. Timers, handles, members and queued events stay where they are; a later run()
    /// carries on with them, its first pass rebuilding the descriptor sets.
    ///
    /// Returns 0 after quit(); -1 at once, without running a pass, when run() or exec() is
    /// already active on this loop (on another thread, or from inside one of its callbacks);
    /// -12 when there is no memory for the loop's bookkeeping. Call it on the thread that is
    /// to be the loop thread.
    int run();
    /// Asks run() to return at the end of the pass that sees the request, and wakes the loop.
    /// Safe from any thread and from inside any callback, member
    /// or handler on the loop thread. A request made while no run() is active is kept and
    /// makes the next run() return after one pass; requests do not add up. exec() ignores
    /// requests. Without memory for the loop's bookkeeping (made by the constructor, tried
    /// again here) the request is lost and only the wake-up remains.
    void quit();

protected:
    /// What exec() keeps in its frame from pass to pass.
    struct PassState {
        ///@{
        /// The descriptor sets as last built from the handle table.
        fd_set builtRead, builtWrite, builtException;
        ///@}
        int highestFd;  ///< highest descriptor of the last rebuild, -1 for none
    };
    ///@{
    /// exec() is beginExec(s) followed by runOnePass(s) for ever; tests drive passes singly.
    void beginExec(PassState& s);
    void runOnePass(PassState& s);
    ///@}

    /// The wake-up pipe's read end.
    int pipeReadFd() const { return pipeRead_; }

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    ltTime fireDueTimers(const ltTime& now);
    void runMembersUntilIdle();
    void rebuildDescriptorSetsIfDirty(PassState& s);
    int drainWakeupPipe(fd_set& readSet);
    void dispatchReadyDescriptors(int ready, const fd_set& r, const fd_set& w, const fd_set& x);

    // Non-zero while a wake-up byte is in the pipe; its low byte is the byte written (1).
    // Any thread, through the atomic builtins only.
    uint16_t wakeupPending_;
    int pipeRead_;
    int pipeWrite_;
};

static_assert(sizeof(void*) != 4 || (sizeof(ltLinuxSelectMainLoop) == 180 && alignof(ltLinuxSelectMainLoop) == 4),
              "on a 32-bit build: the base, the 16-bit pending flag and the two pipe ends");

#endif // LTLINUXSELECTMAINLOOP_H
