// SPDX-License-Identifier: Apache-2.0
// Simple-queue throughput between two threads, side by side with
// boost::lockfree::spsc_queue when it is installed.
//
// Each iteration moves kBatch pointers from this thread to a consumer
// thread started for the batch (its start-up is spread over the batch);
// both sides spin, yielding now and then, on a full or empty queue.  Items
// per second is the figure to compare.
//
//   build/bench/SVSimpleQueue_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <Sorvel/SVSimpleQueue.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <thread>

#if SORVEL_BENCH_HAVE_BOOST_LOCKFREE
#include <boost/lockfree/spsc_queue.hpp>
#endif

namespace {

constexpr int64_t kBatch = 1 << 20;

inline void backOff(unsigned &spins) {
    if (++spins % 64 == 0) std::this_thread::yield();
}

const void *element(int64_t n) {
    return reinterpret_cast<const void *>(static_cast<uintptr_t>(n));
}

template <typename Push, typename Pop>
void moveBatches(benchmark::State &state, Push push, Pop pop) {
    for (auto _ : state) {
        std::thread consumer([&] {
            unsigned spins = 0;
            for (int64_t received = 0; received < kBatch;) {
                if (pop())
                    received++;
                else
                    backOff(spins);
            }
        });
        unsigned spins = 0;
        for (int64_t n = 1; n <= kBatch;) {
            if (push(element(n)))
                n++;
            else
                backOff(spins);
        }
        consumer.join();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_SVSimpleQueue_TwoThreads(benchmark::State &state) {
    SVSimpleQueueRef queue;
    if (SVSimpleQueueCreate(nullptr, static_cast<int32_t>(state.range(0)), &queue) != 0) {
        state.SkipWithError("SVSimpleQueueCreate failed");
        return;
    }
    moveBatches(
        state, [queue](const void *item) { return SVSimpleQueueEnqueue(queue, item) == 0; },
        [queue] { return SVSimpleQueueDequeue(queue) != nullptr; });
    CFRelease(queue);
}
BENCHMARK(BM_SVSimpleQueue_TwoThreads)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

#if SORVEL_BENCH_HAVE_BOOST_LOCKFREE
// Capacity given at run time, as the simple queue's is.
void BM_BoostSpscQueue_TwoThreads(benchmark::State &state) {
    boost::lockfree::spsc_queue<const void *> queue(static_cast<size_t>(state.range(0)));
    moveBatches(
        state, [&queue](const void *item) { return queue.push(item); },
        [&queue] {
            const void *item;
            return queue.pop(item);
        });
}
BENCHMARK(BM_BoostSpscQueue_TwoThreads)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

// The floor of the two rows above for a queue behind a C interface: the
// peer's own ring, each push and pop reached through a call that cannot be
// inlined (as an exported function is).  Ours pays that call and its
// argument check besides.
using SpscQueue = boost::lockfree::spsc_queue<const void *>;
bool (*volatile gPush)(SpscQueue *, const void *) = [](SpscQueue *queue, const void *item) {
    return queue->push(item);
};
const void *(*volatile gPop)(SpscQueue *) = [](SpscQueue *queue) -> const void * {
    const void *item = nullptr;
    return queue->pop(item) ? item : nullptr;
};
void BM_Floor_SpscBehindCalls_TwoThreads(benchmark::State &state) {
    SpscQueue queue(static_cast<size_t>(state.range(0)));
    auto push = gPush;
    auto pop = gPop;
    moveBatches(
        state, [&queue, push](const void *item) { return push(&queue, item); },
        [&queue, pop] { return pop(&queue) != nullptr; });
}
BENCHMARK(BM_Floor_SpscBehindCalls_TwoThreads)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

// One thread, no contention: the cost of the calls themselves.
void BM_SVSimpleQueue_EnqueueDequeue(benchmark::State &state) {
    SVSimpleQueueRef queue;
    if (SVSimpleQueueCreate(nullptr, 256, &queue) != 0) return;
    for (auto _ : state) {
        SVSimpleQueueEnqueue(queue, element(1));
        benchmark::DoNotOptimize(SVSimpleQueueDequeue(queue));
    }
    CFRelease(queue);
}
BENCHMARK(BM_SVSimpleQueue_EnqueueDequeue);

// The floor of the row above: two calls across the library boundary that
// do next to nothing (a NULL test and a load each).  What enqueue+dequeue
// costs beyond this is the queue's own work; an inlined peer pays neither.
void BM_SVSimpleQueue_TwoCallsFloor(benchmark::State &state) {
    SVSimpleQueueRef queue;
    if (SVSimpleQueueCreate(nullptr, 256, &queue) != 0) return;
    for (auto _ : state) {
        benchmark::DoNotOptimize(SVSimpleQueueGetCapacity(queue));
        benchmark::DoNotOptimize(SVSimpleQueueGetCapacity(queue));
    }
    CFRelease(queue);
}
BENCHMARK(BM_SVSimpleQueue_TwoCallsFloor);

#if SORVEL_BENCH_HAVE_BOOST_LOCKFREE
void BM_BoostSpscQueue_PushPop(benchmark::State &state) {
    boost::lockfree::spsc_queue<const void *> queue(256);
    for (auto _ : state) {
        queue.push(element(1));
        const void *item;
        benchmark::DoNotOptimize(queue.pop(item));
    }
}
BENCHMARK(BM_BoostSpscQueue_PushPop);
#endif

}  // namespace
