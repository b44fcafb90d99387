// SPDX-License-Identifier: Apache-2.0
// Memory-pool allocate/free of 64 KiB and 1 MiB blocks, side by side with
// malloc/free, posix_memalign/free (page-aligned like the pool), mmap/munmap
// (what malloc does for blocks above its mmap threshold) and FFmpeg's
// AVBufferPool when libavutil is installed.
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
#include <time.h>
#include <unistd.h>

#include <cstdlib>

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
