//===- lttimerindex.h - Earliest expiry over ranges of timer slots (internal) ===//
//
// The loop fires expired timers in slot order and sleeps until the earliest expiry of its
// table. Walking every armed slot for both costs a pass with thousands of timers tens of
// microseconds, even when one timer fires. TimerIndex is a min tree over the slots of the
// timer table: each leaf holds the expiry of its slot (or nothing), each inner node the
// earliest expiry below it. The earliest expiry is the root; the next expired slot at or after
// a given slot is one walk up and one walk down. Updates are a walk up.
//
// Expiries are compared as (sec, usec) pairs of signed 32-bit values, packed into one unsigned
// 64-bit key that sorts the same way. The one pair that would pack to the empty key is
// rounded down by one microsecond; callers re-check a slot against its entry before firing
// it, so the index only has to find every due slot, never to decide alone.
//
// Not synchronised: the loop keeps it under its timer mutex, in a side table beside the loop
// (the loop's layout has no field for it). It holds only slots in use: an expiry in second 0 is
// the table's free key and is never set here.
//
//===----------------------------------------------------------------------===//
#ifndef LTTIMERINDEX_H
#define LTTIMERINDEX_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "lttime.h"

namespace lt_internal {

class TimerIndex {
public:
    TimerIndex() = default;
    ~TimerIndex() { std::free(nodes_); }
    TimerIndex(const TimerIndex&) = delete;
    TimerIndex& operator=(const TimerIndex&) = delete;

    /// Number of slots covered; 0 until reset() succeeded.
    int slots() const { return slots_; }

    /// Covers 'slots' slots (a power of two), all empty. False, covering none, when the memory
    /// cannot be had.
    bool reset(int slots)
    {
        std::free(nodes_);
        nodes_ = nullptr;
        slots_ = 0;
        if (slots <= 0 || (slots & (slots - 1)) != 0)
            return false;
        nodes_ = static_cast<uint64_t*>(std::malloc(2 * static_cast<size_t>(slots) * sizeof(uint64_t)));
        if (nodes_ == nullptr)
            return false;
        std::memset(nodes_, 0xFF, 2 * static_cast<size_t>(slots) * sizeof(uint64_t));  // all kEmpty
        slots_ = slots;
        return true;
    }

    /// Slot 'slot' holds a timer expiring at 'expiry'.
    void set(int slot, const ltTime& expiry) { update(slot, keyOf(expiry)); }
    /// Slot 'slot' holds no timer.
    void clear(int slot) { update(slot, kEmpty); }

    /// Fills the leaves in one go, then the inner nodes: for a table built or grown at once.
    /// expiryAt(slot) returns null for a free slot.
    template <typename ExpiryAt>
    void rebuild(ExpiryAt expiryAt)
    {
        for (int slot = 0; slot < slots_; ++slot) {
            const ltTime* expiry = expiryAt(slot);
            nodes_[slots_ + slot] = expiry != nullptr ? keyOf(*expiry) : kEmpty;
        }
        for (int node = slots_ - 1; node >= 1; --node)
            nodes_[node] = min(nodes_[2 * node], nodes_[2 * node + 1]);
    }

    /// The earliest expiry of all slots; false when every slot is empty.
    bool earliest(ltTime& expiry) const
    {
        if (slots_ == 0 || nodes_[1] == kEmpty)
            return false;
        expiry = timeOf(nodes_[1]);
        return true;
    }

    /// The first slot at or after 'from' whose expiry is not later than 'now'; slots() when
    /// there is none.
    int firstDue(int from, const ltTime& now) const
    {
        if (from >= slots_)
            return slots_;
        const uint64_t limit = keyOf(now);
        uint32_t node = static_cast<uint32_t>(slots_ + from);
        // Up and to the right until a subtree holds a due slot...
        while (nodes_[node] > limit) {
            while ((node & 1u) != 0)
                node >>= 1;  // a right child: its parent ends where it ends
            if (node == 0)
                return slots_;  // climbed out of the root: nothing due to the right of 'from'
            node += 1;
        }
        // ...then down to its leftmost due leaf.
        while (node < static_cast<uint32_t>(slots_)) {
            node *= 2;
            if (nodes_[node] > limit)
                node += 1;
        }
        return static_cast<int>(node) - slots_;
    }

private:
    static constexpr uint64_t kEmpty = ~uint64_t{0};

    static uint64_t min(uint64_t a, uint64_t b) { return a < b ? a : b; }

    // Flipping the sign bits turns signed order into unsigned order, seconds first.
    static uint64_t keyOf(const ltTime& t)
    {
        const uint64_t key = (uint64_t{static_cast<uint32_t>(t.sec) ^ 0x80000000u} << 32) |
                             (static_cast<uint32_t>(t.usec) ^ 0x80000000u);
        return key == kEmpty ? kEmpty - 1 : key;
    }
    static ltTime timeOf(uint64_t key)
    {
        return ltTime(static_cast<int32_t>(static_cast<uint32_t>(key >> 32) ^ 0x80000000u),
                      static_cast<int32_t>(static_cast<uint32_t>(key) ^ 0x80000000u));
    }

    void update(int slot, uint64_t key)
    {
        uint32_t node = static_cast<uint32_t>(slots_ + slot);
        nodes_[node] = key;
        for (node >>= 1; node >= 1; node >>= 1) {
            const uint64_t least = min(nodes_[2 * node], nodes_[2 * node + 1]);
            if (nodes_[node] == least)
                break;  // nothing above changes
            nodes_[node] = least;
        }
    }

    uint64_t* nodes_ = nullptr;  // [1] the root, [slots_ + i] the leaf of slot i; [0] unused
    int slots_ = 0;
};

}  // namespace lt_internal

#endif  // LTTIMERINDEX_H
