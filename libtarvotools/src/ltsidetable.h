//===- ltsidetable.h - Extra state of objects whose layout is fixed (internal) ===//
//
// Applications allocate the loop and the queue themselves, with the sizes their headers give,
// so those objects cannot grow a field for the library's own bookkeeping (a timer index, an
// event ring). SideTable keeps such state beside the object instead, found by the object's
// address. One table per kind of state, so two kinds never meet on one address.
//
// Lookups take no lock: chains are append-only and a node is never freed, only emptied and
// reused by a later bind() into the same bucket. Binding and unbinding are rare (construction
// and destruction of the owner) and take one mutex per table. A lookup that races with the
// unbind of the very key it asks for reads either the old value or null; owners are not used
// while they are destroyed, so that never happens in a correct program.
//
//===----------------------------------------------------------------------===//
#ifndef LTSIDETABLE_H
#define LTSIDETABLE_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>

namespace lt_internal {

template <class T>
class SideTable {
public:
    /// Binds value to key, which must not be bound. False when a node cannot be had.
    bool bind(const void* key, T* value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::atomic<Node*>& head = buckets_[bucketOf(key)];
        Node* last = nullptr;
        for (Node* n = head.load(std::memory_order_relaxed); n; n = n->next.load(std::memory_order_relaxed)) {
            last = n;
            if (n->key.load(std::memory_order_relaxed) == nullptr) {  // an emptied node: reuse it
                n->value.store(value, std::memory_order_relaxed);
                n->key.store(key, std::memory_order_release);
                return true;
            }
        }
        Node* n = new (std::nothrow) Node{};
        if (n == nullptr)
            return false;
        n->key.store(key, std::memory_order_relaxed);
        n->value.store(value, std::memory_order_relaxed);
        (last ? last->next : head).store(n, std::memory_order_release);
        return true;
    }

    /// Forgets key's value (nothing when key is not bound); the value itself is the caller's.
    void unbind(const void* key)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (Node* n = nodeOf(key)) {
            n->key.store(nullptr, std::memory_order_relaxed);
            n->value.store(nullptr, std::memory_order_release);
        }
    }

    /// The value bound to key, or null. Any thread, no lock.
    T* find(const void* key) const
    {
        const Node* n = nodeOf(key);
        return n ? n->value.load(std::memory_order_acquire) : nullptr;
    }

private:
    struct Node {
        std::atomic<const void*> key;
        std::atomic<T*> value;
        std::atomic<Node*> next;
    };
    static constexpr int kBucketBits = 8;

    static unsigned bucketOf(const void* key)
    {
        // Fibonacci hashing of the address; its low bits are alignment and say little.
        const uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)) * 0x9E3779B97F4A7C15ull;
        return static_cast<unsigned>(h >> (64 - kBucketBits));
    }

    Node* nodeOf(const void* key) const
    {
        for (Node* n = buckets_[bucketOf(key)].load(std::memory_order_acquire); n;
             n = n->next.load(std::memory_order_acquire)) {
            if (n->key.load(std::memory_order_acquire) == key)
                return n;
        }
        return nullptr;
    }

    std::mutex mutex_;
    std::atomic<Node*> buckets_[1 << kBucketBits] = {};
};

}  // namespace lt_internal

#endif  // LTSIDETABLE_H
