// SPDX-License-Identifier: Apache-2.0
// Buffer-queue throughput: enqueue + dequeue of sample buffers through a
// queue sorted by output presentation time with two triggers installed (a
// low-water mark, by duration or by count, and a buffer-count high-water
// mark), side by side with GStreamer's queues when GStreamer is installed.
//
// Each iteration pushes a batch of kBatch buffers, made beforehand, in
// decode order (presentation times run ahead and back in groups of four, as
// with B-frames) and pops them all.  Items per second counts buffers that
// went in and came out.  The peers:
// - GstDataQueue (gstreamer-base): push/pop of GstBuffers with a "full"
//   check, GStreamer's own producer/consumer queue (arrival order only);
// - GstAtomicQueue (gstreamer core): the lock-free FIFO, no level checks;
// - a GQueue under a GMutex with sorted insertion by PTS and level
//   accounting: what the sorted queue does, written with GLib's parts.
//
//   build-rel/bench/SVBufferQueue_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <Sorvel/SVBufferQueue.h>
#include <Sorvel/SVSampleBuffer.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#if SORVEL_BENCH_HAVE_GSTREAMER
#include <gst/gst.h>
#include <gst/gstatomicqueue.h>
#endif
#if SORVEL_BENCH_HAVE_GSTREAMER_BASE
#include <gst/base/gstdataqueue.h>
#endif

namespace {

constexpr int kBatch = 32;
constexpr int kPattern[4] = {0, 3, 1, 2};

int64_t ptsOf(int index) {
    return (index / 4) * 4 + kPattern[index % 4];
}

std::vector<SVSampleBufferRef> makeSampleBuffers() {
    std::vector<SVSampleBufferRef> buffers;
    for (int i = 0; i < kBatch; ++i) {
        SVSampleTimingInfo timing = {SVTimeMake(1, 30), SVTimeMake(ptsOf(i), 30), SVTimeMake(i, 30)};
        size_t size = 4096;
        SVSampleBufferRef sbuf = nullptr;
        SVSampleBufferCreateReady(nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sbuf);
        buffers.push_back(sbuf);
    }
    return buffers;
}

void ignoreTrigger(void *, SVBufferQueueTriggerToken) {}

// The trigger conditions are tested after every change; a duration
// condition reads the queue's running duration sum (kept for the
// sample-buffer records) and compares it with the threshold, a count
// condition compares two integers.  Both fire on most changes here, so
// each call also takes and drops its reference on the queue.
void runSorted(benchmark::State &state, SVBufferQueueTriggerCondition lowWater, SVTime lowWaterTime,
               int32_t lowWaterCount) {
    SVBufferQueueRef queue = nullptr;
    if (SVBufferQueueCreate(nullptr, 0, SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(), &queue) != 0) {
        state.SkipWithError("SVBufferQueueCreate failed");
        return;
    }
    SVBufferQueueTriggerToken low, high;
    if (lowWaterCount != 0)
        SVBufferQueueInstallTriggerWithIntegerThreshold(queue, ignoreTrigger, nullptr, lowWater, lowWaterCount, &low);
    else
        SVBufferQueueInstallTrigger(queue, ignoreTrigger, nullptr, lowWater, lowWaterTime, &low);
    SVBufferQueueInstallTriggerWithIntegerThreshold(
        queue, ignoreTrigger, nullptr, kSVBufferQueueTrigger_WhenBufferCountBecomesGreaterThan, kBatch / 2, &high);
    std::vector<SVSampleBufferRef> buffers = makeSampleBuffers();
    for (auto _ : state) {
        for (SVSampleBufferRef sbuf : buffers) SVBufferQueueEnqueue(queue, sbuf);
        for (int i = 0; i < kBatch; ++i) CFRelease(SVBufferQueueDequeueAndRetain(queue));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    for (SVSampleBufferRef sbuf : buffers) CFRelease(sbuf);
    CFRelease(queue);
}

void BM_SVBufferQueue_SortedDurationAndCountTriggers(benchmark::State &state) {
    runSorted(state, kSVBufferQueueTrigger_WhenDurationBecomesLessThan, SVTimeMake(1, 2), 0);
}
BENCHMARK(BM_SVBufferQueue_SortedDurationAndCountTriggers);

void BM_SVBufferQueue_SortedTwoCountTriggers(benchmark::State &state) {
    runSorted(state, kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan, kSVTimeZero, kBatch / 4);
}
BENCHMARK(BM_SVBufferQueue_SortedTwoCountTriggers);

void BM_SVBufferQueue_UnsortedNoTriggers(benchmark::State &state) {
    SVBufferQueueRef queue = nullptr;
    if (SVBufferQueueCreate(nullptr, 0, SVBufferQueueGetCallbacksForUnsortedSampleBuffers(), &queue) != 0) {
        state.SkipWithError("SVBufferQueueCreate failed");
        return;
    }
    std::vector<SVSampleBufferRef> buffers = makeSampleBuffers();
    for (auto _ : state) {
        for (SVSampleBufferRef sbuf : buffers) SVBufferQueueEnqueue(queue, sbuf);
        for (int i = 0; i < kBatch; ++i) CFRelease(SVBufferQueueDequeueAndRetain(queue));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    for (SVSampleBufferRef sbuf : buffers) CFRelease(sbuf);
    CFRelease(queue);
}
BENCHMARK(BM_SVBufferQueue_UnsortedNoTriggers);

#if SORVEL_BENCH_HAVE_GSTREAMER

std::vector<GstBuffer *> makeGstBuffers() {
    gst_init(nullptr, nullptr);
    std::vector<GstBuffer *> buffers;
    for (int i = 0; i < kBatch; ++i) {
        GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 4096, nullptr);
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(ptsOf(i)) * GST_SECOND / 30;
        GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / 30;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        buffers.push_back(buffer);
    }
    return buffers;
}

void releaseGstBuffers(std::vector<GstBuffer *> &buffers) {
    for (GstBuffer *buffer : buffers) gst_buffer_unref(buffer);
}

#if SORVEL_BENCH_HAVE_GSTREAMER_BASE

gboolean dataQueueIsFull(GstDataQueue *, guint visible, guint, guint64, gpointer) {
    return visible > 4 * kBatch;
}

void freeDataQueueItem(GstDataQueueItem *item) {
    gst_mini_object_unref(item->object);
    g_free(item);
}

void BM_GstDataQueue_PushPop(benchmark::State &state) {
    std::vector<GstBuffer *> buffers = makeGstBuffers();
    GstDataQueue *queue = gst_data_queue_new(dataQueueIsFull, nullptr, nullptr, nullptr);
    for (auto _ : state) {
        for (GstBuffer *buffer : buffers) {
            auto *item = static_cast<GstDataQueueItem *>(g_malloc0(sizeof(GstDataQueueItem)));
            item->object = GST_MINI_OBJECT_CAST(gst_buffer_ref(buffer));
            item->size = static_cast<guint>(gst_buffer_get_size(buffer));
            item->duration = GST_BUFFER_DURATION(buffer);
            item->visible = TRUE;
            item->destroy = reinterpret_cast<GDestroyNotify>(freeDataQueueItem);
            gst_data_queue_push(queue, item);
        }
        for (int i = 0; i < kBatch; ++i) {
            GstDataQueueItem *item = nullptr;
            gst_data_queue_pop(queue, &item);
            item->destroy(item);
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    g_object_unref(queue);
    releaseGstBuffers(buffers);
}
BENCHMARK(BM_GstDataQueue_PushPop);

#endif  // SORVEL_BENCH_HAVE_GSTREAMER_BASE

void BM_GstAtomicQueue_PushPop(benchmark::State &state) {
    std::vector<GstBuffer *> buffers = makeGstBuffers();
    GstAtomicQueue *queue = gst_atomic_queue_new(kBatch);
    for (auto _ : state) {
        for (GstBuffer *buffer : buffers) gst_atomic_queue_push(queue, gst_buffer_ref(buffer));
        for (int i = 0; i < kBatch; ++i) gst_buffer_unref(static_cast<GstBuffer *>(gst_atomic_queue_pop(queue)));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    gst_atomic_queue_unref(queue);
    releaseGstBuffers(buffers);
}
BENCHMARK(BM_GstAtomicQueue_PushPop);

// The sorted queue's job in GLib: insertion by PTS, a running level (count
// and duration), and a check of two thresholds after each change.
struct SortedGQueue {
    GQueue queue = G_QUEUE_INIT;
    GMutex mutex;
    guint64 duration = 0;
    int lowWaterHits = 0, highWaterHits = 0;
};

gint comparePTS(gconstpointer a, gconstpointer b, gpointer) {
    GstClockTime pa = GST_BUFFER_PTS(static_cast<const GstBuffer *>(a));
    GstClockTime pb = GST_BUFFER_PTS(static_cast<const GstBuffer *>(b));
    return pa < pb ? -1 : pa > pb ? 1 : 0;
}

void checkLevels(SortedGQueue &q) {
    if (q.duration < GST_SECOND / 2) q.lowWaterHits++;
    if (q.queue.length > kBatch / 2) q.highWaterHits++;
}

void BM_GQueueSortedUnderMutex_PushPop(benchmark::State &state) {
    std::vector<GstBuffer *> buffers = makeGstBuffers();
    SortedGQueue q;
    g_mutex_init(&q.mutex);
    for (auto _ : state) {
        for (GstBuffer *buffer : buffers) {
            g_mutex_lock(&q.mutex);
            g_queue_insert_sorted(&q.queue, gst_buffer_ref(buffer), comparePTS, nullptr);
            q.duration += GST_BUFFER_DURATION(buffer);
            checkLevels(q);
            g_mutex_unlock(&q.mutex);
        }
        for (int i = 0; i < kBatch; ++i) {
            g_mutex_lock(&q.mutex);
            auto *buffer = static_cast<GstBuffer *>(g_queue_pop_head(&q.queue));
            q.duration -= GST_BUFFER_DURATION(buffer);
            checkLevels(q);
            g_mutex_unlock(&q.mutex);
            gst_buffer_unref(buffer);
        }
    }
    benchmark::DoNotOptimize(q.lowWaterHits + q.highWaterHits);
    state.SetItemsProcessed(state.iterations() * kBatch);
    g_mutex_clear(&q.mutex);
    releaseGstBuffers(buffers);
}
BENCHMARK(BM_GQueueSortedUnderMutex_PushPop);

#endif  // SORVEL_BENCH_HAVE_GSTREAMER

}  // namespace
