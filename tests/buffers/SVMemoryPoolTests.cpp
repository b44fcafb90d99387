// SPDX-License-Identifier: Apache-2.0
// The memory pool: reuse by page-rounded size, lazy age-out, reallocation,
// invalidation, the leak warning and the allocator under two threads.

#include <Sorvel/SVMemoryPool.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "buffers/SVMemoryPoolInternal.h"
#include "support/LogCapture.h"

namespace {

CFDictionaryRef periodOptions(CFNumberType type, const void *value);

// Blocks handed out and not given back (a cached fast block stays in the
// table).
size_t outstanding(SVMemoryPoolAllocatorState *state) {
    return state->outstanding.count - (SVMemoryPoolFastIsCached(state->fast.load()) ? 1u : 0u);
}

struct Pool {
    SVMemoryPoolRef ref;
    explicit Pool(CFDictionaryRef options = nullptr) : ref(SVMemoryPoolCreate(options)) { EXPECT_NE(ref, nullptr); }
    // A pool whose blocks age out after `period` seconds.  Tests of reuse use
    // a long one, so that a stall of the machine cannot age blocks out.
    explicit Pool(double period) {
        CFDictionaryRef options = periodOptions(kCFNumberDoubleType, &period);
        ref = SVMemoryPoolCreate(options);
        CFRelease(options);
        EXPECT_NE(ref, nullptr);
    }
    ~Pool() {
        if (ref) CFRelease(ref);
    }
    CFAllocatorRef allocator() const { return SVMemoryPoolGetAllocator(ref); }
    // Cached blocks, oldest first: the free list, then the fast block when
    // it is cached.
    std::vector<void *> cachedBlocks() const {
        std::vector<void *> blocks;
        for (size_t i = 0; ref->freeList && i < ref->freeList->count; i++)
            blocks.push_back(ref->freeList->entries[i].block);
        const uint64_t fast = ref->state->fast.load();
        if (SVMemoryPoolFastIsCached(fast)) blocks.push_back(SVMemoryPoolFastBlock(fast));
        return blocks;
    }
    size_t cached() const { return cachedBlocks().size(); }
    size_t out() const { return outstanding(ref->state); }
    void *allocate(CFIndex size) const { return CFAllocatorAllocate(allocator(), size, 0); }
    void deallocate(void *block) const { CFAllocatorDeallocate(allocator(), block); }
};

CFDictionaryRef periodOptions(CFNumberType type, const void *value) {
    CFNumberRef number = CFNumberCreate(nullptr, type, value);
    const void *key = kSVMemoryPoolOption_AgeOutPeriod;
    CFDictionaryRef options = CFDictionaryCreate(nullptr, &key, reinterpret_cast<const void **>(&number), 1,
                                                 &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFRelease(number);
    return options;
}

const size_t kPage = static_cast<size_t>(getpagesize());

TEST(SVMemoryPool, ClassComparesByIdentityAndHashesByAddress) {
    Pool a, b;
    CFStringRef name = CFCopyTypeIDDescription(SVMemoryPoolGetTypeID());
    EXPECT_TRUE(CFEqual(name, CFSTR("SVMemoryPool")));
    CFRelease(name);
    EXPECT_TRUE(CFEqual(a.ref, a.ref));
    EXPECT_FALSE(CFEqual(a.ref, b.ref));
    EXPECT_EQ(CFHash(a.ref), reinterpret_cast<CFHashCode>(a.ref));
    EXPECT_TRUE(CFEqual(kSVMemoryPoolOption_AgeOutPeriod, CFSTR("kSVMemoryPoolOption_AgeOutPeriod")));
    EXPECT_EQ(SVMemoryPoolGetAllocator(nullptr), nullptr);
    SVMemoryPoolFlush(nullptr);
    SVMemoryPoolInvalidate(nullptr);
}

// Blocks are page-aligned and reused for any request of the same
// page-rounded size, the newest first.
TEST(SVMemoryPool, ReusesBlocksOfTheSamePageRoundedSize) {
    Pool pool(60.0);
    void *small = pool.allocate(100);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(small) % kPage, 0u);
    pool.deallocate(small);
    EXPECT_EQ(pool.cached(), 1u);
    void *again = pool.allocate(static_cast<CFIndex>(kPage) - 96);
    EXPECT_EQ(again, small);
    EXPECT_EQ(pool.cached(), 0u);
    std::memset(again, 0xAB, kPage);  // the whole page is usable

    void *older = pool.allocate(static_cast<CFIndex>(kPage));
    pool.deallocate(older);
    pool.deallocate(again);
    void *bigger = pool.allocate(static_cast<CFIndex>(kPage) + 1);
    EXPECT_NE(bigger, older);
    EXPECT_NE(bigger, again);
    pool.deallocate(bigger);
    EXPECT_EQ(pool.allocate(1), again) << "the newest cached block of the size wins, not a larger one";
    EXPECT_EQ(pool.allocate(1), older);
    EXPECT_EQ(pool.cached(), 1u);
    for (void *block : {again, older}) pool.deallocate(block);
    EXPECT_EQ(pool.allocate(0), nullptr);
    SVMemoryPoolFlush(pool.ref);
    EXPECT_EQ(pool.cached(), 0u);
}

// The block that allocations and frees hand back and forth without the
// mutex follows the same rules: reused only for its own page count, and
// older than every block freed after it.
TEST(SVMemoryPool, FastBlockKeepsSizeAndOrder) {
    Pool pool(60.0);
    void *a = pool.allocate(static_cast<CFIndex>(kPage));
    pool.deallocate(a);
    EXPECT_EQ(pool.cachedBlocks(), std::vector<void *>{a});
    void *b = pool.allocate(static_cast<CFIndex>(2 * kPage));
    EXPECT_NE(b, a) << "a cached block of another page count is not reused";
    void *c = pool.allocate(static_cast<CFIndex>(kPage) + 1);
    EXPECT_NE(c, a);
    pool.deallocate(b);
    pool.deallocate(c);
    EXPECT_EQ(pool.cachedBlocks(), (std::vector<void *>{a, b, c}));
    EXPECT_EQ(pool.allocate(1), a);
    EXPECT_EQ(pool.allocate(static_cast<CFIndex>(2 * kPage) - 1), c) << "the newest of the page count wins";
    EXPECT_EQ(pool.allocate(static_cast<CFIndex>(2 * kPage)), b);
    EXPECT_EQ(pool.out(), 3u);
    for (void *block : {a, b, c}) pool.deallocate(block);
    EXPECT_EQ(pool.out(), 0u);
    EXPECT_EQ(pool.cached(), 3u);
    SVMemoryPoolFlush(pool.ref);
    EXPECT_EQ(pool.cached(), 0u);
}

TEST(SVMemoryPool, ReallocateKeepsOrMovesTheBlock) {
    Pool pool(60.0);
    CFAllocatorContext context;
    CFAllocatorGetContext(pool.allocator(), &context);
    char *block = static_cast<char *>(pool.allocate(10));
    std::memcpy(block, "0123456789", 10);
    EXPECT_EQ(context.reallocate(nullptr, 10, 0, context.info), nullptr);
    EXPECT_EQ(context.reallocate(block, 0, 0, context.info), nullptr);
    EXPECT_EQ(pool.cached(), 0u) << "neither frees anything";

    EXPECT_EQ(CFAllocatorReallocate(pool.allocator(), block, static_cast<CFIndex>(kPage), 0), block);
    char *moved = static_cast<char *>(CFAllocatorReallocate(pool.allocator(), block, 3 * kPage, 0));
    ASSERT_NE(moved, block);
    EXPECT_EQ(std::memcmp(moved, "0123456789", 10), 0);
    EXPECT_EQ(pool.cached(), 1u) << "the old block joined the free list";
    // The recorded size followed the first reallocation: shrinking copies
    // only what fits.
    char *shrunk = static_cast<char *>(CFAllocatorReallocate(pool.allocator(), moved, 4, 0));
    EXPECT_EQ(shrunk, block);
    EXPECT_EQ(std::memcmp(shrunk, "0123", 4), 0);
    pool.deallocate(shrunk);
}

TEST(SVMemoryPool, AgeOutPeriodOption) {
    const double two = 2.0;
    const float quarter = 0.25f;
    const int32_t three = 3;
    struct Case {
        CFDictionaryRef options;
        double period;
    };
    const Case cases[] = {{nullptr, 0.5},
                          {periodOptions(kCFNumberFloat64Type, &two), 2.0},
                          {periodOptions(kCFNumberFloat32Type, &quarter), 0.25},
                          {periodOptions(kCFNumberSInt32Type, &three), 0.5}};
    for (const Case &c : cases) {
        Pool pool(c.options);
        EXPECT_EQ(pool.ref->ageOutPeriod, c.period);
        if (c.options) CFRelease(c.options);
    }
}

// Aging is lazy: stale blocks go on the next deallocation, or on the next
// allocation for which they are not the newest block of the wanted size; a
// stale block of exactly that size is still reused.
TEST(SVMemoryPool, StaleBlocksAgeOutLazily) {
    Pool pool(0.05);
    const auto stale = std::chrono::milliseconds(70);

    void *a = pool.allocate(static_cast<CFIndex>(kPage)), *b = pool.allocate(static_cast<CFIndex>(2 * kPage));
    pool.deallocate(a);
    pool.deallocate(b);
    std::this_thread::sleep_for(stale);
    EXPECT_EQ(pool.cached(), 2u) << "no timer";
    EXPECT_EQ(pool.allocate(static_cast<CFIndex>(2 * kPage)), b);
    EXPECT_EQ(pool.cached(), 0u) << "the other stale block went back to the system";

    void *c = pool.allocate(100);
    pool.deallocate(c);
    EXPECT_EQ(pool.allocate(100), c) << "a young block is reused";
    pool.deallocate(c);
    std::this_thread::sleep_for(stale);
    pool.deallocate(b);
    EXPECT_EQ(pool.cached(), 1u) << "the deallocation purged the stale entry";
    EXPECT_EQ(pool.cachedBlocks(), std::vector<void *>{b});
    std::this_thread::sleep_for(stale);
    char foreign[16];
    pool.deallocate(foreign);
    EXPECT_EQ(pool.cached(), 0u) << "a free that is ignored still purges";
}

TEST(SVMemoryPool, InvalidateStopsCachingForGood) {
    Pool pool;
    void *kept = pool.allocate(5000);
    pool.deallocate(pool.allocate(5000));
    SVMemoryPoolInvalidate(pool.ref);
    EXPECT_EQ(pool.ref->freeList, nullptr);
    EXPECT_EQ(pool.ref->state->pool, nullptr);
    SVMemoryPoolInvalidate(pool.ref);
    SVMemoryPoolFlush(pool.ref);
    void *fresh = pool.allocate(5000);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(fresh) % kPage, 0u);
    pool.deallocate(fresh);
    pool.deallocate(kept);
    EXPECT_EQ(pool.out(), 0u);
}

// Blocks the allocator did not hand out, or already took back, are left
// alone instead of corrupting the heap or the cache.
TEST(SVMemoryPool, ForeignAndRepeatedDeallocationsAreIgnored) {
    Pool pool(60.0);
    char foreign[16];
    void *block = pool.allocate(64);
    pool.deallocate(block);
    pool.deallocate(block);
    pool.deallocate(foreign);
    EXPECT_EQ(pool.cached(), 1u);
    EXPECT_EQ(CFAllocatorReallocate(pool.allocator(), foreign, 32, 0), nullptr);
}

// The allocator outlives its pool while a client holds it; releasing it
// with a block still out is a leak and says so.
TEST(SVMemoryPool, AllocatorOutlivesThePoolAndReportsLeaks) {
    sorvel_test::LogCapture capture;
    SVMemoryPoolRef pool = SVMemoryPoolCreate(nullptr);
    CFAllocatorRef allocator = static_cast<CFAllocatorRef>(CFRetain(SVMemoryPoolGetAllocator(pool)));
    void *leaked = CFAllocatorAllocate(allocator, 300, 0);
    CFAllocatorDeallocate(allocator, CFAllocatorAllocate(allocator, 300, 0));
    CFRelease(pool);
    void *late = CFAllocatorAllocate(allocator, 300, 0);
    ASSERT_NE(late, nullptr) << "a plain page-aligned allocator now";
    CFAllocatorDeallocate(allocator, late);
    EXPECT_EQ(capture.count(), 0u);
    CFRelease(allocator);
    ASSERT_EQ(capture.count(), 1u);
    const auto line = capture.lines()[0];
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.function, "_SVMemoryPoolAllocatorRelease");
    EXPECT_EQ(line.path, "Sorvel/Sources/SVMemoryPool");
    EXPECT_EQ(line.line, 225);
    EXPECT_EQ(line.message,
              "SVMemoryPool: Releasing allocator while 1 blocks of memory are still allocated. That's a memory leak!");
    std::free(leaked);
}

// Both cores allocate, write, check and free through one pool at once;
// every block must still hold exactly what its owner wrote.
TEST(SVMemoryPool, AllocatorHammeredFromTwoThreads) {
    Pool pool;
    constexpr int kThreads = 2;
    constexpr int kOperations = 20000;
    const CFIndex sizes[] = {100, 4096, 5000, 64 * 1024, 1 << 20};
    std::atomic<int> corrupt{0};
    auto worker = [&](int id) {
        std::mt19937 random(static_cast<unsigned>(id));
        struct Held {
            unsigned char *block;
            CFIndex size;
            unsigned char mark;
        };
        std::vector<Held> held;
        for (int op = 0; op < kOperations; op++) {
            if (held.size() < 8 && (held.empty() || random() % 2)) {
                const CFIndex size = sizes[random() % 5];
                auto *block = static_cast<unsigned char *>(CFAllocatorAllocate(pool.allocator(), size, 0));
                if (!block) continue;
                const unsigned char mark = static_cast<unsigned char>(id * 64 + op);
                block[0] = block[size / 2] = block[size - 1] = mark;
                held.push_back({block, size, mark});
            } else {
                const size_t pick = random() % held.size();
                auto [block, size, mark] = held[pick];
                if (block[0] != mark || block[size / 2] != mark || block[size - 1] != mark) corrupt++;
                CFAllocatorDeallocate(pool.allocator(), block);
                held.erase(held.begin() + static_cast<std::ptrdiff_t>(pick));
            }
        }
        for (const Held &h : held) CFAllocatorDeallocate(pool.allocator(), h.block);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) threads.emplace_back(worker, t);
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(corrupt, 0);
    EXPECT_EQ(pool.out(), 0u);
}

}  // namespace
