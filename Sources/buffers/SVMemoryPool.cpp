// SPDX-License-Identifier: Apache-2.0
// The memory pool: a CFAllocator whose freed blocks are cached, page-rounded
// and page-aligned, and handed out again to requests of the same rounded
// size until they age out.
//
// The allocator's state (a table of the blocks out, and the mutex) lives in
// a record of its own that the allocator owns, because clients may keep the
// allocator after the pool is gone; the pool's free list hangs off the pool
// and goes away when the pool is invalidated.  One non-recursive mutex
// guards both, and nothing calls back into client code while it is held.
// The one exception is the fast block (SVMemoryPoolInternal.h): a single
// cached block that an allocation and a free of its page count hand back
// and forth with one compare-and-swap each.  It only replaces taking the
// mutex for that pair; what is reused, aged out, flushed and logged is what
// the locked paths alone would give.
//
// Aging is lazy: there is no timer.  Stale entries are purged when an
// allocation consults the free list and on every deallocation.  An entry's
// age is the monotonic host time since it was freed, in nanoseconds
// (clock_gettime(CLOCK_MONOTONIC)), converted to seconds.
//
// Cost: the free list is an array rather than a collection of data objects,
// and blocks out are kept in an open-addressing table rather than a
// dictionary of numbers, so that the steady state of a stream of equal-sized
// buffers allocates nothing itself; since aged entries always form a prefix
// of the free list (see SVMemoryPoolInternal.h), purging stops at the first
// entry that is young enough instead of visiting every entry.  The results
// are those of walking the whole list.

#include <Sorvel/SVMemoryPool.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "buffers/SVMemoryPoolInternal.h"
#include "core/SVLog.h"
#include "core/SVMutex.h"
#include "core/SVObject.h"

namespace {

SV_LOG_MODULE("Sorvel/Sources/SVMemoryPool");

using Pool = OpaqueSVMemoryPool;
using State = SVMemoryPoolAllocatorState;
using FreeList = SVMemoryPoolFreeList;
using CachedBlock = SVMemoryPoolCachedBlock;
using Table = SVMemoryPoolOutstandingTable;
using Slot = SVMemoryPoolOutstandingSlot;

void poolFinalize(CFTypeRef cf) noexcept;
Boolean poolEqual(CFTypeRef a, CFTypeRef b) noexcept {
    return a == b;
}
CFHashCode poolHash(CFTypeRef cf) noexcept {
    return static_cast<CFHashCode>(reinterpret_cast<uintptr_t>(cf));
}

const CFRuntimeClass kSVMemoryPoolClass = {
    0, "SVMemoryPool", nullptr, nullptr, poolFinalize, poolEqual, poolHash, nullptr, nullptr,
};
constinit sorvel::SVRuntimeClass<Pool> gSVMemoryPoolClass{kSVMemoryPoolClass};

constexpr double kDefaultAgeOutPeriod = 0.5;
// Log identities the behaviour fixes (see core/SVLog.h).
constexpr struct { sorvel::SVLogSite leakWarning{"_SVMemoryPoolAllocatorRelease", 225}; } kLogSites;
constexpr size_t kNotFound = SIZE_MAX;

size_t pageSize() noexcept {
    static const size_t page = static_cast<size_t>(getpagesize());
    return page;
}

// Page sizes are powers of two: rounding is a shift rather than a division.
unsigned pageShift() noexcept {
    static const unsigned shift = static_cast<unsigned>(__builtin_ctzll(pageSize()));
    return shift;
}

// `size` rounded up to whole pages; 0 below 1.
size_t roundToPages(size_t size) noexcept {
    if (size < 1) return 0;
    return (((size - 1) >> pageShift()) + 1) << pageShift();
}

// The monotonic counter at the kernel's tick (a few milliseconds): ages are
// compared with periods of a tenth of a second and more, and a fine reading
// cost more than all the rest of a free.
uint64_t hostTimeNow() noexcept {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

bool isAged(uint64_t releaseTime, uint64_t now, double period) noexcept {
    return static_cast<double>(now - releaseTime) / 1e9 >= period;
}

// ---- Blocks out --------------------------------------------------------

size_t slotFor(const Table &table, const void *block) noexcept {
    // Blocks are page-aligned: the low bits carry nothing.
    uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(block) >> 12) * 0x9E3779B97F4A7C15ull;
    h ^= h >> 29;
    return static_cast<size_t>(h) & (table.capacity - 1);
}

size_t tableFind(const Table &table, const void *block) noexcept {
    if (table.capacity == 0) return kNotFound;
    for (size_t i = slotFor(table, block);; i = (i + 1) & (table.capacity - 1)) {
        if (table.slots[i].block == block) return i;
        if (!table.slots[i].block) return kNotFound;
    }
}

void tablePlace(Table &table, void *block, size_t requestedSize) noexcept {
    size_t i = slotFor(table, block);
    while (table.slots[i].block) i = (i + 1) & (table.capacity - 1);
    table.slots[i] = {block, requestedSize};
    table.count++;
}

bool tableInsert(Table &table, void *block, size_t requestedSize) noexcept {
    if ((table.count + 1) * 2 > table.capacity) {
        const size_t capacity = table.capacity ? table.capacity * 2 : 64;
        auto *slots = static_cast<Slot *>(std::calloc(capacity, sizeof(Slot)));
        if (!slots) return false;
        Table grown = {slots, 0, capacity};
        for (size_t i = 0; i < table.capacity; i++)
            if (table.slots[i].block) tablePlace(grown, table.slots[i].block, table.slots[i].requestedSize);
        std::free(table.slots);
        table = grown;
    }
    tablePlace(table, block, requestedSize);
    return true;
}

// Removes slot `i`, shifting later members of its probe run back so that
// lookups never stop early at the hole.
void tableRemove(Table &table, size_t i) noexcept {
    const size_t mask = table.capacity - 1;
    size_t hole = i;
    for (size_t j = (i + 1) & mask; table.slots[j].block; j = (j + 1) & mask) {
        const size_t home = slotFor(table, table.slots[j].block);
        // Move j into the hole unless its home lies cyclically in (hole, j].
        const bool homeBetween = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!homeBetween) {
            table.slots[hole] = table.slots[j];
            hole = j;
        }
    }
    table.slots[hole] = {nullptr, 0};
    table.count--;
}

// ---- The free list -----------------------------------------------------

bool freeListAppend(FreeList &list, const CachedBlock &entry) noexcept {
    if (list.count == list.capacity) {
        const size_t capacity = list.capacity ? list.capacity * 2 : 16;
        auto *entries = static_cast<CachedBlock *>(std::realloc(list.entries, capacity * sizeof(CachedBlock)));
        if (!entries) return false;
        list.entries = entries;
        list.capacity = capacity;
    }
    list.entries[list.count++] = entry;
    return true;
}

void freeListErase(FreeList &list, size_t first, size_t count) noexcept {
    if (count == 0) return;
    std::memmove(list.entries + first, list.entries + first + count,
                 (list.count - first - count) * sizeof(CachedBlock));
    list.count -= count;
}

// The number of leading entries old enough to age out.
size_t agedPrefix(const FreeList &list, uint64_t now, double period) noexcept {
    size_t aged = 0;
    while (aged < list.count && isAged(list.entries[aged].releaseTime, now, period)) aged++;
    return aged;
}

// ---- The fast block -----------------------------------------------------

constexpr uint64_t kOut = kSVMemoryPoolFastOut;
constexpr uint64_t kSlow = kSVMemoryPoolFastSlow;

uint64_t fastPages(uint64_t word) noexcept {
    return word >> kSVMemoryPoolFastPagesShift;
}

// The fast word of a cached `block` of `rounded` bytes, or 0 when the block
// cannot be packed into one (an address above 2^48, or 2^16 pages or more).
uint64_t fastWord(void *block, size_t rounded) noexcept {
    const uint64_t address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(block));
    const uint64_t pages = static_cast<uint64_t>(rounded >> pageShift());
    if (address & ~kSVMemoryPoolFastBlockMask || pages >= (uint64_t(1) << (64 - kSVMemoryPoolFastPagesShift))) return 0;
    return address | pages << kSVMemoryPoolFastPagesShift;
}

// Takes the fast block's word for the length of a locked section (see
// SVMemoryPoolInternal.h): from now until publishFast, the lock-free paths
// find 0 and wait on the mutex instead.
uint64_t takeFast(State *state) noexcept {
    return state->fast.exchange(0, std::memory_order_acq_rel);
}

// Ends a locked section.  A handed-out fast block may be freed without the
// mutex only while the free list is empty and the pool is live.
void publishFast(State *state, uint64_t word) noexcept {
    if (word & kOut) {
        const bool slow = !state->pool || !state->pool->freeList || state->pool->freeList->count != 0;
        word = slow ? word | kSlow : word & ~kSlow;
    }
    state->fast.store(word, std::memory_order_release);
}

// Gives the cached fast block back to the system.
void dropFast(State *state, uint64_t &word) noexcept {
    void *block = SVMemoryPoolFastBlock(word);
    const size_t slot = tableFind(state->outstanding, block);
    if (slot != kNotFound) tableRemove(state->outstanding, slot);
    std::free(block);
    word = 0;
}

// Gives every cached block back to the system, the fast one included.
void flushLocked(State *state, uint64_t &fast) noexcept {
    if (FreeList *list = state->pool ? state->pool->freeList : nullptr) {
        for (size_t i = 0; i < list->count; i++) std::free(list->entries[i].block);
        list->count = 0;
    }
    if (SVMemoryPoolFastIsCached(fast)) dropFast(state, fast);
}

// Stops caching for good; the allocator from now on allocates and frees
// directly.  Nothing happens the second time.
void invalidateLocked(Pool *pool, uint64_t &fast) noexcept {
    State *state = pool->state;
    if (state->pool) flushLocked(state, fast);
    if (FreeList *list = pool->freeList) {
        std::free(list->entries);
        std::free(list);
        pool->freeList = nullptr;
    }
    state->pool = nullptr;
}

// ---- The allocator (callers hold the lock and the fast word) ----------------

// Takes the newest cached block of `rounded` bytes out of the free list, or
// returns NULL; every other entry that has aged out is given back to the
// system on the way, while a stale block of exactly the wanted size is still
// reused.  A cached fast block is the newest entry of all.
void *takeCachedBlock(State *state, size_t rounded, uint64_t &fast, bool &tookFast) noexcept {
    Pool *pool = state->pool;
    if (!pool || !pool->freeList) return nullptr;
    FreeList &list = *pool->freeList;
    const bool fastCached = SVMemoryPoolFastIsCached(fast);
    if (list.count == 0 && !fastCached) return nullptr;

    if (fastCached && fastPages(fast) * pageSize() == rounded) {
        // The fast block is the one reused; the list (empty while a block
        // is cached as the fast one) has nothing to age out.
        fast |= kOut;
        tookFast = true;
        return SVMemoryPoolFastBlock(fast);
    }

    size_t found = kNotFound;
    for (size_t i = list.count; i-- > 0;) {
        if (list.entries[i].roundedSize == rounded) {
            found = i;
            break;
        }
    }
    // The clock is read only when some entry besides the one reused might
    // have to go.
    const size_t others = list.count + (fastCached ? 1u : 0u) - (found == kNotFound ? 0u : 1u);
    if (others == 0) {
        void *block = list.entries[found].block;
        freeListErase(list, found, 1);
        return block;
    }
    const uint64_t now = hostTimeNow();
    if (fastCached && isAged(state->fastReleaseTime.load(std::memory_order_relaxed), now, pool->ageOutPeriod))
        dropFast(state, fast);
    const size_t aged = agedPrefix(list, now, pool->ageOutPeriod);

    void *block = found == kNotFound ? nullptr : list.entries[found].block;
    for (size_t i = 0; i < aged; i++)
        if (i != found) std::free(list.entries[i].block);
    if (found != kNotFound && found >= aged) freeListErase(list, found, 1);
    freeListErase(list, 0, aged);
    return block;
}

void *allocateLocked(State *state, size_t size, uint64_t &fast) noexcept {
    const size_t rounded = roundToPages(size);
    bool tookFast = false;
    void *block = takeCachedBlock(state, rounded, fast, tookFast);
    if (tookFast) {
        // The fast block itself: it never left the table.
        state->fastRequested.store(size, std::memory_order_relaxed);
        return block;
    }
    if (!block && posix_memalign(&block, pageSize(), rounded) != 0) return nullptr;
    if (!tableInsert(state->outstanding, block, size)) {
        std::free(block);
        return nullptr;
    }
    // With no fast block yet, this one becomes it, so that its free and the
    // allocations after it can skip the mutex.
    if (fast == 0 && state->pool && (fast = fastWord(block, rounded)) != 0) {
        fast |= kOut;
        state->fastRequested.store(size, std::memory_order_relaxed);
    }
    return block;
}

void deallocateLocked(State *state, void *block, uint64_t &fast) noexcept {
    const bool isFast = fast != 0 && SVMemoryPoolFastBlock(fast) == block;
    // A cached block freed again is left alone, as is a block this
    // allocator did not hand out: freeing it would corrupt the heap.
    const size_t slot = isFast ? kNotFound : tableFind(state->outstanding, block);
    const bool isOut = isFast ? (fast & kOut) != 0 : slot != kNotFound;
    // Read before the purge, which may move table entries.
    const size_t requested = !isOut   ? 0
                             : isFast ? state->fastRequested.load(std::memory_order_relaxed)
                                      : state->outstanding.slots[slot].requestedSize;
    Pool *pool = state->pool;
    if (!pool || !pool->freeList) {
        if (!isOut) return;
        tableRemove(state->outstanding, tableFind(state->outstanding, block));
        std::free(block);
        if (isFast) fast = 0;
        return;
    }
    FreeList &list = *pool->freeList;
    const uint64_t now = hostTimeNow();
    const size_t aged = agedPrefix(list, now, pool->ageOutPeriod);
    for (size_t i = 0; i < aged; i++) std::free(list.entries[i].block);
    freeListErase(list, 0, aged);
    if (SVMemoryPoolFastIsCached(fast) &&
        isAged(state->fastReleaseTime.load(std::memory_order_relaxed), now, pool->ageOutPeriod))
        dropFast(state, fast);
    if (!isOut) return;

    const size_t rounded = roundToPages(requested);
    if (isFast && list.count == 0) {
        state->fastReleaseTime.store(now, std::memory_order_relaxed);
        fast &= ~(kOut | kSlow);
        return;
    }
    if (SVMemoryPoolFastIsCached(fast)) {
        // The cached fast block is older than this one: it joins the list
        // first, as an ordinary entry.
        void *cached = SVMemoryPoolFastBlock(fast);
        const CachedBlock entry = {fastPages(fast) * pageSize(), state->fastReleaseTime.load(std::memory_order_relaxed),
                                   cached};
        tableRemove(state->outstanding, tableFind(state->outstanding, cached));
        if (!freeListAppend(list, entry)) std::free(cached);
        fast = 0;
    } else if (isFast) {
        fast = 0;
    } else if (fast == 0 && list.count == 0 && (fast = fastWord(block, rounded)) != 0) {
        // The only cached block: it becomes the fast one, staying in the
        // table.
        state->fastReleaseTime.store(now, std::memory_order_relaxed);
        return;
    }
    // Should the list be unable to grow, the block goes straight back to
    // the system instead.
    if (!freeListAppend(list, {rounded, now, block})) std::free(block);
    tableRemove(state->outstanding, tableFind(state->outstanding, block));
}

// The locked paths, kept out of line so that the lock-free ones save and
// restore no registers.
[[gnu::noinline]] void *allocateSlowly(State *state, size_t size) noexcept {
    sorvel::SVMutexGuard locked(state->lock);
    uint64_t fast = takeFast(state);
    void *block = allocateLocked(state, size, fast);
    publishFast(state, fast);
    return block;
}

[[gnu::noinline]] void deallocateSlowly(State *state, void *block) noexcept {
    sorvel::SVMutexGuard locked(state->lock);
    uint64_t fast = takeFast(state);
    deallocateLocked(state, block, fast);
    publishFast(state, fast);
}

// The lock-free paths.  An allocation of the cached fast block's page count
// takes it with one compare-and-swap; the free of the handed-out fast block
// gives it back with one more and a read of the clock.  Every other case
// takes the mutex.  The results are those of the locked paths: while the
// fast block is cached the free list is empty, so there is nothing else to
// reuse or to age out.
void *poolAllocate(CFIndex size, CFOptionFlags hint, void *info) noexcept {
    if (size < 1) return nullptr;
    auto *state = static_cast<State *>(info);
    const uint64_t pages = ((static_cast<uint64_t>(size) - 1) >> state->pageShift) + 1;
    uint64_t word = state->fast.load(std::memory_order_relaxed);
    if (!(word & (kOut | kSlow)) && fastPages(word) == pages &&
        state->fast.compare_exchange_strong(word, word | kOut, std::memory_order_acquire, std::memory_order_relaxed)) {
        state->fastRequested.store(static_cast<size_t>(size), std::memory_order_relaxed);
        return SVMemoryPoolFastBlock(word);
    }
    return allocateSlowly(state, static_cast<size_t>(size));
}

void poolDeallocate(void *block, void *info) noexcept {
    if (!block) return;
    auto *state = static_cast<State *>(info);
    uint64_t word = state->fast.load(std::memory_order_relaxed);
    if ((word & (kOut | kSlow)) == kOut && SVMemoryPoolFastBlock(word) == block) {
        state->fastReleaseTime.store(hostTimeNow(), std::memory_order_relaxed);
        if (state->fast.compare_exchange_strong(word, word & ~kOut, std::memory_order_release,
                                                std::memory_order_relaxed))
            return;
    }
    deallocateSlowly(state, block);
}

void *poolReallocate(void *block, CFIndex newSize, CFOptionFlags hint, void *info) noexcept {
    if (!block || newSize < 1) return nullptr;
    auto *state = static_cast<State *>(info);
    sorvel::SVMutexGuard locked(state->lock);
    uint64_t fast = takeFast(state);
    void *result = nullptr;
    const bool isFast = fast != 0 && SVMemoryPoolFastBlock(fast) == block;
    const size_t slot = isFast ? kNotFound : tableFind(state->outstanding, block);
    if ((isFast && (fast & kOut)) || slot != kNotFound) {
        const size_t recorded = isFast ? state->fastRequested.load(std::memory_order_relaxed)
                                       : state->outstanding.slots[slot].requestedSize;
        const size_t wanted = static_cast<size_t>(newSize);
        if (roundToPages(recorded) == roundToPages(wanted)) {
            if (isFast)
                state->fastRequested.store(wanted, std::memory_order_relaxed);
            else
                state->outstanding.slots[slot].requestedSize = wanted;
            result = block;
        } else if ((result = allocateLocked(state, wanted, fast)) != nullptr) {
            std::memcpy(result, block, recorded < wanted ? recorded : wanted);
            deallocateLocked(state, block, fast);
        }
    }
    publishFast(state, fast);
    return result;
}

void destroyState(State *state) noexcept {
    std::free(state->outstanding.slots);
    XPMutexFree(state->lock);
    state->~State();
    std::free(state);
}

void poolFinalize(CFTypeRef cf) noexcept {
    Pool *pool = sorvel::SVRuntimeClass<Pool>::cast(cf);
    if (!pool->state) return;  // half-built: nothing was shared yet
    {
        sorvel::SVMutexGuard locked(pool->state->lock);
        uint64_t fast = takeFast(pool->state);
        invalidateLocked(pool, fast);
        publishFast(pool->state, fast);
    }
    // The allocator, and with it the shared state, lives on while clients
    // still hold it.
    CFRelease(pool->allocator);
}

}  // namespace

extern "C" {

SV_EXPORT const CFStringRef kSVMemoryPoolOption_AgeOutPeriod = CFSTR("kSVMemoryPoolOption_AgeOutPeriod");

CFTypeID SVMemoryPoolGetTypeID(void) noexcept {
    return gSVMemoryPoolClass.typeID();
}

void _SVMemoryPoolAllocatorRelease(const void *info) noexcept {
    auto *state = static_cast<State *>(const_cast<void *>(info));
    size_t leaked;
    {
        sorvel::SVMutexGuard locked(state->lock);
        // A cached fast block is still in the table, but it is not out.
        leaked = state->outstanding.count - (SVMemoryPoolFastIsCached(state->fast.load()) ? 1u : 0u);
    }
    // Logged after unlocking: the allocator is unreachable by now, and a log
    // sink is client code.
    if (leaked)
        SV_LOG_SITE(kLogSites.leakWarning, 3,
                    "SVMemoryPool: Releasing allocator while %lld blocks of memory are still allocated. "
                    "That's a memory leak!",
                    static_cast<long long>(leaked));
    destroyState(state);
}

SVMemoryPoolRef SVMemoryPoolCreate(CFDictionaryRef options) noexcept {
    sorvel::SVRetained<SVMemoryPoolRef> pool(gSVMemoryPoolClass.create(kCFAllocatorDefault));
    if (!pool) return nullptr;

    void *memory = nullptr;
    if (posix_memalign(&memory, alignof(State), sizeof(State)) != 0) return nullptr;
    auto *state = new (memory) State;
    state->pageShift = pageShift();
    state->lock = XPMutexCreateNR();
    if (!state->lock) {
        state->~State();
        std::free(state);
        return nullptr;
    }
    state->pool = pool.get();
    CFAllocatorContext context = {0,       state,        nullptr,        _SVMemoryPoolAllocatorRelease,
                                  nullptr, poolAllocate, poolReallocate, poolDeallocate,
                                  nullptr};
    CFAllocatorRef allocator = CFAllocatorCreate(kCFAllocatorDefault, &context);
    if (!allocator) {
        destroyState(state);
        return nullptr;
    }
    pool.get()->state = state;
    pool.get()->allocator = allocator;
    pool.get()->ageOutPeriod = kDefaultAgeOutPeriod;
    pool.get()->freeList = static_cast<FreeList *>(std::calloc(1, sizeof(FreeList)));
    if (!pool.get()->freeList) return nullptr;  // finalize tears the rest down

    if (options) {
        CFTypeRef period = CFDictionaryGetValue(options, kSVMemoryPoolOption_AgeOutPeriod);
        // Deliberately only a floating-point number: an integer one leaves
        // the default.
        if (period && CFGetTypeID(period) == CFNumberGetTypeID() &&
            CFNumberIsFloatType(static_cast<CFNumberRef>(period)))
            CFNumberGetValue(static_cast<CFNumberRef>(period), kCFNumberDoubleType, &pool.get()->ageOutPeriod);
    }
    return pool.release();
}

CFAllocatorRef SVMemoryPoolGetAllocator(SVMemoryPoolRef pool) noexcept {
    return gSVMemoryPoolClass.checked(pool) ? pool->allocator : nullptr;
}

void SVMemoryPoolFlush(SVMemoryPoolRef pool) noexcept {
    if (!gSVMemoryPoolClass.checked(pool) || !pool->state) return;
    sorvel::SVMutexGuard locked(pool->state->lock);
    uint64_t fast = takeFast(pool->state);
    flushLocked(pool->state, fast);
    publishFast(pool->state, fast);
}

void SVMemoryPoolInvalidate(SVMemoryPoolRef pool) noexcept {
    if (!gSVMemoryPoolClass.checked(pool) || !pool->state) return;
    sorvel::SVMutexGuard locked(pool->state->lock);
    uint64_t fast = takeFast(pool->state);
    invalidateLocked(pool, fast);
    publishFast(pool->state, fast);
}

}  // extern "C"
