//===- lteventhandler.cpp - Receiver of events from an event queue ---------===//
#include "lteventhandler.h"

#include "lteventmask.h"

ltEventHandler::ltEventHandler(ltEventMask* m, void* data, ltTime* lethal, int f)
    : mask(m), userData(data), lethalTime(lethal != nullptr ? *lethal : ltTime::noTime), flags(f),
      id(0), groupTag(0), owner(nullptr), priority(0)
{
}

ltEventHandler::~ltEventHandler()
{
    if (mask != nullptr && (flags & kOwnsMask) != 0)
        delete mask;
}

void ltEventHandler::setLethalTime(const ltTime& t)
{
    lethalTime = t;
}
