//===- ltevent.h - The record posted into an event queue ------------------===//
///
/// \class ltEvent
/// An ltEvent carries four unsigned keys and an optional data string that event masks match
/// on, a priority, and the times the queue needs: when it was posted (the queue's known time),
/// until when it may live, and when the queue last put it back.
///
/// Ownership: a successful ltEventQueue::post hands the event to the queue, which deletes it
/// (through the virtual destructor) when it is finished or expired. Allocate events with new
/// and do not touch one after posting it. The event owns its data string unless bit 24 of the
/// data word is set; owned data must come from malloc.
///
//===----------------------------------------------------------------------===//
#ifndef LTEVENT_H
#define LTEVENT_H

#include <cstdint>

#include "lfcobject.h"
#include "ltexport.h"
#include "lttime.h"

class ltEventQueue;

class LT_EXPORT ltEvent : public lfcObject {
public:
    /// Bit of the data word: the data string is not owned (not freed) by the event.
    static constexpr int kDataNotOwned = 1 << 24;

    /// Stores the keys, the data pointer (not copied) and the data word; the deferral and
    /// lethal times start at (0, 0), the TTL timer id at 0, the priority at 0, no owner.
    ltEvent(unsigned key1, unsigned key2, unsigned key3, unsigned key4, const char* data, int dataWord);
    /// Frees the data with free() when it is not null and kDataNotOwned is clear.
    ~ltEvent() override;

    /// Sets prio, which the queue does not use for ordering.
    void setPrio(unsigned short p);
    /// Sets the time stamp; post() overwrites it with the queue's known time.
    void setTimeStamp(ltTime& t);
    /// Sets the lethal time directly.
    void setLethalTime(ltTime& t);
    /// lethal time = time stamp + ttl, the microseconds carried into seconds (truncating).
    void setTTL(ltTime& ttl);
    /// The same with ttl = (ms / 1000 s, (ms % 1000) * 1000 us).
    void setTTL(int ms);

    // Plain fields, in this order.
    uint32_t key1;            ///< field 1 of an event mask
    uint32_t key2;            ///< field 2
    uint32_t key3;            ///< field 3
    uint32_t key4;            ///< field 4
    ltTime timeStamp;         ///< the queue's known time when posted
    ltTime deferralTime;      ///< the known time at which the queue last put the event back
    ltTime lethalTime;        ///< end of the event's life when a TTL was given
    int ttlTimerId;           ///< main-loop timer that expires the event; 0 when none
    const char* data;         ///< optional text, field 5 of an event mask; may be null
    int dataWord;             ///< kDataNotOwned; the other bits are the application's
    uint16_t prio;            ///< not used by the queue for ordering
    ltEventQueue* owner;      ///< set by post; an owned event cannot be posted again
};

#endif // LTEVENT_H
