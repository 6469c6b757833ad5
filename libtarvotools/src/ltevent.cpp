//===- ltevent.cpp - The record posted into an event queue ----------------===//
#include "ltevent.h"

#include <cstdlib>

ltEvent::ltEvent(unsigned k1, unsigned k2, unsigned k3, unsigned k4, const char* d, int word)
    : key1(k1), key2(k2), key3(k3), key4(k4),
      timeStamp(0, 0),  // stamped by post; zero until then rather than garbage
      deferralTime(0, 0), lethalTime(0, 0), ttlTimerId(0), data(d), dataWord(word), prio(0),
      owner(nullptr)
{
}

ltEvent::~ltEvent()
{
    if (data != nullptr && (dataWord & kDataNotOwned) == 0)
        std::free(const_cast<char*>(data));
}

void ltEvent::setPrio(unsigned short p)
{
    prio = p;
}

void ltEvent::setTimeStamp(ltTime& t)
{
    timeStamp = t;
}

void ltEvent::setLethalTime(ltTime& t)
{
    lethalTime = t;
}

void ltEvent::setTTL(ltTime& ttl)
{
    lethalTime = ltTimeAdd(timeStamp, ttl);
}

void ltEvent::setTTL(int ms)
{
    ltTime ttl = ltTimeFromMs(ms);
    setTTL(ttl);
}
