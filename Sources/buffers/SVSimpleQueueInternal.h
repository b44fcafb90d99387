/* SPDX-License-Identifier: Apache-2.0 */
// The simple queue's layout.
#ifndef SORVEL_SOURCES_SVSIMPLEQUEUEINTERNAL_H
#define SORVEL_SOURCES_SVSIMPLEQUEUEINTERNAL_H

#include <CoreFoundation/CFRuntime.h>
#include <Sorvel/SVSimpleQueue.h>

#include <cstddef>
#include <cstdint>

// Instances are only 16-byte aligned, so the two sides are kept apart by
// distance rather than alignment: 128 bytes between groups puts them on
// different cache lines, and not on the pair of lines that adjacent-line
// prefetchers fetch together.
inline constexpr size_t kSVSimpleQueueSeparation = 128;

struct OpaqueSVSimpleQueue {
    CFRuntimeBase base;
    // Read-only after creation; read by both sides.
    int32_t capacity;
    uint32_t indexMask;
    char padAfterShape[kSVSimpleQueueSeparation - sizeof(CFRuntimeBase) - 2 * sizeof(uint32_t)];

    // The consumer's line.  Only the consumer writes these.
    uint32_t dequeueCount;         // total taken out, wraps modulo 2^32
    uint32_t consumerSeenEnqueue;  // the enqueue count as the consumer last read it
    char padAfterConsumer[kSVSimpleQueueSeparation - 2 * sizeof(uint32_t)];

    // The producer's line.  Only the producer writes these.
    uint32_t enqueueCount;         // total put in, wraps modulo 2^32
    uint32_t producerSeenDequeue;  // the dequeue count as the producer last read it
    char padAfterProducer[kSVSimpleQueueSeparation - 2 * sizeof(uint32_t)];

    // Followed by indexMask + 1 slots (zero when the mask is all ones); the
    // element with sequence number i lives in slot i & indexMask.
};

inline const void **SVSimpleQueueSlots(OpaqueSVSimpleQueue *queue) {
    return reinterpret_cast<const void **>(queue + 1);
}

#endif  // SORVEL_SOURCES_SVSIMPLEQUEUEINTERNAL_H
