//===- ltcallbackeventhandler.cpp - An event handler that calls a function -===//
#include "ltcallbackeventhandler.h"

ltCallbackEventHandler::ltCallbackEventHandler(ltEventMask* m, void* data, ltTime* lethal, int f,
                                               ltEventHandlerCallback cb)
    : ltEventHandler(m, data, lethal, f), callback(cb)
{
}

ltCallbackEventHandler::~ltCallbackEventHandler() = default;

int ltCallbackEventHandler::invoke(ltEventQueue& queue, ltEvent* event, int reason)
{
    if (callback == nullptr)
        return 0;
    return callback(queue, event, reason, userData);
}
