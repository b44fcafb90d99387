// SPDX-License-Identifier: Apache-2.0
// Memory-pool allocate/free of 64 KiB and 1 MiB blocks, side by side with
// malloc/free, posix_memalign/free (page-aligned like the pool), mmap/munmap
// (what malloc does for blocks above its mmap threshold) and FFmpeg's
// AVBufferPool when libavutil is installed.
//
// BM_Malloc runs in a process that has started no thread, where glibc's
// malloc takes no lock at all; BM_Malloc_ThreadedProcess measures the same
// loop in a child process that has started one, as any process using this
// library has.
//
// Two patterns per size:
// - AllocFree: allocate and free one block at once, the tightest loop.
// - Touch: also write one byte per page, as a producer filling the block
//   would; for allocators that hand out fresh pages this includes the page
//   faults.
//
//   build/bench/SVMemoryPool_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <Sorvel/SVMemoryPool.h>
#include <XPLog/XPLog.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#if SORVEL_BENCH_HAVE_LIBAVUTIL
extern "C" {
#include <libavutil/buffer.h>
}
#endif

namespace {

const size_t kPage = static_cast<size_t>(getpagesize());

inline void touch(void *block, size_t size, bool touchPages) {
    if (touchPages)
        for (size_t offset = 0; offset < size; offset += kPage) static_cast<volatile char *>(block)[offset] = 1;
    benchmark::DoNotOptimize(block);
}

void sizes(benchmark::internal::Benchmark *b) {
    for (int touchPages : {0, 1})
        for (int64_t size : {64 << 10, 1 << 20}) b->Args({size, touchPages});
    b->ArgNames({"size", "touch"});
}

void BM_SVMemoryPool(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    SVMemoryPoolRef pool = SVMemoryPoolCreate(nullptr);
    CFAllocatorRef allocator = SVMemoryPoolGetAllocator(pool);
    for (auto _ : state) {
        void *block = CFAllocatorAllocate(allocator, static_cast<CFIndex>(size), 0);
        touch(block, size, state.range(1));
        CFAllocatorDeallocate(allocator, block);
    }
    SVMemoryPoolInvalidate(pool);
    CFRelease(pool);
}
BENCHMARK(BM_SVMemoryPool)->Apply(sizes);

void BM_Malloc(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *block = std::malloc(size);
        touch(block, size, state.range(1));
        std::free(block);
    }
}
BENCHMARK(BM_Malloc)->Apply(sizes);

// The floor of a pool that keeps its blocks across threads and ages them:
// an uncontended lock and unlock for the allocate and again for the free,
// and one read of the monotonic counter for the free's time of release.
void BM_Floor_TwoLockPairsAndAClockRead(benchmark::State &state) {
    XPMutexRef mutex = XPMutexCreateNR();
    for (auto _ : state) {
        XPMutexAcquire(mutex);
        XPMutexRelease(mutex);
        XPMutexAcquire(mutex);
        timespec now;
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        benchmark::DoNotOptimize(now);
        XPMutexRelease(mutex);
    }
    XPMutexFree(mutex);
}
BENCHMARK(BM_Floor_TwoLockPairsAndAClockRead);

// malloc/free once the process has started a thread: glibc then takes its
// arena lock on every call, for good.  Measured in a child process (the
// parent stays single-threaded for the other rows) that times its own loop;
// the parent reports the child's time per pair.
void BM_Malloc_ThreadedProcess(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const bool touchPages = state.range(1) != 0;
    int fds[2];
    if (pipe(fds) != 0) return state.SkipWithError("pipe failed");
    const pid_t child = fork();
    if (child == 0) {
        std::thread([] {}).join();
        using Clock = std::chrono::steady_clock;
        double perPair = 0;
        for (int64_t pairs = 1000;; pairs *= 4) {
            const auto start = Clock::now();
            for (int64_t i = 0; i < pairs; i++) {
                void *block = std::malloc(size);
                touch(block, size, touchPages);
                std::free(block);
            }
            const std::chrono::duration<double> elapsed = Clock::now() - start;
            perPair = elapsed.count() / static_cast<double>(pairs);
            if (elapsed.count() > 0.3) break;
        }
        _exit(write(fds[1], &perPair, sizeof perPair) == sizeof perPair ? 0 : 1);
    }
    close(fds[1]);
    double perPair = 0;
    const bool got = child > 0 && read(fds[0], &perPair, sizeof perPair) == sizeof perPair;
    close(fds[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    if (!got) return state.SkipWithError("the measuring child failed");
    for (auto _ : state) state.SetIterationTime(perPair);
}
BENCHMARK(BM_Malloc_ThreadedProcess)->Apply(sizes)->UseManualTime();

// The floor of the pool's steady state: the allocator calls, one
// compare-and-swap to take the cached block, and for its free a read of the
// coarse monotonic counter (its time of release, which age-out needs) and
// one more compare-and-swap to give it back.
std::atomic<uint64_t> gFloorWord{uint64_t(1) << 48 | 0x10000};
std::atomic<uint64_t> gFloorTime{0};
void *floorAllocate(CFIndex, CFOptionFlags, void *) noexcept {
    uint64_t word = gFloorWord.load(std::memory_order_relaxed);
    if (gFloorWord.compare_exchange_strong(word, word | 1, std::memory_order_acquire, std::memory_order_relaxed))
        return reinterpret_cast<void *>(static_cast<uintptr_t>(word & 0xFFFFFFFFFFFC));
    return nullptr;
}
void floorDeallocate(void *, void *) noexcept {
    uint64_t word = gFloorWord.load(std::memory_order_relaxed);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    gFloorTime.store(static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec),
                     std::memory_order_relaxed);
    gFloorWord.compare_exchange_strong(word, word & ~uint64_t(1), std::memory_order_release, std::memory_order_relaxed);
}
void BM_Floor_AllocatorCallsTwoCompareExchangesAndAClockRead(benchmark::State &state) {
    CFAllocatorContext context = {0,       nullptr,         nullptr, nullptr, nullptr, floorAllocate,
                                  nullptr, floorDeallocate, nullptr};
    CFAllocatorRef allocator = CFAllocatorCreate(kCFAllocatorDefault, &context);
    for (auto _ : state) {
        void *block = CFAllocatorAllocate(allocator, 1 << 20, 0);
        benchmark::DoNotOptimize(block);
        CFAllocatorDeallocate(allocator, block);
    }
    CFRelease(allocator);
}
BENCHMARK(BM_Floor_AllocatorCallsTwoCompareExchangesAndAClockRead);

void BM_PosixMemalign(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *block = nullptr;
        if (posix_memalign(&block, kPage, size) != 0) state.SkipWithError("posix_memalign failed");
        touch(block, size, state.range(1));
        std::free(block);
    }
}
BENCHMARK(BM_PosixMemalign)->Apply(sizes);

void BM_Mmap(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *block = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        touch(block, size, state.range(1));
        munmap(block, size);
    }
}
BENCHMARK(BM_Mmap)->Apply(sizes);

#if SORVEL_BENCH_HAVE_LIBAVUTIL
void BM_AVBufferPool(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    AVBufferPool *pool = av_buffer_pool_init(size, nullptr);
    for (auto _ : state) {
        AVBufferRef *buffer = av_buffer_pool_get(pool);
        touch(buffer->data, size, state.range(1));
        av_buffer_unref(&buffer);
    }
    av_buffer_pool_uninit(&pool);
}
BENCHMARK(BM_AVBufferPool)->Apply(sizes);
#endif

}  // namespace
