//===- ltcallbackeventhandler.h - An event handler that calls a function ---===//
///
/// \file
/// ltCallbackEventHandler forwards every invocation to a plain function together with the
/// handler's user data. With no function it returns 0 from every invocation, so the queue
/// keeps each event it matches.
///
//===----------------------------------------------------------------------===//
#ifndef LTCALLBACKEVENTHANDLER_H
#define LTCALLBACKEVENTHANDLER_H

#include "lteventhandler.h"
#include "ltexport.h"

/// (queue, event or null, reason, user data); the result as for ltEventHandler::invoke.
typedef int (*ltEventHandlerCallback)(ltEventQueue& queue, ltEvent* event, int reason, void* userData);

/// An event handler that forwards every invocation to a plain function; see the file comment.
class LT_EXPORT ltCallbackEventHandler : public ltEventHandler {
public:
    /// As ltEventHandler's constructor, plus the function to call; callback may be null.
    ltCallbackEventHandler(ltEventMask* mask, void* userData, ltTime* lethalTime, int flags,
                           ltEventHandlerCallback callback);
    ~ltCallbackEventHandler() override;
    /// 0 without a callback, else callback(queue, event, reason, userData).
    int invoke(ltEventQueue& queue, ltEvent* event, int reason) override;

    ltEventHandlerCallback callback;  ///< called by invoke(); may be null
};

#endif // LTCALLBACKEVENTHANDLER_H
