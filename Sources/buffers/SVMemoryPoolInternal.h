/* SPDX-License-Identifier: Apache-2.0 */
// The memory pool's layout: the pool object, the state its allocator
// shares with it, the cache of freed blocks and the table of blocks out.
#ifndef SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H
#define SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H

#include <CoreFoundation/CFRuntime.h>
#include <Sorvel/SVMemoryPool.h>
#include <XPLog/XPLog.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// One cached block.
struct SVMemoryPoolCachedBlock {
    size_t roundedSize;    // page-rounded size of the block
    uint64_t releaseTime;  // monotonic host time in nanoseconds when it was freed
    void *block;
};

// Cached blocks, oldest first (new ones are appended at the end).  Since
// every entry is appended under the pool's lock with the monotonic time of
// that moment, release times never decrease along the list, so the entries
// old enough to age out are always a prefix of it.
struct SVMemoryPoolFreeList {
    SVMemoryPoolCachedBlock *entries;
    size_t count;
    size_t capacity;
};

// Blocks handed out and not yet given back, plus the fast block while it is
// cached (below): block address -> the size the client asked for.  Open
// addressing with linear probing; `capacity` is a power of two (or 0 before
// the first insertion) and at most half full.
struct SVMemoryPoolOutstandingSlot {
    void *block;  // NULL: empty slot
    size_t requestedSize;
};
struct SVMemoryPoolOutstandingTable {
    SVMemoryPoolOutstandingSlot *slots;
    size_t count;
    size_t capacity;
};

struct OpaqueSVMemoryPool;

// The fast block: one block that an allocation and a free can hand back and
// forth with a single atomic compare-and-swap each, without the mutex.  Its
// word packs the block's address (page-aligned, below 2^48), its size in
// pages (bits 48-63) and two flags in the low bits:
//   0                 no fast block;
//   block|pages       cached: the newest cached block, and the only one
//                     (the free list is empty);
//   block|pages|Out   handed out; `fastRequested` is its requested size;
//   ...|Out|Slow      handed out, but its free must take the mutex (the free
//                     list is not empty, so that free has stale entries to
//                     age out, or the pool is gone).
// Only two transitions happen without the mutex: cached -> handed out (an
// allocation of the same page count) and handed out -> cached (its free).
// Whoever holds the mutex first exchanges the word for 0, which makes both
// fail until it stores the word back, so under the mutex the fast block is
// as still as the rest of the state.  The fast block stays in the table of
// blocks out the whole time; its entry there is not read (its requested size
// is `fastRequested`).
constexpr uint64_t kSVMemoryPoolFastOut = 1;
constexpr uint64_t kSVMemoryPoolFastSlow = 2;
constexpr unsigned kSVMemoryPoolFastPagesShift = 48;
constexpr uint64_t kSVMemoryPoolFastBlockMask = ((uint64_t(1) << kSVMemoryPoolFastPagesShift) - 1) & ~uint64_t(3);

inline void *SVMemoryPoolFastBlock(uint64_t word) noexcept {
    return reinterpret_cast<void *>(static_cast<uintptr_t>(word & kSVMemoryPoolFastBlockMask));
}
inline bool SVMemoryPoolFastIsCached(uint64_t word) noexcept {
    return word != 0 && !(word & kSVMemoryPoolFastOut);
}

// The allocator's context info.  Owned by the allocator: it outlives the
// pool while clients still hold the allocator.  The fields the lock-free
// paths touch share the first cache line.
struct alignas(64) SVMemoryPoolAllocatorState {
    std::atomic<uint64_t> fast{0};             // the fast block's word (above)
    std::atomic<uint64_t> fastReleaseTime{0};  // when the cached fast block was freed
    std::atomic<size_t> fastRequested{0};      // the handed-out fast block's requested size
    unsigned pageShift = 0;                    // log2 of the page size, for the lock-free allocation
    OpaqueSVMemoryPool *pool = nullptr;        // NULL once the pool is invalidated or finalized
    XPMutexRef lock = nullptr;                 // guards this record and the pool's free list
    SVMemoryPoolOutstandingTable outstanding{};
};

struct OpaqueSVMemoryPool {
    CFRuntimeBase base;
    double ageOutPeriod;  // seconds
    CFAllocatorRef allocator;
    SVMemoryPoolAllocatorState *state;
    SVMemoryPoolFreeList *freeList;  // NULL after invalidation
};

// The allocator's release callback: runs when the allocator's last
// reference goes.
extern "C" __attribute__((visibility("default"))) void _SVMemoryPoolAllocatorRelease(const void *info) noexcept;

#endif  // SORVEL_SOURCES_SVMEMORYPOOLINTERNAL_H
