// SPDX-License-Identifier: Apache-2.0
// The simple queue: a ring of pointer slots with two free-running 32-bit
// counts, for one producer and one consumer without a lock.
//
// The counts wrap modulo 2^32; the number of elements is always
// enqueueCount - dequeueCount in unsigned arithmetic, and the element with
// sequence number i lives in slot i & indexMask.  Reset restarts both counts
// at 0xFFFFFFF6, ten steps before the wrap, so the wrap is exercised soon
// after every reset.
//
// Memory ordering.  Each count has exactly one writer, so advancing it needs
// no read-modify-write; what it needs is ordering, which acquire/release
// gives with the same guarantees as a full barrier on either side of the
// add:
// - The producer writes the slot, then publishes enqueueCount + 1 with a
//   release store.  The consumer loads enqueueCount with acquire; seeing the
//   new count, it is guaranteed to see the element in the slot.
// - The consumer reads the slot, then publishes dequeueCount + 1 with a
//   release store.  The producer loads dequeueCount with acquire before it
//   reuses a slot, so its write cannot overtake the consumer's read of the
//   element that was there.
// Each side also keeps the other side's count as it last saw it, on its own
// cache line, and reloads the shared count only when that stale view says
// "full" (producer) or "empty" (consumer).  A stale view can only
// understate progress (the other count only moves forward), so the answer
// after the reload is the same one a fresh read gives; in the steady state
// each side then touches the other's cache line once per lap instead of once
// per element.

#include <Sorvel/SVSimpleQueue.h>

#include <cstddef>
#include <cstdint>

#include "buffers/SVSimpleQueueInternal.h"
#include "core/SVLog.h"
#include "core/SVObject.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVSimpleQueue");

using Queue = OpaqueSVSimpleQueue;

// No callbacks at all: releasing the last reference frees only the
// instance's own storage; the elements belong to the caller.
const CFRuntimeClass kSVSimpleQueueClass = {
    0, "SVSimpleQueue", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};
constinit sorvel::SVRuntimeClass<Queue> gSVSimpleQueueClass{kSVSimpleQueueClass};

constexpr uint32_t kResetCount = 0xFFFFFFF6u;

inline uint32_t loadAcquire(const uint32_t &count) {
    return __atomic_load_n(&count, __ATOMIC_ACQUIRE);
}
inline uint32_t loadRelaxed(const uint32_t &count) {
    return __atomic_load_n(&count, __ATOMIC_RELAXED);
}
inline void storeRelease(uint32_t &count, uint32_t value) {
    __atomic_store_n(&count, value, __ATOMIC_RELEASE);
}
inline void storeRelaxed(uint32_t &count, uint32_t value) {
    __atomic_store_n(&count, value, __ATOMIC_RELAXED);
}

// One less than the smallest power of two that is at least `capacity`; all
// ones for 0 (and for anything above 2^31).
constexpr uint32_t indexMaskFor(int32_t capacity) {
    uint32_t mask = static_cast<uint32_t>(capacity) - 1;
    mask |= mask >> 1;
    mask |= mask >> 2;
    mask |= mask >> 4;
    mask |= mask >> 8;
    mask |= mask >> 16;
    return mask;
}
static_assert(indexMaskFor(3) == 3 && indexMaskFor(4) == 3 && indexMaskFor(5) == 7 && indexMaskFor(1) == 0);
static_assert(indexMaskFor(0) == 0xFFFFFFFFu);

void setCounts(Queue *queue, uint32_t count) {
    storeRelaxed(queue->dequeueCount, count);
    storeRelaxed(queue->consumerSeenEnqueue, count);
    storeRelaxed(queue->enqueueCount, count);
    storeRelaxed(queue->producerSeenDequeue, count);
    // Publishes the new counts to whichever threads take the roles next
    // (they still need the caller's own synchronisation to start).
    __atomic_thread_fence(__ATOMIC_RELEASE);
}

}  // namespace

extern "C" {

CFTypeID SVSimpleQueueGetTypeID(void) noexcept {
    return gSVSimpleQueueClass.typeID();
}

OSStatus SVSimpleQueueCreate(CFAllocatorRef allocator, int32_t capacity, SVSimpleQueueRef *queueOut) noexcept {
    if (!queueOut) return kSVSimpleQueueError_RequiredParameterMissing;
    if (capacity < 0) {
        // The fullness test compares as unsigned, so a negative capacity
        // would let enqueues run past the slots.
        SV_LOG_HERE(3, "capacity %d is negative", static_cast<int>(capacity));
        *queueOut = nullptr;
        return kSVSimpleQueueError_AllocationFailed;
    }
    const CFTypeID type = gSVSimpleQueueClass.typeID();
    const uint32_t mask = indexMaskFor(capacity);
    // mask + 1 wraps to zero slots for capacity 0, whose queue refuses every
    // enqueue as full and so never touches a slot.
    const uint64_t slotCount = static_cast<uint64_t>(mask + 1);
    const size_t fields = sizeof(Queue) - sizeof(CFRuntimeBase);
    // Slots whose bytes cannot be addressed (only possible where size_t is
    // narrower than 64 bits) are refused rather than wrapped into a short
    // allocation.
    size_t slotBytes;
    if (slotCount > SIZE_MAX / sizeof(void *) ||
        __builtin_mul_overflow(static_cast<size_t>(slotCount), sizeof(void *), &slotBytes) ||
        slotBytes > static_cast<size_t>(INTPTR_MAX) - fields - sizeof(CFRuntimeBase) - 64) {
        SV_LOG_HERE(3, "capacity %d needs more slots than can be addressed", static_cast<int>(capacity));
        *queueOut = nullptr;
        return kSVSimpleQueueError_AllocationFailed;
    }
    // Only the fields are cleared: a slot is always written before it is
    // read (Enqueue fills it before publishing the count), so creation
    // costs what the caller later uses, not the whole ring.
    auto *queue = static_cast<Queue *>(const_cast<void *>(_CFRuntimeCreateInstanceWithUnclearedTail(
        allocator, type, static_cast<CFIndex>(fields + slotBytes), static_cast<CFIndex>(fields))));
    if (!queue) {
        *queueOut = nullptr;
        return kSVSimpleQueueError_AllocationFailed;
    }
    queue->capacity = capacity;
    queue->indexMask = mask;
    setCounts(queue, 0);
    *queueOut = queue;
    return 0;
}

OSStatus SVSimpleQueueEnqueue(SVSimpleQueueRef queue, const void *element) noexcept {
    if (!gSVSimpleQueueClass.checked(queue) || !element) return kSVSimpleQueueError_RequiredParameterMissing;
    const uint32_t capacity = static_cast<uint32_t>(queue->capacity);
    const uint32_t enqueued = loadRelaxed(queue->enqueueCount);  // only this thread writes it
    if (enqueued - queue->producerSeenDequeue >= capacity) {
        queue->producerSeenDequeue = loadAcquire(queue->dequeueCount);
        if (enqueued - queue->producerSeenDequeue >= capacity) return kSVSimpleQueueError_QueueIsFull;
    }
    SVSimpleQueueSlots(queue)[enqueued & queue->indexMask] = element;
    storeRelease(queue->enqueueCount, enqueued + 1);
    return 0;
}

const void *SVSimpleQueueDequeue(SVSimpleQueueRef queue) noexcept {
    if (!gSVSimpleQueueClass.checked(queue)) return nullptr;
    const uint32_t dequeued = loadRelaxed(queue->dequeueCount);  // only this thread writes it
    if (dequeued == queue->consumerSeenEnqueue) {
        queue->consumerSeenEnqueue = loadAcquire(queue->enqueueCount);
        if (dequeued == queue->consumerSeenEnqueue) return nullptr;
    }
    const void *element = SVSimpleQueueSlots(queue)[dequeued & queue->indexMask];
    // Cannot happen with the ordering above (NULL is never enqueued); kept
    // so that a NULL result always means nothing was taken.
    if (!element) return nullptr;
    storeRelease(queue->dequeueCount, dequeued + 1);
    return element;
}

const void *SVSimpleQueueGetHead(SVSimpleQueueRef queue) noexcept {
    if (!gSVSimpleQueueClass.checked(queue)) return nullptr;
    const uint32_t dequeued = loadRelaxed(queue->dequeueCount);
    if (dequeued == loadAcquire(queue->enqueueCount)) return nullptr;
    return SVSimpleQueueSlots(queue)[dequeued & queue->indexMask];
}

OSStatus SVSimpleQueueReset(SVSimpleQueueRef queue) noexcept {
    if (!gSVSimpleQueueClass.checked(queue)) return kSVSimpleQueueError_RequiredParameterMissing;
    // The slots are not cleared; the counts alone say what is in the queue.
    setCounts(queue, kResetCount);
    return 0;
}

int32_t SVSimpleQueueGetCapacity(SVSimpleQueueRef queue) noexcept {
    return gSVSimpleQueueClass.checked(queue) ? queue->capacity : 0;
}

int32_t SVSimpleQueueGetCount(SVSimpleQueueRef queue) noexcept {
    if (!gSVSimpleQueueClass.checked(queue)) return 0;
    // Reading the two counts one after the other can pair an old enqueue
    // count with a newer dequeue count.  Re-read until one of them is seen
    // unchanged across a read of the other: then the pair existed together.
    uint32_t enqueued = loadAcquire(queue->enqueueCount);
    uint32_t dequeued = loadAcquire(queue->dequeueCount);
    for (;;) {
        const uint32_t enqueuedAgain = loadAcquire(queue->enqueueCount);
        if (enqueuedAgain == enqueued) break;
        const uint32_t dequeuedAgain = loadAcquire(queue->dequeueCount);
        enqueued = enqueuedAgain;
        if (dequeuedAgain == dequeued) break;
        dequeued = dequeuedAgain;
    }
    return static_cast<int32_t>(enqueued - dequeued);
}

}  // extern "C"
