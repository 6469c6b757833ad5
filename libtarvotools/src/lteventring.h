//===- lteventring.h - The event queue's vector used as a ring (internal) --===//
//
// EventRing is a view that keeps posted events in the array of an lfcVector as a ring: the
// oldest event sits at slot 'head', the others follow it and wrap around at the vector's
// capacity. Taking the oldest events and appending a new one are O(1) per event, where
// lfcVector::remove(0, 1) would move every queued pointer.
//
// The first 'skipped' events of the ring are those put back at the current known time: the
// queue does not hand them out again while that time stands, and it cannot change while they
// are queued, so their order among themselves does not matter. takeFront() takes the events
// behind them and pushFront() adds one to them, each in O(1) per event.
//
// The vector's fields keep their meaning: size is the number of events in the ring, and
// capacity grows by growBy through expandTo() (the array put back in plain order first).
// The queue also counts the events that it holds outside the ring (claimed by the loop
// thread or being dispatched); reserveFor() takes that total, so that an event coming back
// into the ring always finds a slot.
//
// Not synchronised: the queue holds its mutex around every call.
//
//===----------------------------------------------------------------------===//
#ifndef LTEVENTRING_H
#define LTEVENTRING_H

#include <algorithm>
#include <cstring>

#include "lfcvector.h"
#include "ltevent.h"
#include "ltresult.h"

namespace lt_internal {

class EventRing {
public:
    EventRing(lfcVector& storage, int& head) : v_(storage), head_(head) {}

    int size() const { return v_.size; }

    // The event at position i from the oldest (0 <= i < size()).
    ltEvent* at(int i) const { return static_cast<ltEvent*>(v_.data[slot(i)]); }

    // Makes room for one more event when 'total' events are queued in all (this ring's
    // among them): grows as lfcVector::add on a vector of 'total' entries would. kOk or
    // kNoMemory (ring unchanged).
    int reserveFor(int total)
    {
        if (total < v_.capacity && v_.data != nullptr)
            return kOk;
        straighten();
        return v_.expandTo(total + v_.growBy) == kOk ? kOk : kNoMemory;
    }

    // Appends e as the newest event; reserveFor() must have made room.
    void push(ltEvent* e)
    {
        v_.data[slot(v_.size)] = e;
        v_.size += 1;
    }

    // Adds e in front of the oldest event; reserveFor() must have made room.
    void pushFront(ltEvent* e)
    {
        head_ = head_ == 0 ? v_.capacity - 1 : head_ - 1;
        v_.data[head_] = e;
        v_.size += 1;
    }

    // Moves up to max of the oldest events behind the first 'skipped' ones, oldest first,
    // into out; returns how many. The skipped events stay in front, perhaps reordered.
    int takeFront(ltEvent** out, int max, int skipped = 0)
    {
        const int n = std::min(max, v_.size - skipped);
        for (int i = 0; i < n; ++i)
            out[i] = at(skipped + i);
        // The skipped events end up at positions n .. n + skipped - 1: those not there yet
        // fill the slots just emptied.
        const int moved = std::min(n, skipped);
        for (int k = 0; k < moved; ++k)
            v_.data[slot(std::max(n, skipped) + k)] = v_.data[slot(k)];
        head_ = n < v_.size ? slot(n) : 0;
        v_.size -= n;
        return n;
    }

    // Removes e wherever it is, keeping the order of the others. Its former position, or -1
    // when it is absent.
    int remove(const ltEvent* e)
    {
        int i = 0;
        while (i < v_.size && v_.data[slot(i)] != e)
            ++i;
        if (i == v_.size)
            return -1;
        if (i < v_.size - 1 - i) {
            // Nearer the front: move the events before it one slot towards the back.
            for (int k = i; k > 0; --k)
                v_.data[slot(k)] = v_.data[slot(k - 1)];
            head_ = slot(1);
        } else {
            for (int k = i; k < v_.size - 1; ++k)
                v_.data[slot(k)] = v_.data[slot(k + 1)];
        }
        v_.size -= 1;
        if (v_.size == 0)
            head_ = 0;
        return i;
    }

private:
    int slot(int i) const
    {
        const int s = head_ + i;
        return s < v_.capacity ? s : s - v_.capacity;
    }

    // Puts the events in plain order at the start of the array, as expandTo() copies them.
    void straighten()
    {
        if (head_ == 0 || v_.size == 0) {
            head_ = 0;
            return;
        }
        if (head_ + v_.size <= v_.capacity)
            std::memmove(v_.data, v_.data + head_, static_cast<size_t>(v_.size) * sizeof(lfcObject*));
        else
            std::rotate(v_.data, v_.data + head_, v_.data + v_.capacity);  // wrapped: one turn
        head_ = 0;
    }

    lfcVector& v_;
    int& head_;  // slot of the oldest event
};

}  // namespace lt_internal

#endif // LTEVENTRING_H
