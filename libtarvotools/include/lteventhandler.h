//===- lteventhandler.h - Receiver of events from an event queue -----------===//
///
/// \class ltEventHandler
/// ltEventHandler is the abstract receiver of events: it holds the mask that selects its
/// events, user data, an optional lethal time after which the queue drops it, and flags that
/// say whether it survives an invocation and who deletes it. ltCallbackEventHandler is the
/// concrete handler that forwards to a plain function.
///
/// The queue calls invoke() on the loop thread:
///   - reason kReasonEvent (0) for an event being dispatched. The result: negative stops the
///     event from reaching further handlers; 0 asks the queue to keep the event and put it
///     back; positive lets it go on to the next handler.
///   - reason kReasonLethalTime (1), with a null event, when the lethal time is reached.
///
/// A handler without kPersistent is removed after its first invocation, whatever it returns.
///
/// The order of the virtual operations is part of the interface: the destructor, then invoke.
///
//===----------------------------------------------------------------------===//
#ifndef LTEVENTHANDLER_H
#define LTEVENTHANDLER_H

#include <cstdint>

#include "lfcobject.h"
#include "ltexport.h"
#include "lttime.h"

class ltEvent;
class ltEventMask;
class ltEventQueue;

class LT_EXPORT ltEventHandler : public lfcObject {
public:
    // Flags.
    static constexpr int kOwnsMask = 0x1;    ///< the destructor deletes the mask
    static constexpr int kPersistent = 0x2;  ///< stays after an invocation or its lethal time
    static constexpr int kNotOwned = 0x4;    ///< the queue never deletes it; its id is reset to 0
    // Reasons passed to invoke().
    static constexpr int kReasonEvent = 0;       ///< an event is being dispatched
    static constexpr int kReasonLethalTime = 1;  ///< the lethal time is reached; no event

    /// Stores the mask (ownership per kOwnsMask), the user data, a copy of *lethalTime or
    /// seconds -1 (no lethal time) when lethalTime is null, and the flags.
    ltEventHandler(ltEventMask* mask, void* userData, ltTime* lethalTime, int flags);
    /// Deletes the mask when it is not null and kOwnsMask is set.
    ~ltEventHandler() override;
    /// Handles one event (reason 0) or the lethal time (reason 1, null event). Loop thread.
    virtual int invoke(ltEventQueue& queue, ltEvent* event, int reason) = 0;

    /// Copies t into the lethal time. Takes effect when the handler is added to a queue.
    void setLethalTime(const ltTime& t);

    // Plain fields, in this order.
    ltEventMask* mask;      ///< events offered are those this mask matches (all, when null)
    void* userData;         ///< handed to the callback
    ltTime lethalTime;      ///< seconds -1: none
    int flags;              ///< kOwnsMask, kPersistent, kNotOwned
    uint64_t id;            ///< given by the queue; reset to 0 on removal with kNotOwned
    int groupTag;           ///< compared by removeEventHandlers; 0 matches every group
    ltEventQueue* owner;    ///< set when added; never cleared, so a handler joins one queue only
    int priority;           ///< set when added
};

#endif // LTEVENTHANDLER_H
