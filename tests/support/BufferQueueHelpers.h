/* SPDX-License-Identifier: Apache-2.0 */
// What the buffer-queue tests share: the two ready-made sample-buffer
// records, a queue that owns the buffers put in it, and the duration a
// queue's buffers add up to by the getters.
#ifndef SORVEL_TESTS_SUPPORT_BUFFERQUEUEHELPERS_H
#define SORVEL_TESTS_SUPPORT_BUFFERQUEUEHELPERS_H

#include <Sorvel/SVBufferQueue.h>
#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace sorvel_test {

// The unsorted and the sorted-by-output-time records, for tests that must
// hold for both.
inline std::array<const SVBufferCallbacks *, 2> sampleBufferRecords() {
    return {SVBufferQueueGetCallbacksForUnsortedSampleBuffers(),
            SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS()};
}

// A queue made with a record, and the sample buffers enqueued into it;
// both are released when it goes, also when an assertion ends the test.
struct OwningQueue {
    SVBufferQueueRef queue = nullptr;
    std::vector<SVSampleBufferRef> buffers;
    explicit OwningQueue(const SVBufferCallbacks *record) {
        EXPECT_EQ(SVBufferQueueCreate(nullptr, 0, record, &queue), 0);
    }
    ~OwningQueue() {
        if (queue) CFRelease(queue);
        for (SVSampleBufferRef buffer : buffers) CFRelease(buffer);
    }
    OwningQueue(const OwningQueue &) = delete;
    OwningQueue &operator=(const OwningQueue &) = delete;
    // Takes `buffer` over and enqueues it; the enqueue's status.
    OSStatus enqueue(SVSampleBufferRef buffer) {
        buffers.push_back(buffer);
        return SVBufferQueueEnqueue(queue, buffer);
    }
};

// Every field alike.
inline bool sameTime(SVTime a, SVTime b) {
    return a.value == b.value && a.timescale == b.timescale && a.flags == b.flags && a.epoch == b.epoch;
}

// The record's durations of the buffers present folded head to tail from
// zero by SVTimeAdd: what SVBufferQueueGetDuration must answer.
inline SVTime foldedDuration(SVBufferQueueRef queue) {
    struct Fold {
        static OSStatus add(SVBufferRef buffer, void *refcon) {
            auto *total = static_cast<SVTime *>(refcon);
            *total =
                SVTimeAdd(*total, SVBufferQueueGetCallbacksForUnsortedSampleBuffers()->getDuration(buffer, nullptr));
            return 0;
        }
    };
    SVTime total = kSVTimeZero;
    EXPECT_EQ(SVBufferQueueCallForEachBuffer(queue, Fold::add, &total), 0);
    return total;
}

}  // namespace sorvel_test

#endif  // SORVEL_TESTS_SUPPORT_BUFFERQUEUEHELPERS_H
