// SPDX-License-Identifier: Apache-2.0
// The simple queue: capacity round-up, fullness, the wrap of the counts
// after a reset, and one producer with one consumer at full speed.

#include <Sorvel/SVSimpleQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "buffers/SVSimpleQueueInternal.h"
#include "support/LogCapture.h"
#include "support/TestAllocator.h"

namespace {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define SV_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SV_TEST_SANITIZED 1
#endif

const void *element(uintptr_t n) {
    return reinterpret_cast<const void *>(n);
}

struct Queue {
    SVSimpleQueueRef ref = nullptr;
    explicit Queue(int32_t capacity) { EXPECT_EQ(SVSimpleQueueCreate(nullptr, capacity, &ref), 0); }
    ~Queue() {
        if (ref) CFRelease(ref);
    }
    operator SVSimpleQueueRef() const { return ref; }
};

TEST(SVSimpleQueue, ClassHasNoCallbacks) {
    const CFRuntimeClass *record = _CFRuntimeGetClassWithTypeID(SVSimpleQueueGetTypeID());
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->className, "SVSimpleQueue");
    EXPECT_EQ(record->finalize, nullptr);
    EXPECT_EQ(record->equal, nullptr);
    EXPECT_EQ(record->hash, nullptr);
    EXPECT_EQ(record->copyDebugDesc, nullptr);
}

// The counts must sit on different cache lines from each other and from
// the read-only shape, whatever the instance's alignment.
TEST(SVSimpleQueue, CountsDoNotShareACacheLine) {
    const size_t dequeue = offsetof(OpaqueSVSimpleQueue, dequeueCount);
    const size_t enqueue = offsetof(OpaqueSVSimpleQueue, enqueueCount);
    EXPECT_GE(dequeue - offsetof(OpaqueSVSimpleQueue, indexMask), 64u);
    EXPECT_GE(enqueue - dequeue, 64u);
    EXPECT_GE(sizeof(OpaqueSVSimpleQueue) - enqueue, 64u) << "slots follow on lines of their own";
}

// The mask is the next power of two minus one, but the capacity is what
// bounds the count.
TEST(SVSimpleQueue, CapacityBoundsTheCountNotTheSlots) {
    struct Case {
        int32_t capacity;
        uint32_t mask;
    };
    const Case cases[] = {{1, 0}, {2, 1}, {3, 3}, {4, 3}, {5, 7}, {64, 63}, {65, 127}, {0, 0xFFFFFFFF}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.capacity);
        Queue queue(c.capacity);
        EXPECT_EQ(queue.ref->indexMask, c.mask);
        EXPECT_EQ(SVSimpleQueueGetCapacity(queue), c.capacity);
        for (int32_t i = 0; i < c.capacity; i++) ASSERT_EQ(SVSimpleQueueEnqueue(queue, element(i + 1)), 0);
        EXPECT_EQ(SVSimpleQueueEnqueue(queue, element(99)), kSVSimpleQueueError_QueueIsFull);
        EXPECT_EQ(SVSimpleQueueGetCount(queue), c.capacity);
        if (c.capacity == 0) continue;
        EXPECT_EQ(SVSimpleQueueGetHead(queue), element(1));
        EXPECT_EQ(SVSimpleQueueDequeue(queue), element(1));
        EXPECT_EQ(SVSimpleQueueEnqueue(queue, element(99)), 0) << "one slot came free";
    }
}

TEST(SVSimpleQueue, NullAndEmptyAreNeutral) {
    Queue queue(4);
    EXPECT_EQ(SVSimpleQueueDequeue(queue), nullptr);
    EXPECT_EQ(SVSimpleQueueGetHead(queue), nullptr);
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 0);
    EXPECT_EQ(SVSimpleQueueEnqueue(queue, nullptr), kSVSimpleQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 0) << "a refused NULL is not counted";
    EXPECT_EQ(SVSimpleQueueEnqueue(nullptr, element(1)), kSVSimpleQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVSimpleQueueReset(nullptr), kSVSimpleQueueError_RequiredParameterMissing);
    EXPECT_EQ(SVSimpleQueueDequeue(nullptr), nullptr);
    EXPECT_EQ(SVSimpleQueueGetHead(nullptr), nullptr);
    EXPECT_EQ(SVSimpleQueueGetCount(nullptr), 0);
    EXPECT_EQ(SVSimpleQueueGetCapacity(nullptr), 0);
    EXPECT_EQ(SVSimpleQueueCreate(nullptr, 4, nullptr), kSVSimpleQueueError_RequiredParameterMissing);
}

TEST(SVSimpleQueue, CreationFailuresClearTheOutPointer) {
    sorvel_test::TestAllocator allocator;
    allocator.failAlways();
    SVSimpleQueueRef queue = reinterpret_cast<SVSimpleQueueRef>(&allocator);
    EXPECT_EQ(SVSimpleQueueCreate(allocator.get(), 4, &queue), kSVSimpleQueueError_AllocationFailed);
    EXPECT_EQ(queue, nullptr);

    // A negative capacity would let enqueues run past the slots: refused.
    sorvel_test::LogCapture capture;
    for (int32_t capacity : {-1, -5, INT32_MIN}) {
        queue = reinterpret_cast<SVSimpleQueueRef>(&allocator);
        EXPECT_EQ(SVSimpleQueueCreate(nullptr, capacity, &queue), kSVSimpleQueueError_AllocationFailed);
        EXPECT_EQ(queue, nullptr);
    }
    ASSERT_EQ(capture.count(), 3u);
    EXPECT_EQ(capture.lines()[0].message, "capacity -1 is negative");
    EXPECT_EQ(capture.lines()[0].function, "SVSimpleQueueCreate");
    EXPECT_EQ(capture.lines()[0].path, "Sorvel/Sources/SVSimpleQueue");
}

// Reset empties the queue and restarts the counts ten steps before the
// 32-bit wrap; order and fullness hold across it.
// An allocator that hands out memory filled with a pattern, so a test can
// see which bytes creation wrote.
constexpr unsigned char kPattern = 0xA5;
void *patternAllocate(CFIndex size, CFOptionFlags, void *) {
    void *memory = std::malloc(static_cast<size_t>(size));
    if (memory) std::memset(memory, kPattern, static_cast<size_t>(size));
    return memory;
}
void patternDeallocate(void *memory, void *) {
    std::free(memory);
}

// Creation clears the fields but leaves the slots alone: a ring of 2^31
// slots must not cost 16 GiB of writes before its first enqueue.
TEST(SVSimpleQueue, CreationWritesNoSlot) {
    CFAllocatorContext context = {0,       nullptr,           nullptr, nullptr, nullptr, patternAllocate,
                                  nullptr, patternDeallocate, nullptr};
    CFAllocatorRef allocator = CFAllocatorCreate(kCFAllocatorSystemDefault, &context);
    ASSERT_NE(allocator, nullptr);
    constexpr int32_t kCapacity = 1 << 16;
    SVSimpleQueueRef queue = nullptr;
    ASSERT_EQ(SVSimpleQueueCreate(allocator, kCapacity, &queue), 0);
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 0);
    EXPECT_EQ(SVSimpleQueueGetHead(queue), nullptr);
    EXPECT_EQ(SVSimpleQueueDequeue(queue), nullptr);
    const auto *slots = reinterpret_cast<const unsigned char *>(SVSimpleQueueSlots(queue));
    size_t untouched = 0;
    for (size_t i = 0; i < kCapacity * sizeof(void *); ++i) untouched += slots[i] == kPattern;
    EXPECT_EQ(untouched, kCapacity * sizeof(void *));
    // The uncleared slots are still safe to use, across the wrap of the ring.
    for (uintptr_t round = 0; round < 3; ++round) {
        for (uintptr_t n = 1; n <= kCapacity; ++n) ASSERT_EQ(SVSimpleQueueEnqueue(queue, element(n)), 0);
        EXPECT_EQ(SVSimpleQueueEnqueue(queue, element(1)), kSVSimpleQueueError_QueueIsFull);
        for (uintptr_t n = 1; n <= kCapacity; ++n) ASSERT_EQ(SVSimpleQueueDequeue(queue), element(n));
        EXPECT_EQ(SVSimpleQueueDequeue(queue), nullptr);
    }
    CFRelease(queue);
    CFRelease(allocator);
}

// The largest capacity is accepted without touching its 16 GiB of slots
// (or refused as out of memory where the system cannot reserve them); its
// queue works for the few elements it is given.
TEST(SVSimpleQueue, LargestCapacityCostsWhatIsUsed) {
#if SV_TEST_SANITIZED
    GTEST_SKIP() << "sanitizer allocators cap single allocations";
#else
    SVSimpleQueueRef queue = nullptr;
    const OSStatus status = SVSimpleQueueCreate(nullptr, INT32_MAX, &queue);
    if (status == kSVSimpleQueueError_AllocationFailed) {
        EXPECT_EQ(queue, nullptr);
        GTEST_SKIP() << "the system refused to reserve 16 GiB";
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(SVSimpleQueueGetCapacity(queue), INT32_MAX);
    EXPECT_EQ(queue->indexMask, 0x7FFFFFFFu);
    for (uintptr_t n = 1; n <= 1000; ++n) ASSERT_EQ(SVSimpleQueueEnqueue(queue, element(n)), 0);
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 1000);
    for (uintptr_t n = 1; n <= 1000; ++n) ASSERT_EQ(SVSimpleQueueDequeue(queue), element(n));
    CFRelease(queue);
#endif
}

TEST(SVSimpleQueue, ResetRestartsTheCountsBeforeTheWrap) {
    Queue queue(3);
    ASSERT_EQ(SVSimpleQueueEnqueue(queue, element(7)), 0);
    ASSERT_EQ(SVSimpleQueueReset(queue), 0);
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 0);
    EXPECT_EQ(SVSimpleQueueDequeue(queue), nullptr);
    EXPECT_EQ(queue.ref->enqueueCount, 0xFFFFFFF6u);
    uintptr_t next = 1, expected = 1;
    for (int round = 0; round < 12; round++) {
        while (SVSimpleQueueEnqueue(queue, element(next)) == 0) next++;
        EXPECT_EQ(SVSimpleQueueGetCount(queue), 3);
        EXPECT_EQ(SVSimpleQueueGetHead(queue), element(expected));
        for (int i = 0; i < 2; i++) EXPECT_EQ(SVSimpleQueueDequeue(queue), element(expected++));
    }
    EXPECT_LT(queue.ref->enqueueCount, 0x100u) << "the counts wrapped";
    EXPECT_EQ(SVSimpleQueueGetCount(queue), 1);
}

// One producer, one consumer, no lock: every element arrives exactly once
// and in order, across the wrap after each reset.  Elements are sequence
// numbers, so loss, duplication and reordering all show as a gap.
TEST(SVSimpleQueue, ProducerAndConsumerStress) {
#if defined(SV_TEST_SANITIZED)
    constexpr uint64_t kElements = 300000;
#else
    constexpr uint64_t kElements = 2000000;
#endif
    constexpr int kRounds = 2;
    Queue queue(255);
    // A broken queue must fail the test, not hang it; a stall is reported
    // apart from a wrong element, so a starved machine is told from a bug.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::atomic<bool> stalled{false};
    auto stuck = [&deadline](unsigned spins) {
        return spins % (1u << 20) == 0 && std::chrono::steady_clock::now() > deadline;
    };
    for (int round = 0; round < kRounds; round++) {
        ASSERT_EQ(SVSimpleQueueReset(queue), 0);
        std::atomic<bool> mismatch{false};
        std::thread consumer([&] {
            uint64_t expected = 1;
            unsigned spins = 0;
            while (expected <= kElements) {
                const void *got = SVSimpleQueueDequeue(queue);
                if (!got) {
                    if (++spins % 64 == 0) std::this_thread::yield();
                    if (stuck(spins)) stalled = true;
                    if (mismatch || stalled) return;
                    continue;
                }
                if (reinterpret_cast<uintptr_t>(got) != expected) {
                    mismatch = true;
                    return;
                }
                expected++;
            }
        });
        // A third thread watches the count while both ends move (for a
        // while: three spinning threads share two cores slowly): it must
        // always see a pair of counts that existed together.
        std::atomic<bool> done{false};
        std::thread observer([&] {
            const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
            for (unsigned reads = 1; !done && !mismatch; reads++) {
                const int32_t count = SVSimpleQueueGetCount(queue);
                if (count < 0 || count > 255) mismatch = true;
                if (reads % 4096 == 0 && std::chrono::steady_clock::now() > until) break;
            }
        });
        unsigned spins = 0;
        for (uint64_t n = 1; n <= kElements && !mismatch && !stalled;) {
            const OSStatus status = SVSimpleQueueEnqueue(queue, element(n));
            if (status == 0) {
                n++;
            } else {
                if (status != kSVSimpleQueueError_QueueIsFull) mismatch = true;
                const int32_t count = SVSimpleQueueGetCount(queue);
                if (count < 0 || count > 255) mismatch = true;
                if (++spins % 64 == 0) std::this_thread::yield();
                if (stuck(spins)) stalled = true;
            }
        }
        consumer.join();
        done = true;
        observer.join();
        ASSERT_FALSE(stalled) << "round " << round << ": no progress for a minute";
        ASSERT_FALSE(mismatch) << "round " << round << ": an element out of order or a count out of range";
        EXPECT_EQ(SVSimpleQueueGetCount(queue), 0);
        EXPECT_EQ(queue.ref->dequeueCount, static_cast<uint32_t>(0xFFFFFFF6u + kElements));
    }
}

}  // namespace
