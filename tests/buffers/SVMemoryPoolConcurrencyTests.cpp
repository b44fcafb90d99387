// SPDX-License-Identifier: Apache-2.0
// The memory pool under many threads: allocations and frees that hand the
// fast block back and forth without the mutex, racing with frees of other
// sizes, reallocations, flushes and an invalidation.  Run under the thread
// sanitizer as well.

#include <Sorvel/SVMemoryPool.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "buffers/SVMemoryPoolInternal.h"
#include "support/LogCapture.h"

namespace {

const CFIndex kPage = static_cast<CFIndex>(getpagesize());

struct Held {
    uint64_t *block;
    CFIndex size;
    uint64_t stamp;
};

// Every block carries its holder's stamp in its first and last words and in
// the word at its middle; a block handed out to two holders at once, or
// cached while held, shows as a stamp that changed.
void stamp(const Held &held) {
    const size_t words = static_cast<size_t>(held.size) / sizeof(uint64_t);
    held.block[0] = held.block[words / 2] = held.block[words - 1] = held.stamp;
}
bool intact(const Held &held) {
    const size_t words = static_cast<size_t>(held.size) / sizeof(uint64_t);
    return held.block[0] == held.stamp && held.block[words / 2] == held.stamp && held.block[words - 1] == held.stamp;
}

size_t cachedCount(SVMemoryPoolRef pool) {
    return (pool->freeList ? pool->freeList->count : 0) +
           (SVMemoryPoolFastIsCached(pool->state->fast.load()) ? 1u : 0u);
}

// Blocks handed out and not taken back (a cached fast block stays in the
// table of blocks out).
size_t outCount(SVMemoryPoolRef pool) {
    return pool->state->outstanding.count - (SVMemoryPoolFastIsCached(pool->state->fast.load()) ? 1u : 0u);
}

enum class Disturbance { None, Flush, Invalidate };

// `threads` workers allocate, check, reallocate and free through one pool;
// most requests are one page count (the fast block's), some are others.
// Meanwhile one more thread flushes the pool over and over, or invalidates
// it once midway.
void hammer(int threads, Disturbance disturbance) {
    sorvel_test::LogCapture capture;
    const double period = 60.0;  // nothing ages out by itself: what goes, Flush or Invalidate took
    CFNumberRef number = CFNumberCreate(nullptr, kCFNumberDoubleType, &period);
    const void *key = kSVMemoryPoolOption_AgeOutPeriod;
    CFDictionaryRef options = CFDictionaryCreate(nullptr, &key, reinterpret_cast<const void **>(&number), 1,
                                                 &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    SVMemoryPoolRef pool = SVMemoryPoolCreate(options);
    CFRelease(options);
    CFRelease(number);
    ASSERT_NE(pool, nullptr);
    CFAllocatorRef allocator = SVMemoryPoolGetAllocator(pool);

    constexpr int kOperations = 40000;
    std::atomic<int> corrupt{0}, failed{0}, running{threads}, progress{0};
    std::atomic<bool> go{false};
    auto worker = [&](int id) {
        while (!go.load()) std::this_thread::yield();  // start together, so that the threads overlap
        std::mt19937 random(static_cast<unsigned>(id) + 1);
        std::vector<Held> held;
        uint64_t sequence = 0;
        auto nextStamp = [&] { return static_cast<uint64_t>(id) << 48 | ++sequence; };
        for (int op = 0; op < kOperations; op++, progress++) {
            const unsigned dice = random() % 16;
            if (held.empty() || (held.size() < 4 && dice < 7)) {
                const CFIndex size = dice == 0 ? 3 * kPage : dice == 1 ? 40 : kPage;
                auto *block = static_cast<uint64_t *>(CFAllocatorAllocate(allocator, size, 0));
                if (!block) {
                    failed++;
                    continue;
                }
                if (reinterpret_cast<uintptr_t>(block) % static_cast<uintptr_t>(kPage)) corrupt++;
                // Requests below a page may still use the whole page.
                held.push_back({block, size < kPage ? kPage : size, nextStamp()});
                stamp(held.back());
            } else if (dice == 15) {
                Held &h = held[random() % held.size()];
                if (!intact(h)) corrupt++;
                const CFIndex size = h.size == kPage ? 2 * kPage : kPage;
                auto *moved = static_cast<uint64_t *>(CFAllocatorReallocate(allocator, h.block, size, 0));
                if (!moved) {
                    failed++;
                    continue;
                }
                // The first word moved with the block.
                if (moved[0] != h.stamp) corrupt++;
                h = {moved, size, nextStamp()};
                stamp(h);
            } else {
                const size_t pick = random() % held.size();
                if (!intact(held[pick])) corrupt++;
                CFAllocatorDeallocate(allocator, held[pick].block);
                held.erase(held.begin() + static_cast<std::ptrdiff_t>(pick));
            }
        }
        for (const Held &h : held) {
            if (!intact(h)) corrupt++;
            CFAllocatorDeallocate(allocator, h.block);
        }
        running--;
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) workers.emplace_back(worker, t);
    go = true;
    std::thread disturber([&] {
        if (disturbance == Disturbance::Flush)
            while (running.load() > 0) {
                SVMemoryPoolFlush(pool);
                std::this_thread::yield();
            }
        if (disturbance == Disturbance::Invalidate) {
            while (progress.load() < threads * kOperations / 2) std::this_thread::yield();
            SVMemoryPoolInvalidate(pool);
        }
    });
    for (auto &thread : workers) thread.join();
    disturber.join();

    EXPECT_EQ(corrupt.load(), 0);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(outCount(pool), 0u) << "every block handed out was taken back";
    if (disturbance == Disturbance::Invalidate) EXPECT_EQ(cachedCount(pool), 0u);
    SVMemoryPoolFlush(pool);
    EXPECT_EQ(cachedCount(pool), 0u) << "Flush reaches the fast block too";
    CFRelease(pool);
    EXPECT_EQ(capture.count(), 0u) << "no block counted as leaked";
}

TEST(SVMemoryPoolConcurrency, AllocateAndFreeFromFourThreads) {
    hammer(4, Disturbance::None);
}

TEST(SVMemoryPoolConcurrency, FlushRacesAllocateAndFree) {
    hammer(4, Disturbance::Flush);
}

TEST(SVMemoryPoolConcurrency, InvalidateRacesAllocateAndFree) {
    hammer(4, Disturbance::Invalidate);
}

// Two threads pass one page-sized block back and forth through the pool:
// one frees what the other allocated.  The block goes through the fast
// block each time; its contents and the time of its release must reach the
// other thread with it.
TEST(SVMemoryPoolConcurrency, BlockFreedOnAnotherThreadIsReused) {
    SVMemoryPoolRef pool = SVMemoryPoolCreate(nullptr);
    CFAllocatorRef allocator = SVMemoryPoolGetAllocator(pool);
    std::atomic<uint64_t *> mailbox{nullptr};
    constexpr int kRounds = 500;
    std::atomic<int> corrupt{0};
    std::thread producer([&] {
        for (int i = 1; i <= kRounds; i++) {
            auto *block = static_cast<uint64_t *>(CFAllocatorAllocate(allocator, kPage, 0));
            block[0] = static_cast<uint64_t>(i);
            uint64_t *expected = nullptr;
            while (!mailbox.compare_exchange_weak(expected, block)) {
                expected = nullptr;
                std::this_thread::yield();
            }
        }
    });
    std::vector<void *> seen;
    for (int i = 1; i <= kRounds; i++) {
        uint64_t *block;
        while (!(block = mailbox.exchange(nullptr))) std::this_thread::yield();
        if (block[0] != static_cast<uint64_t>(i)) corrupt++;
        if (seen.size() < 4 && std::find(seen.begin(), seen.end(), block) == seen.end()) seen.push_back(block);
        CFAllocatorDeallocate(allocator, block);
    }
    producer.join();
    EXPECT_EQ(corrupt.load(), 0);
    // At most three are out at once: one being freed, one in the mailbox,
    // one just allocated.
    EXPECT_LE(seen.size(), 3u) << "freed blocks are reused rather than new ones made";
    EXPECT_EQ(outCount(pool), 0u);
    EXPECT_GE(cachedCount(pool), 1u);
    CFRelease(pool);
}

}  // namespace
